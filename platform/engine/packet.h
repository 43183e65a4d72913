// Reads the IP and transport headers of one packet.  The packet is untrusted: every byte is checked to be
// there before it is read.  Formats: RFC 791 (IPv4), RFC 8200 (IPv6 and its extension headers), RFC 4302
// (AH).
#pragma once

#include "engine_api.h"

namespace engine {

// Both ends of a flow.  IPv4 addresses take the first four bytes of src and dst, the rest stays zero.
// Compared and hashed as bytes, so there is no padding.  Pings between two hosts are flows of their own, as a
// router's kernel has it; what tells them apart is not reported.
struct Tuple {
    uint8_t src[16], dst[16];   // network byte order
    uint16_t srcPort, dstPort;  // host byte order; 0 for protocols without ports
    uint8_t proto;              // IP protocol number
    uint8_t ipVersion;          // 4 or 6
    uint16_t echoId;            // of an ICMP echo and its reply, 0 for all else
};
static_assert(sizeof(Tuple) == 40);

struct Packet {
    const uint8_t *data;  // the IP header
    size_t len;           // cut to the length that the IP header states, and to what was handed over
    Tuple tuple;
    uint8_t tcpFlags;  // 0 unless TCP with a header that reaches that far
};

enum TcpFlag : uint8_t { TCP_FIN = 0x01, TCP_SYN = 0x02, TCP_RST = 0x04, TCP_ACK = 0x10 };

// False for what belongs to no flow: empty or cut headers, other IP versions, and later fragments, which
// carry no ports.
[[nodiscard]] bool parsePacket(const capture_pkt &given, Packet &packet);

// The same tuple for both directions of a flow; swapped tells that source and destination changed places.
[[nodiscard]] Tuple canonical(const Tuple &tuple, bool &swapped);
[[nodiscard]] Tuple reversed(const Tuple &tuple);

// The seed keeps outsiders from choosing flows that collide.
[[nodiscard]] uint64_t hashTuple(const Tuple &tuple, uint64_t seed);

// Calls the daemon.
void reportFlow(const Tuple &tuple, uint32_t appId, const char *appName, uint32_t flowState);

}  // namespace engine
