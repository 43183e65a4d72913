#include "core/append.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <functional>
#include <random>
#include <string>

namespace {

std::string text(const std::function<char *(char *)> &append) {
    char buffer[128];
    std::fill_n(buffer, sizeof buffer, '#');
    const char *const end = append(buffer);
    return {buffer, static_cast<size_t>(end - buffer)};
}

template <class... Values>
std::string print(const char *format, Values... values) {
    char buffer[128];
    snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

class Append : public testing::Test {
  protected:
    // Numbers of every magnitude are as likely as large ones.
    uint64_t number() { return random_() >> (random_() % 64); }

    std::mt19937_64 random_{20240305};
};

TEST_F(Append, DecimalIsThatOfPrintf) {
    const auto check = [](uint64_t n) {
        EXPECT_EQ(text([n](char *at) { return am::appendDecimal(at, n); }),
                  print("%llu", static_cast<unsigned long long>(n)));
    };
    for (const uint64_t n : {0ULL, 9ULL, 10ULL, 99ULL, 100ULL, 999ULL, 1000ULL, 4294967295ULL, ULLONG_MAX})
        check(n);
    for (int i = 0; i < 20000; i++) check(number());
}

TEST_F(Append, Ipv4IsThatOfInetNtop) {
    for (int i = 0; i < 20000; i++) {
        const auto address = static_cast<uint32_t>(number());
        char expected[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &address, expected, sizeof expected);
        ASSERT_EQ(text([address](char *at) { return am::appendAddress(at, address); }), expected);
    }
}

// Words are zero, short or full by turns, so that runs of zeros of every length lie everywhere.
TEST_F(Append, Ipv6IsThatOfInetNtop) {
    for (int i = 0; i < 200000; i++) {
        in6_addr address{};
        for (size_t word = 0; word < 8; word++) {
            const unsigned value =
                random_() % 2 ? static_cast<unsigned>(random_() & 0xffff) >> (random_() % 16) : 0;
            address.s6_addr[2 * word] = static_cast<uint8_t>(value >> 8);
            address.s6_addr[2 * word + 1] = static_cast<uint8_t>(value);
        }
        if (i % 8 == 0) address.s6_addr[10] = address.s6_addr[11] = 0xff;  // an IPv4 address, perhaps
        char expected[INET6_ADDRSTRLEN];
        inet_ntop(AF_INET6, &address, expected, sizeof expected);
        ASSERT_EQ(text([&](char *at) { return am::appendAddress(at, address); }), expected);
    }
}

std::string modelUtc(time_t time) {
    tm broken{};
    gmtime_r(&time, &broken);
    return print("%i-%02i-%02i %02i:%02i:%02i", broken.tm_year + 1900, broken.tm_mon + 1, broken.tm_mday,
                 broken.tm_hour, broken.tm_min, broken.tm_sec);
}

// One appender throughout, as its remembered day is what could go wrong.
TEST_F(Append, UtcIsThatOfGmtimeOnEveryDayAndAtItsEnds) {
    am::UtcAppender utc;
    const auto check = [&utc](time_t time) {
        ASSERT_EQ(text([&](char *at) { return utc.append(at, time); }), modelUtc(time)) << time;
    };
    constexpr time_t kDay = 86400;
    for (time_t day = 0; day < 200'000; day++) {  // to the year 2517, leap years of every kind
        check(day * kDay);
        check(day * kDay + kDay - 1);
    }
    for (int i = 0; i < 20000; i++) check(static_cast<time_t>(number() % 253'402'300'800));
    for (const time_t time : {time_t{-1}, time_t{-86'401}, time_t{253'402'300'799}, time_t{253'402'300'800},
                              time_t{67'767'976'233'532'799}, time_t{0}})
        check(time);
}

TEST_F(Append, TimesNoCalendarHoldsStayWithinTheirRoom) {
    for (const time_t time : {LONG_MAX, LONG_MIN}) {
        am::UtcAppender utc;
        EXPECT_LT(text([&](char *at) { return utc.append(at, time); }).size(), am::kUtcRoom);
    }
}

}  // namespace
