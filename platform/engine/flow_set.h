// The flows that the scripted engine has seen: an open-addressing table of 64-bit fingerprints, 8 bytes a
// slot. Two of a million flows share a fingerprint once in some 30 million runs, and always the same two: the
// hash has no random part.
#pragma once

#include <cstddef>
#include <cstdint>

namespace engine {

struct FlowSet {
    uint64_t *slots;  // 0: free
    size_t mask, used, limit;
};

enum class FlowSeen { kNew, kKnown, kFull };

// Takes hold of at most limit flows.  The set is zero, or emptied, before.
void flowSetInit(FlowSet &set, size_t limit);
void flowSetFree(FlowSet &set);

// kFull: the flow is new, but the limit is reached or memory is short; it was not remembered.
[[nodiscard]] FlowSeen flowSetAdd(FlowSet &set, uint64_t fingerprint);

}  // namespace engine
