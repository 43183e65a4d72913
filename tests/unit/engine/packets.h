// Builds the packets that the engine tests hand over, from the inside out.
#pragma once

#include <cstdint>
#include <vector>

#include "packet.h"

using Bytes = std::vector<uint8_t>;

Bytes joined(Bytes first, const Bytes &second);
void putWord(Bytes &bytes, size_t at, size_t value);

// Transport headers, and what comes behind them.
Bytes udp(uint16_t srcPort, uint16_t dstPort, const Bytes &payload = {});
Bytes tcp(uint16_t srcPort, uint16_t dstPort, uint8_t flags);

// From 10.0.0.1 to 10.0.0.2; the options' length is a multiple of four.
Bytes ipv4(uint8_t proto, const Bytes &payload, const Bytes &options = {});
// From fd00::1 to fd00::2.
Bytes ipv6(uint8_t next, const Bytes &payload);

// The packet of the same flow that goes the other way: addresses and ports swapped, for headers without
// options.
Bytes answer(Bytes bytes);
