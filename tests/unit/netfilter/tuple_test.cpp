#include "netfilter/tuple.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

std::string textOf(const am::ConnTuple &tuple) {
    char source[INET6_ADDRSTRLEN], destination[INET6_ADDRSTRLEN];
    inet_ntop(tuple.family, tuple.source, source, sizeof source);
    inet_ntop(tuple.family, tuple.destination, destination, sizeof destination);
    const auto number = [](unsigned value) { return " " + std::to_string(value); };
    return std::string(source) + " " + destination + number(tuple.proto) + number(tuple.sourcePort) +
           number(tuple.destinationPort) + number(tuple.icmpType) + number(tuple.icmpCode) +
           number(tuple.icmpId);
}

Bytes ipv4(uint8_t proto, const Bytes &rest, uint8_t words = 5, uint16_t fragment = 0) {
    Bytes packet = {static_cast<uint8_t>(0x40 | words),
                    0,
                    0,
                    99,
                    0,
                    0,
                    static_cast<uint8_t>(fragment >> 8),
                    static_cast<uint8_t>(fragment),
                    64,
                    proto,
                    0,
                    0,
                    10,
                    0,
                    0,
                    1,
                    10,
                    0,
                    0,
                    2};
    packet.resize(size_t{words} * 4, 1);
    packet.insert(packet.end(), rest.begin(), rest.end());
    return packet;
}

Bytes ipv6(uint8_t next, const Bytes &rest) {
    Bytes packet = {0x60, 0, 0, 0, 0, 99, next, 64};
    for (const uint8_t end : {uint8_t{1}, uint8_t{2}}) {
        packet.insert(packet.end(), {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, end});
    }
    packet.insert(packet.end(), rest.begin(), rest.end());
    return packet;
}

const Bytes kPorts = {0x9c, 0x40, 0x01, 0xbb};  // 40000, 443

TEST(Tuple, IsReadFromPacketsOfEveryShapeAndNotFromShorterOnes) {
    const Bytes echo = {8, 0, 0xaa, 0xbb, 0x12, 0x34};
    const Bytes echo6 = {128, 0, 0xaa, 0xbb, 0x12, 0x34};
    const auto behind = [](Bytes extension, const Bytes &rest) {
        extension.insert(extension.end(), rest.begin(), rest.end());
        return extension;
    };
    struct {
        const char *name;
        Bytes packet;
        const char *expected;
    } const rows[] = {
        {"TCP", ipv4(6, kPorts), "10.0.0.1 10.0.0.2 6 40000 443 0 0 0"},
        {"options", ipv4(17, kPorts, 15), "10.0.0.1 10.0.0.2 17 40000 443 0 0 0"},
        {"first fragment", ipv4(17, kPorts, 5, 0x2000), "10.0.0.1 10.0.0.2 17 40000 443 0 0 0"},
        {"ICMP", ipv4(1, echo), "10.0.0.1 10.0.0.2 1 0 0 8 0 4660"},
        {"no ports", ipv4(50, {}), "10.0.0.1 10.0.0.2 50 0 0 0 0 0"},
        {"IPv6", ipv6(6, kPorts), "fd00::1 fd00::2 6 40000 443 0 0 0"},
        {"ICMPv6", ipv6(58, echo6), "fd00::1 fd00::2 58 0 0 128 0 4660"},
        {"extensions",
         ipv6(0, behind({60, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0}, kPorts)),
         "fd00::1 fd00::2 6 40000 443 0 0 0"},
        {"first fragment of IPv6", ipv6(44, behind({17, 0, 0, 1, 0, 0, 0, 7}, kPorts)),
         "fd00::1 fd00::2 17 40000 443 0 0 0"},
    };
    am::ConnTuple tuple;
    for (const auto &row : rows) {
        ASSERT_TRUE(am::readTuple(row.packet, tuple)) << row.name;
        EXPECT_EQ(textOf(tuple), row.expected) << row.name;
        for (size_t length = 0; length < row.packet.size(); length++) {
            const Bytes cut(row.packet.begin(), row.packet.begin() + static_cast<ptrdiff_t>(length));
            EXPECT_FALSE(am::readTuple(cut, tuple)) << row.name << " cut to " << length;
        }
    }
    EXPECT_FALSE(am::readTuple(ipv4(17, kPorts, 5, 0x2001), tuple)) << "a later fragment has no ports";
    EXPECT_FALSE(am::readTuple(ipv6(44, {17, 0, 0, 9, 0, 0, 0, 7, 1, 2, 3, 4}), tuple));
    EXPECT_FALSE(am::readTuple(ipv4(1, {3, 1, 0, 0, 0, 0}), tuple)) << "a report on another connection";
    EXPECT_FALSE(am::readTuple(ipv4(6, kPorts, 4), tuple)) << "a header shorter than itself";
}

TEST(Tuple, InverseIsWhatAnswersLookLike) {
    am::ConnTuple tuple;
    ASSERT_TRUE(am::readTuple(ipv4(6, kPorts), tuple));
    EXPECT_EQ(textOf(am::inverse(tuple)), "10.0.0.2 10.0.0.1 6 443 40000 0 0 0");
    EXPECT_TRUE(am::inverse(am::inverse(tuple)) == tuple);
    ASSERT_TRUE(am::readTuple(ipv4(1, {8, 0, 0, 0, 0, 7}), tuple));
    EXPECT_EQ(textOf(am::inverse(tuple)), "10.0.0.2 10.0.0.1 1 0 0 0 0 7");
    ASSERT_TRUE(am::readTuple(ipv6(58, {129, 0, 0, 0, 0, 7}), tuple));
    EXPECT_EQ(textOf(am::inverse(tuple)), "fd00::2 fd00::1 58 0 0 128 0 7");
}

}  // namespace
