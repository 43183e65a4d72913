// Every counter there is, by a fixed name.  Event-loop thread.
#pragma once
#include <cstdint>

namespace am {

struct Counter {
    const char *name;
    uint64_t value;
    const char *cure;  // of a loss: what helps, in one sentence; null for what is no loss
};

inline constexpr uint32_t kMostCounters = 64;

// Reads them all, in the order of a packet's road, which is the same at every call; the number there are.
uint32_t readCounters(Counter (&out)[kMostCounters]);

}  // namespace am
