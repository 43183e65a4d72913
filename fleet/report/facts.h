// What the page shows: sums by time, box, application and group, and of the largest talkers; and the same
// sums for the period before.  Filled from files or from ClickHouse, written as JSON.  One thread.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "records/record_line.h"

namespace fleet {

// [before, from) and [from, to), seconds since the epoch; the second is cut into pieces of `bucket` seconds.
struct Period {
    int64_t before = 0, from = 0, to = 0;
    int64_t bucket = 0;

    // The smallest time of a line that counts: what flows had carried before the period is known from lines
    // before it.
    [[nodiscard]] int64_t lookBack() const { return before - 3600; }
    // The bucket of a time of the second; -1: of the first.
    [[nodiscard]] int32_t bucketOf(int64_t time) const {
        return time < from ? -1 : static_cast<int32_t>((time - from) / bucket);
    }
};

// The period of so many seconds that ends with the newest of the records, whose oldest is `first`.
Period periodOf(int64_t first, int64_t last, int64_t seconds);

// Longer buckets where there are many boxes to tell apart.
void widen(Period &period, size_t boxes);

struct Sums {
    uint64_t packets = 0, bytes = 0;  // of enforced flows
    uint64_t enforced = 0;            // flows that began
    uint64_t monitored = 0;           // flows, from the monitoring records
    uint64_t counted = 0;             // flows, from the application records

    void add(const Sums &other);
};

// Texts by number, in order of appearance.
class Names {
  public:
    uint32_t of(std::string_view name);
    [[nodiscard]] const std::vector<std::string> &all() const { return names_; }

  private:
    std::unordered_map<std::string, uint32_t> numbers_;
    std::vector<std::string> names_;
};

struct CellKey {
    int32_t bucket;  // -1: the period before
    uint32_t box, application, group;

    bool operator<(const CellKey &other) const {
        return std::tie(bucket, box, application, group) <
               std::tie(other.bucket, other.box, other.application, other.group);
    }
};

struct TalkerKey {
    uint32_t talker;
    int32_t bucket;
    uint32_t box, application;

    bool operator<(const TalkerKey &other) const {
        return std::tie(talker, bucket, box, application) <
               std::tie(other.talker, other.bucket, other.box, other.application);
    }
};

inline constexpr size_t kMostTalkers = 200;  // in a page
inline constexpr size_t kMostBoxes = 200;    // with names of their own; the rest is one
inline constexpr size_t kMostCells = 300'000;
inline constexpr char kOtherBoxes[] = "(all other boxes)";

struct Facts {
    std::string source;
    Period period;
    Names boxes, applications, groups, talkers;
    std::map<CellKey, Sums> cells;
    std::map<TalkerKey, Sums> talkerCells;
    uint64_t lines[am::kRecordKinds] = {};  // of both periods
    uint64_t badLines = 0;

    // Makes the buckets longer until there are not more cells than a page takes.
    void fit();
};

// What a flow's line adds to the line before it: counts are the flow's since its start, and the switch's have
// 32 bits.
[[nodiscard]] uint64_t growth(uint64_t before, uint64_t now);

// An address as text; IPv4 in its own form.
[[nodiscard]] std::string addressText(const am::RecordAddress &address);

// The whole as one JSON object that may stand within a script element.
[[nodiscard]] std::string toJson(const Facts &facts, int64_t made);

}  // namespace fleet
