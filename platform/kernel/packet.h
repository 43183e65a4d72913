// A packet from its link layer to its flow.
//
// Input is whatever a capture file holds: every header is checked against the bytes that are there.
#pragma once
#include <optional>

#include "wire.h"

namespace dpimod {

enum class Strip {
    ok,
    notIp,        // another protocol, or a link type of nodes that carry no IP
    tooShort,     // ends before its IP header does
    wrongVersion  // link header says IPv4 or IPv6, the first nibble says otherwise
};

// True if packets of this libpcap link type can be stripped.
bool linkTypeKnown(int linkType);

// Finds the IP packet in a captured frame: Ethernet with any VLAN tags, raw IP, Linux cooked (both versions),
// loopback.  `ip` is what was captured of it, at least a whole fixed IP header.
Strip stripLink(int linkType, ByteView frame, ByteView &ip);

struct PacketInfo {
    FiveTuple flow;  // in the packet's direction; ports 0 where there are none
    bool fin = false, rst = false;
};

// The flow of an IP packet; nothing for a packet cut before its ports, or a fragment without them.
std::optional<PacketInfo> inspect(ByteView ip);

}  // namespace dpimod
