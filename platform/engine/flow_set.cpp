#include "flow_set.h"

#include <cstdlib>

namespace engine {
namespace {

constexpr size_t kFirstSlots = 1U << 14;

size_t slotOf(const FlowSet &set, uint64_t fingerprint) {
    size_t slot = fingerprint & set.mask;
    while (set.slots[slot] && set.slots[slot] != fingerprint) slot = (slot + 1) & set.mask;
    return slot;
}

// At most three quarters full, so that a search ends soon.
bool makeRoom(FlowSet &set) {
    if (set.slots && (set.used + 1) * 4 <= (set.mask + 1) * 3) return true;
    const size_t count = set.slots ? 2 * (set.mask + 1) : kFirstSlots;
    auto *slots = static_cast<uint64_t *>(calloc(count, sizeof(uint64_t)));
    if (!slots) return false;
    FlowSet bigger{slots, count - 1, set.used, set.limit};
    for (size_t i = 0; set.slots && i <= set.mask; i++)
        if (set.slots[i]) slots[slotOf(bigger, set.slots[i])] = set.slots[i];
    free(set.slots);
    set = bigger;
    return true;
}

}  // namespace

void flowSetInit(FlowSet &set, size_t limit) {
    set = {nullptr, 0, 0, limit};
}

void flowSetFree(FlowSet &set) {
    free(set.slots);
    set = {nullptr, 0, 0, set.limit};
}

FlowSeen flowSetAdd(FlowSet &set, uint64_t fingerprint) {
    if (!fingerprint) fingerprint = 1;
    if (set.slots && set.slots[slotOf(set, fingerprint)]) return FlowSeen::kKnown;
    if (set.used >= set.limit || !makeRoom(set)) return FlowSeen::kFull;
    set.slots[slotOf(set, fingerprint)] = fingerprint;
    set.used++;
    return FlowSeen::kNew;
}

}  // namespace engine
