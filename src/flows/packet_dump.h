// The packet lines of the log, at PACKET, written while print_debug is set.
#pragma once
#include "kit/engine.h"

namespace am {
// The packet's version and, by it, one of the lines below; nothing of an empty packet.
void logPacket(const capture_pkt &pkt);
}  // namespace am

// A packet too short for the header that a line shows gets no line.
void dump_ipv4(const capture_pkt *pkt);
void dump_ipv6(const capture_pkt *pkt);
