#include "report/facts.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>

namespace fleet {
namespace {

constexpr std::array<int64_t, 10> kBuckets = {60,       300,   900,       3600,       3 * 3600,
                                              6 * 3600, 86400, 7 * 86400, 30 * 86400, 365 * 86400};
constexpr int64_t kMostBuckets = 96;

int64_t nextBucket(int64_t bucket) {
    const auto *const longer = std::upper_bound(kBuckets.begin(), kBuckets.end(), bucket);
    return longer == kBuckets.end() ? bucket * 2 : *longer;
}

void appendText(std::string &out, std::string_view text) {
    out += '"';
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        // No end tag, comment or entity can come about within the script element that holds this.
        if (byte < 0x20 || character == '"' || character == '\\' || character == '<' || character == '>' ||
            character == '&') {
            constexpr char kDigits[] = "0123456789abcdef";
            out.append("\\u00").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 15]);
        } else {
            out += character;
        }
    }
    out += '"';
}

// One array a column: a page of many cells is a third of what one object a cell would be.
template <class Map, class Value>
void appendColumn(std::string &out, const char *name, const Map &cells, const Value &value) {
    out.append(",\"").append(name).append("\":[");
    const char *comma = "";
    for (const auto &[key, sums] : cells) {
        out.append(comma).append(std::to_string(value(key, sums)));
        comma = ",";
    }
    out += ']';
}

template <class Map>
void appendSums(std::string &out, const Map &cells) {
    using Key = typename Map::key_type;
    appendColumn(out, "time", cells, [](const Key &key, const Sums &) { return key.bucket; });
    appendColumn(out, "box", cells, [](const Key &key, const Sums &) { return key.box; });
    appendColumn(out, "application", cells, [](const Key &key, const Sums &) { return key.application; });
    appendColumn(out, "packets", cells, [](const Key &, const Sums &sums) { return sums.packets; });
    appendColumn(out, "bytes", cells, [](const Key &, const Sums &sums) { return sums.bytes; });
    appendColumn(out, "enforced", cells, [](const Key &, const Sums &sums) { return sums.enforced; });
    appendColumn(out, "monitored", cells, [](const Key &, const Sums &sums) { return sums.monitored; });
}

void appendNames(std::string &out, const char *name, const Names &names) {
    out.append(",\"").append(name).append("\":[");
    const char *comma = "";
    for (const std::string &text : names.all()) {
        out += comma;
        appendText(out, text);
        comma = ",";
    }
    out += ']';
}

// Merges pairs of neighbouring times.
template <class Map>
Map coarser(const Map &cells, int64_t factor) {
    Map out;
    for (const auto &[key, sums] : cells) {
        auto merged = key;
        if (merged.bucket >= 0) merged.bucket = static_cast<int32_t>(merged.bucket / factor);
        out[merged].add(sums);
    }
    return out;
}

}  // namespace

Period periodOf(int64_t first, int64_t last, int64_t seconds) {
    Period period;
    const int64_t span = std::max<int64_t>(std::min(seconds, last + 1 - first), 1);
    period.bucket = kBuckets[0];
    while (span > period.bucket * kMostBuckets) period.bucket = nextBucket(period.bucket);
    period.to = (last / period.bucket + 1) * period.bucket;
    period.from = std::max(period.to - seconds, first - first % period.bucket);
    period.from -= period.from % period.bucket;
    period.before = period.from - seconds;
    return period;
}

void widen(Period &period, size_t boxes) {
    constexpr size_t kManyBoxes = 50;
    constexpr int64_t kFewBuckets = 24;
    while (boxes > kManyBoxes && period.to - period.from > period.bucket * kFewBuckets) period.bucket *= 2;
}

void Sums::add(const Sums &other) {
    packets += other.packets;
    bytes += other.bytes;
    enforced += other.enforced;
    monitored += other.monitored;
    counted += other.counted;
}

uint32_t Names::of(std::string_view name) {
    const auto [found, added] = numbers_.emplace(name, static_cast<uint32_t>(names_.size()));
    if (added) names_.emplace_back(name);
    return found->second;
}

void Facts::fit() {
    while (cells.size() + talkerCells.size() > kMostCells && period.bucket < period.to - period.from) {
        constexpr int64_t kFactor = 2;
        cells = coarser(cells, kFactor);
        talkerCells = coarser(talkerCells, kFactor);
        period.bucket *= kFactor;
    }
}

uint64_t growth(uint64_t before, uint64_t now) {
    constexpr uint64_t kTurn = uint64_t{1} << 32;
    if (now >= before) return now - before;
    return now + kTurn >= before ? now + kTurn - before : 0;
}

std::string addressText(const am::RecordAddress &address) {
    constexpr uint8_t kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    const bool v4 = std::equal(std::begin(kMapped), std::end(kMapped), address.bytes);
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(v4 ? AF_INET : AF_INET6, address.bytes + (v4 ? sizeof kMapped : 0), text, sizeof text);
    return text;
}

std::string toJson(const Facts &facts, int64_t made) {
    std::string out = "{\"source\":";
    appendText(out, facts.source);
    const auto number = [&out](const char *name, auto value) {
        out.append(",\"").append(name).append("\":").append(std::to_string(value));
    };
    number("made", made);
    number("before", facts.period.before);
    number("from", facts.period.from);
    number("to", facts.period.to);
    number("bucket", facts.period.bucket);
    number("badLines", facts.badLines);
    number("enforcementLines", facts.lines[0]);
    number("monitoringLines", facts.lines[1]);
    number("applicationLines", facts.lines[2]);
    appendNames(out, "boxes", facts.boxes);
    appendNames(out, "applications", facts.applications);
    appendNames(out, "groups", facts.groups);
    appendNames(out, "talkers", facts.talkers);
    out += ",\"cells\":{\"count\":" + std::to_string(facts.cells.size());
    appendSums(out, facts.cells);
    appendColumn(out, "group", facts.cells, [](const CellKey &key, const Sums &) { return key.group; });
    appendColumn(out, "counted", facts.cells, [](const CellKey &, const Sums &sums) { return sums.counted; });
    out += "},\"talkerCells\":{\"count\":" + std::to_string(facts.talkerCells.size());
    appendSums(out, facts.talkerCells);
    appendColumn(out, "talker", facts.talkerCells,
                 [](const TalkerKey &key, const Sums &) { return key.talker; });
    out += "}}";
    return out;
}

}  // namespace fleet
