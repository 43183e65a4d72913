#include "flow_table.h"

#include <cstring>

namespace dpimod {

size_t FlowTable::Hash::operator()(const FiveTuple &tuple) const {
    uint64_t words[5]{};
    std::memcpy(words, &tuple, sizeof tuple);
    uint64_t hash = 0;
    for (uint64_t word : words) {
        hash = (hash ^ word) * 0x9e3779b97f4a7c15U;
        hash ^= hash >> 32;
    }
    return hash;
}

void FlowTable::List::append(Flow &flow) {
    flow.earlier = newest;
    flow.later = nullptr;
    (newest ? newest->later : oldest) = &flow;
    newest = &flow;
}

void FlowTable::List::remove(Flow &flow) {
    (flow.earlier ? flow.earlier->later : oldest) = flow.later;
    (flow.later ? flow.later->earlier : newest) = flow.earlier;
}

Flow &FlowTable::add(const FiveTuple &key, uint64_t now) {
    Flow &flow = flows_.try_emplace(key).first->second;
    flow.firstSeen = flow.lastSeen = now;
    open_.append(flow);
    return flow;
}

void FlowTable::count(const PacketInfo &packet, size_t bytes, uint64_t now) {
    const FiveTuple key = packet.flow.undirected();
    const auto found = flows_.find(key);
    if (found == flows_.end() && flows_.size() >= limits_.flows) {
        ++untracked_;
        return;
    }
    Flow &flow = found == flows_.end() ? add(key, now) : found->second;
    if (found == flows_.end()) flow.tuple = packet.flow;
    ++flow.packets;
    flow.bytes += bytes;
    if (flow.closed) return;  // late packets do not keep it alive
    flow.lastSeen = now;
    if (open_.newest != &flow) {
        open_.remove(flow);
        open_.append(flow);
    }
    if (packet.fin || packet.rst) noteClosing(flow, packet);
}

void FlowTable::noteClosing(Flow &flow, const PacketInfo &packet) {
    if (packet.fin) (packet.flow == flow.tuple ? flow.finForward : flow.finBackward) = true;
    if (!packet.rst && !(flow.finForward && flow.finBackward)) return;
    open_.remove(flow);
    flow.closed = true;
    closed_.append(flow);
}

Flow &FlowTable::record(const Result &result, uint64_t now) {
    const FiveTuple key = result.flow.undirected();
    const auto found = flows_.find(key);
    Flow &flow = found == flows_.end() ? add(key, now) : found->second;
    // From here on the flow's forward direction is the message's.
    if (flow.tuple != result.flow) std::swap(flow.finForward, flow.finBackward);
    flow.tuple = result.flow;
    if (!flow.classified) {
        flow.number = ++classifications_;
        ++classified_;
    }
    flow.classified = true;
    ++flow.results;
    flow.match = result.match;
    flow.appId = result.appId.value_or(0);
    flow.appName = result.appName.value_or("");
    flow.groupName = result.groupName.value_or("");
    return flow;
}

const Flow *FlowTable::find(const FiveTuple &tuple) const {
    const auto found = flows_.find(tuple.undirected());
    return found == flows_.end() ? nullptr : &found->second;
}

void FlowTable::ageList(List &list, uint64_t before, const std::function<void(const Flow &)> &aged) {
    while (Flow *flow = list.oldest) {
        if (flow->lastSeen > before) return;
        aged(*flow);
        list.remove(*flow);
        if (flow->classified) --classified_;
        flows_.erase(flow->tuple.undirected());
    }
}

void FlowTable::age(uint64_t now, bool all, const std::function<void(const Flow &)> &aged) {
    const auto past = [&](uint64_t span) { return now > span ? now - span : 0; };
    if (all || now >= limits_.closed) ageList(closed_, all ? UINT64_MAX : past(limits_.closed), aged);
    if (all || now >= limits_.idle) ageList(open_, all ? UINT64_MAX : past(limits_.idle), aged);
}

void FlowTable::forEach(const std::function<void(const Flow &)> &visit) const {
    for (const Flow *flow = open_.oldest; flow; flow = flow->later) visit(*flow);
    for (const Flow *flow = closed_.oldest; flow; flow = flow->later) visit(*flow);
}

void FlowTable::clear() {
    flows_.clear();
    open_ = closed_ = {};
    classified_ = 0;
}

}  // namespace dpimod
