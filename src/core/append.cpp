#include "core/append.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>

namespace am {
namespace {

constexpr int64_t kDaySeconds = 86'400;
constexpr int64_t kYear10000 = 253'402'300'800;  // from here on a year has more than four digits

constexpr auto kPairs = [] {  // "00" to "99"
    std::array<char, 200> pairs{};
    for (size_t i = 0; i < 100; i++) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

char *appendPair(char *at, unsigned number) {
    memcpy(at, &kPairs[size_t{2} * number], 2);
    return at + 2;
}

// The decimal text of every octet, padded to three characters, and its length.
struct OctetText {
    char text[3];
    uint8_t length;
};
constexpr auto kOctets = [] {
    std::array<OctetText, 256> octets{};
    for (unsigned i = 0; i < 256; i++) {
        OctetText &octet = octets[i];
        if (i >= 100) octet.text[octet.length++] = static_cast<char>('0' + i / 100);
        if (i >= 10) octet.text[octet.length++] = static_cast<char>('0' + i / 10 % 10);
        octet.text[octet.length++] = static_cast<char>('0' + i % 10);
    }
    return octets;
}();

char *appendHex(char *at, unsigned word) {  // "%x" of 16 bits
    constexpr char kDigits[] = "0123456789abcdef";
    if (word >= 0x1000) *at++ = kDigits[word >> 12];
    if (word >= 0x100) *at++ = kDigits[word >> 8 & 15];
    if (word >= 0x10) *at++ = kDigits[word >> 4 & 15];
    *at++ = kDigits[word & 15];
    return at;
}

// The longest run of at least two zero words, the first of equally long ones.
struct ZeroRun {
    int first = -1;
    int length = 1;
};
ZeroRun longestZeroRun(const std::array<unsigned, 8> &words) {
    ZeroRun best;
    for (int i = 0; i < 8; i++) {
        if (words[static_cast<size_t>(i)] != 0) continue;
        const int first = i;
        while (i < 8 && words[static_cast<size_t>(i)] == 0) i++;
        if (i - first > best.length) best = {first, i - first};
    }
    return best;
}

// The date of a day from 1970 to 9999.  Years are counted from March here: the leap day is then a year's
// last, and the months' lengths follow one line.
struct Date {
    unsigned year, month, day;
};
Date dateOf(int64_t daysSinceEpoch) {
    constexpr unsigned kDaysBeforeEpoch = 719'468;  // from 1 March of year 0
    constexpr unsigned kFourCenturies = 146'097;
    const unsigned days = static_cast<unsigned>(daysSinceEpoch) + kDaysBeforeEpoch;
    const unsigned era = days / kFourCenturies;
    const unsigned dayOfEra = days % kFourCenturies;
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned monthFromMarch = (5 * dayOfYear + 2) / 153;
    const unsigned month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    return {yearOfEra + era * 400 + (month <= 2), month, dayOfYear - (153 * monthFromMarch + 2) / 5 + 1};
}

// Times that only a broken clock gives: the C library's own conversion.
char *appendFarTime(char *at, time_t time) {
    tm broken{};
    gmtime_r(&time, &broken);
    char text[64];
    const int length =
        snprintf(text, sizeof text, "%li-%02i-%02i %02i:%02i:%02i", broken.tm_year + 1900L, broken.tm_mon + 1,
                 broken.tm_mday, broken.tm_hour, broken.tm_min, broken.tm_sec);
    return append(at,
                  {text, length < static_cast<int>(kUtcRoom) ? static_cast<size_t>(length) : kUtcRoom - 1});
}

}  // namespace

char *appendDecimal(char *at, uint64_t number) {
    char digits[kDecimalRoom];
    char *first = digits + sizeof digits;
    while (number >= 100) {
        first -= 2;
        (void)appendPair(first, static_cast<unsigned>(number % 100));
        number /= 100;
    }
    if (number >= 10) {
        first -= 2;
        (void)appendPair(first, static_cast<unsigned>(number));
    } else {
        *--first = static_cast<char>('0' + number);
    }
    return append(at, {first, static_cast<size_t>(digits + sizeof digits - first)});
}

char *appendAddress(char *at, uint32_t ipv4) {
    uint8_t octets[4];
    memcpy(octets, &ipv4, sizeof octets);
    for (const uint8_t octet : octets) {
        memcpy(at, kOctets[octet].text, 3);  // what is too much is overwritten
        at += kOctets[octet].length;
        *at++ = '.';
    }
    return at - 1;
}

char *appendAddress(char *at, const in6_addr &ipv6) {
    std::array<unsigned, 8> words{};
    for (size_t i = 0; i < 8; i++) words[i] = unsigned{ipv6.s6_addr[2 * i]} << 8 | ipv6.s6_addr[2 * i + 1];

    // C libraries differ in which addresses with leading zeros carry an IPv4 address, and in the run of
    // zeros they shorten there.  No global address begins so.
    if (words[0] == 0) {
        char text[INET6_ADDRSTRLEN] = "";
        inet_ntop(AF_INET6, &ipv6, text, sizeof text);
        return append(at, text);
    }

    const ZeroRun run = longestZeroRun(words);
    at = appendHex(at, words[0]);
    for (int i = 1; i < 8; i++) {
        *at++ = ':';
        if (i == run.first) {
            i += run.length;
            *at++ = ':';
            if (i == 8) break;
        }
        at = appendHex(at, words[static_cast<size_t>(i)]);
    }
    return at;
}

char *UtcAppender::append(char *at, time_t time) {
    if (time < 0 || time >= kYear10000) return appendFarTime(at, time);
    const int64_t day = time / kDaySeconds;
    if (day != day_) {
        const Date date = dateOf(day);
        char *end = appendPair(appendPair(date_, date.year / 100), date.year % 100);
        end = appendPair(am::append(end, '-'), date.month);
        end = appendPair(am::append(end, '-'), date.day);
        *end = ' ';
        day_ = day;
    }
    const auto second = static_cast<unsigned>(time % kDaySeconds);
    at = am::append(at, {date_, kDateLength});
    at = am::append(appendPair(at, second / 3600), ':');
    at = am::append(appendPair(at, second / 60 % 60), ':');
    return appendPair(at, second % 60);
}

}  // namespace am
