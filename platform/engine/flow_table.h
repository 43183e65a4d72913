// The flows that an engine follows: a fixed number of records, found by tuple and ordered by when they were
// last seen, so that the one idle for longest is at hand when it is to expire or its record is wanted for
// another flow. Not locked: one thread at a time.
#pragma once

#include "packet.h"

namespace engine {

constexpr uint32_t kNoFlow = UINT32_MAX;

struct Flow {
    Tuple key;          // canonical
    bool swapped;       // the first packet went from the key's dst to its src
    uint8_t finsSeen;   // bit 0: of the key's src, bit 1: of its dst
    uint16_t packets;   // inspected so far
    uint64_t lastSeen;  // ms
    void *detection;    // the classifier's state; null once the flow has been reported
    uint32_t hashNext, older, newer;
};

struct FlowTable {
    Flow *flows;
    uint32_t *buckets;
    uint32_t capacity, used, freeList, oldest, newest;
    uint64_t seed;
};

// False if memory is short.  The capacity is a power of two.
[[nodiscard]] bool flowTableInit(FlowTable &table, uint32_t capacity, uint64_t seed);
// The caller has let go of every detection before.
void flowTableFree(FlowTable &table);

// The key is canonical.  Null: not there.
[[nodiscard]] Flow *flowFind(const FlowTable &table, const Tuple &key);
// A zeroed record, the newest; null when the table is full.  The key is not there yet.
[[nodiscard]] Flow *flowAdd(FlowTable &table, const Tuple &key);
void flowRemove(FlowTable &table, Flow &flow);
// Makes the flow the newest.
void flowTouch(FlowTable &table, Flow &flow, uint64_t now);
// Null when the table is empty.
[[nodiscard]] Flow *flowOldest(const FlowTable &table);

// Source and destination as in the flow's first packet.
[[nodiscard]] Tuple flowTuple(const Flow &flow);

}  // namespace engine
