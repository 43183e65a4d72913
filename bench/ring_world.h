// The receive ring in ordinary memory, and the kernel's part in it.
#pragma once
#include <cstddef>
#include <cstdint>

#include "switch/ring.h"

namespace bench {

inline constexpr uint32_t kFrames = 1024;

void mapRing();  // once, before anything else here
NlMmapHdr *headerAt(uint32_t index);

// Writes a packet message with a UDP packet of `length` bytes whose payload no classifier knows; its length.
uint32_t putPacketMessage(char *buffer, size_t length, uint32_t flow);

// Fills all frames, `perFlow` packets of each new flow in turn.
void writeRing(size_t length, uint32_t perFlow);
size_t ringLength();  // of the packets written last, 0 before

// Hands all frames over to the reader, as they are.
void offerRing();

}  // namespace bench
