// Flow table of the kernel module: one entry per flow seen in the mirrored traffic or named by a result.
//
//   absent --first packet--> seen --result--> classified --idle, or closed a while ago--> absent
//
// Packets of both directions belong to one flow.  Counting begins with a flow's first packet, so that what
// passed before the verdict is reported too; of flows beyond the limit only classified ones are kept, and
// these count from the verdict on.  Times are milliseconds of any clock that does not go back, handed in by
// the caller.
#pragma once
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "packet.h"
#include "wire.h"

namespace dpimod {

struct Flow {
    FiveTuple tuple;  // in the order of the result message once classified, else of the first packet
    uint64_t packets = 0, bytes = 0;
    uint64_t firstSeen = 0, lastSeen = 0;
    bool classified = false;
    uint8_t match = 0;
    uint32_t appId = 0, results = 0;
    std::string appName, groupName;

    uint64_t number = 0;  // in order of classification
    // Position in the list of open or closed flows, least recently seen first.
    Flow *earlier = nullptr, *later = nullptr;
    bool finForward = false, finBackward = false, closed = false;
};

class FlowTable {
  public:
    struct Limits {
        uint64_t idle = 60000;   // ms without a packet until a flow has aged
        uint64_t closed = 1000;  // ms after FIN in both directions, or RST
        size_t flows = 1U << 20;
    };
    FlowTable() = default;
    explicit FlowTable(const Limits &limits) : limits_(limits) {}
    FlowTable(const FlowTable &) = delete;
    FlowTable &operator=(const FlowTable &) = delete;

    // Counts a mirrored packet of `bytes` bytes.
    void count(const PacketInfo &packet, size_t bytes, uint64_t now);
    // Records a verdict.  A later one for the same flow replaces it.
    Flow &record(const Result &result, uint64_t now);
    [[nodiscard]] const Flow *find(const FiveTuple &tuple) const;

    // Hands every flow that has aged to `aged`, then drops it.  `all` ages whatever is there.
    void age(uint64_t now, bool all, const std::function<void(const Flow &)> &aged);
    void forEach(const std::function<void(const Flow &)> &visit) const;
    void clear();

    [[nodiscard]] size_t size() const { return flows_.size(); }
    [[nodiscard]] size_t classified() const { return classified_; }
    [[nodiscard]] uint64_t untracked() const { return untracked_; }  // packets of flows beyond the limit
    Limits &limits() { return limits_; }

  private:
    struct Hash {
        size_t operator()(const FiveTuple &tuple) const;
    };
    struct List {
        Flow *oldest = nullptr, *newest = nullptr;
        void append(Flow &flow);
        void remove(Flow &flow);
    };
    Flow &add(const FiveTuple &key, uint64_t now);
    void noteClosing(Flow &flow, const PacketInfo &packet);
    void ageList(List &list, uint64_t before, const std::function<void(const Flow &)> &aged);
    List &listOf(const Flow &flow) { return flow.closed ? closed_ : open_; }

    Limits limits_;
    std::unordered_map<FiveTuple, Flow, Hash> flows_;  // by undirected tuple
    List open_, closed_;
    size_t classified_ = 0;
    uint64_t classifications_ = 0, untracked_ = 0;
};

}  // namespace dpimod
