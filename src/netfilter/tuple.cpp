#include "netfilter/tuple.h"

#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>

#include <algorithm>
#include <cstring>

namespace am {

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kIpv4Header = 20;
constexpr size_t kIpv6Header = 40;
constexpr int kMaxExtensions = 8;

struct IcmpPair {
    uint8_t query, answer;
};
constexpr IcmpPair kIcmpPairs[] = {{ICMP_ECHO, ICMP_ECHOREPLY},
                                   {ICMP_TIMESTAMP, ICMP_TIMESTAMPREPLY},
                                   {ICMP_INFO_REQUEST, ICMP_INFO_REPLY},
                                   {ICMP_ADDRESS, ICMP_ADDRESSREPLY}};
constexpr IcmpPair kIcmp6Pairs[] = {{ICMP6_ECHO_REQUEST, ICMP6_ECHO_REPLY}, {139, 140}};  // RFC 4620

// The answer's type for a query's and the other way round; -1 for any other, an error report among them.
int otherType(uint8_t proto, uint8_t type) {
    const std::span<const IcmpPair> pairs =
        proto == IPPROTO_ICMP ? std::span<const IcmpPair>(kIcmpPairs) : kIcmp6Pairs;
    for (const IcmpPair &pair : pairs) {
        if (type == pair.query) return pair.answer;
        if (type == pair.answer) return pair.query;
    }
    return -1;
}

uint16_t wordAt(Bytes bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

bool readTransport(Bytes header, ConnTuple &tuple) {
    switch (tuple.proto) {
        case IPPROTO_TCP:
        case IPPROTO_UDP:
        case IPPROTO_UDPLITE:
        case IPPROTO_SCTP:
        case IPPROTO_DCCP:
            if (header.size() < 4) return false;
            tuple.sourcePort = wordAt(header, 0);
            tuple.destinationPort = wordAt(header, 2);
            return true;
        case IPPROTO_ICMP:
        case IPPROTO_ICMPV6:
            if (header.size() < 6 || otherType(tuple.proto, header[0]) < 0) return false;
            tuple.icmpType = header[0];
            tuple.icmpCode = header[1];
            tuple.icmpId = wordAt(header, 4);
            return true;
        default:
            return true;
    }
}

bool readIpv4(Bytes packet, ConnTuple &tuple) {
    if (packet.size() < kIpv4Header) return false;
    const size_t headerSize = size_t{packet[0] & 0x0fU} * 4;
    if (headerSize < kIpv4Header || headerSize > packet.size()) return false;
    if ((wordAt(packet, 6) & 0x1fff) != 0) return false;
    tuple.family = AF_INET;
    tuple.proto = packet[9];
    memcpy(tuple.source, &packet[12], 4);
    memcpy(tuple.destination, &packet[16], 4);
    return readTransport(packet.subspan(headerSize), tuple);
}

bool readIpv6(Bytes packet, ConnTuple &tuple) {
    if (packet.size() < kIpv6Header) return false;
    tuple.family = AF_INET6;
    memcpy(tuple.source, &packet[8], 16);
    memcpy(tuple.destination, &packet[24], 16);
    uint8_t next = packet[6];
    Bytes rest = packet.subspan(kIpv6Header);
    for (int extensions = 0; extensions < kMaxExtensions; extensions++) {
        size_t size;
        switch (next) {
            case IPPROTO_HOPOPTS:
            case IPPROTO_ROUTING:
            case IPPROTO_DSTOPTS:
                if (rest.size() < 2) return false;
                size = (size_t{rest[1]} + 1) * 8;
                break;
            case IPPROTO_FRAGMENT:
                if (rest.size() < 8 || (wordAt(rest, 2) & 0xfff8) != 0) return false;
                size = 8;
                break;
            default:
                tuple.proto = next;
                return readTransport(rest, tuple);
        }
        if (rest.size() < size) return false;
        next = rest[0];
        rest = rest.subspan(size);
    }
    return false;
}

}  // namespace

ConnTuple inverse(const ConnTuple &tuple) {
    ConnTuple other = tuple;
    std::swap(other.source, other.destination);
    std::swap(other.sourcePort, other.destinationPort);
    if (tuple.proto == IPPROTO_ICMP || tuple.proto == IPPROTO_ICMPV6)
        if (const int type = otherType(tuple.proto, tuple.icmpType); type >= 0)
            other.icmpType = static_cast<uint8_t>(type);
    return other;
}

bool operator==(const ConnTuple &one, const ConnTuple &other) {
    return memcmp(&one, &other, sizeof one) == 0;
}

bool readTuple(std::span<const uint8_t> packet, ConnTuple &tuple) {
    tuple = {};
    if (packet.empty()) return false;
    switch (packet[0] >> 4) {
        case 4:
            return readIpv4(packet, tuple);
        case 6:
            return readIpv6(packet, tuple);
        default:
            return false;
    }
}

}  // namespace am
