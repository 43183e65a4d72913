#include "flow_table.h"

#include <cstdlib>
#include <cstring>

namespace engine {
namespace {

uint32_t indexOf(const FlowTable &table, const Flow &flow) {
    return static_cast<uint32_t>(&flow - table.flows);
}

uint32_t &bucketOf(const FlowTable &table, const Tuple &key) {
    return table.buckets[hashTuple(key, table.seed) & (table.capacity - 1)];
}

void unlinkAge(FlowTable &table, const Flow &flow) {
    (flow.older == kNoFlow ? table.oldest : table.flows[flow.older].newer) = flow.newer;
    (flow.newer == kNoFlow ? table.newest : table.flows[flow.newer].older) = flow.older;
}

void linkNewest(FlowTable &table, Flow &flow) {
    const uint32_t index = indexOf(table, flow);
    flow.older = table.newest;
    flow.newer = kNoFlow;
    (table.newest == kNoFlow ? table.oldest : table.flows[table.newest].newer) = index;
    table.newest = index;
}

}  // namespace

bool flowTableInit(FlowTable &table, uint32_t capacity, uint64_t seed) {
    table = {};
    table.flows = static_cast<Flow *>(calloc(capacity, sizeof(Flow)));
    table.buckets = static_cast<uint32_t *>(malloc(capacity * sizeof(uint32_t)));
    if (!table.flows || !table.buckets) {
        flowTableFree(table);
        return false;
    }
    memset(table.buckets, 0xff, capacity * sizeof(uint32_t));
    table.capacity = capacity;
    table.freeList = table.oldest = table.newest = kNoFlow;
    table.seed = seed;
    return true;
}

void flowTableFree(FlowTable &table) {
    free(table.flows);
    free(table.buckets);
    table = {};
}

Flow *flowFind(const FlowTable &table, const Tuple &key) {
    uint32_t index = bucketOf(table, key);
    while (index != kNoFlow && memcmp(&table.flows[index].key, &key, sizeof(key)) != 0)
        index = table.flows[index].hashNext;
    return index == kNoFlow ? nullptr : &table.flows[index];
}

Flow *flowAdd(FlowTable &table, const Tuple &key) {
    uint32_t index = table.freeList;
    if (index != kNoFlow)
        table.freeList = table.flows[index].hashNext;
    else if (table.used < table.capacity)
        index = table.used++;  // untouched so far: memory is taken only as flows come
    else
        return nullptr;

    Flow &flow = table.flows[index];
    flow = {};
    flow.key = key;
    uint32_t &bucket = bucketOf(table, key);
    flow.hashNext = bucket;
    bucket = index;
    linkNewest(table, flow);
    return &flow;
}

void flowRemove(FlowTable &table, Flow &flow) {
    const uint32_t index = indexOf(table, flow);
    uint32_t *link = &bucketOf(table, flow.key);
    while (*link != index) link = &table.flows[*link].hashNext;
    *link = flow.hashNext;
    unlinkAge(table, flow);
    flow.hashNext = table.freeList;
    table.freeList = index;
}

void flowTouch(FlowTable &table, Flow &flow, uint64_t now) {
    flow.lastSeen = now;
    if (table.newest == indexOf(table, flow)) return;
    unlinkAge(table, flow);
    linkNewest(table, flow);
}

Flow *flowOldest(const FlowTable &table) {
    return table.oldest == kNoFlow ? nullptr : &table.flows[table.oldest];
}

Tuple flowTuple(const Flow &flow) {
    return flow.swapped ? reversed(flow.key) : flow.key;
}

}  // namespace engine
