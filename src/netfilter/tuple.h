// One direction of a connection as conntrack knows it: addresses, protocol, and what the protocol tells
// connections apart by.
// Pure functions, any thread.
#pragma once
#include <cstdint>
#include <span>

namespace am {

// Addresses in network byte order, an IPv4 one in the first 4 bytes and the rest zero; ports and the ICMP
// identifier in host byte order.  Compares as bytes.
struct ConnTuple {
    uint8_t source[16], destination[16];
    uint16_t sourcePort, destinationPort;  // 0 for a protocol without ports
    uint16_t icmpId;                       // 0 for all but ICMP and ICMPv6, as are the next two
    uint8_t icmpType, icmpCode;
    uint8_t family;  // AF_INET or AF_INET6
    uint8_t proto;   // IP protocol number
    uint8_t zero[2];
};
static_assert(sizeof(ConnTuple) == 44);

// What the other end's packets look like where nothing is translated.  An ICMP type that is neither query nor
// answer stays as it is.
ConnTuple inverse(const ConnTuple &tuple);

bool operator==(const ConnTuple &one, const ConnTuple &other);

// Reads a packet from its IP header on; it may be cut short.  False when it does not tell: no IP, cut within
// a header, a later fragment, or an ICMP error, which reports on another connection; then the tuple has what
// was read before, both addresses and the protocol of an error.  The packet is untrusted.
bool readTuple(std::span<const uint8_t> packet, ConnTuple &tuple);

}  // namespace am
