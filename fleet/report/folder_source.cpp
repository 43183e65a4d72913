#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <tuple>
#include <unordered_set>

#include "common/folder.h"
#include "common/printable.h"
#include "common/record_scan.h"
#include "report/sources.h"

namespace fleet {
namespace {

constexpr size_t kLargest = size_t{1} << 30;  // bytes of a file

struct Line {
    uint64_t flow, packets, bytes;
    int64_t time, start;
    uint32_t box, application, group;
    uint32_t shown;  // the box as the page names it
    uint32_t flows;
    am::RecordAddress ipA, ipB;
    am::RecordKind kind;
};

// What is missing from the page, and why: errno.
void tellClosed(const std::string &folder, const std::string &file) {
    const int error = errno;
    const char *const slash = folder.empty() || file.empty() ? "" : "/";
    (void)fprintf(stderr, "korvid-report: %s%s%s: %s\n", printable(folder).c_str(), slash,
                  printable(file).c_str(), strerror(error));
}

class FolderReader {
  public:
    explicit FolderReader(Facts &facts) : facts_(facts) {}

    void readBox(int top, const std::string &path, const std::string &name,
                 const std::vector<std::string> &files);
    std::vector<Line> &lines() { return lines_; }

  private:
    void readFile(am::RecordKind kind, uint32_t box);
    uint32_t nameOf(Names &names, std::string_view text);

    Facts &facts_;
    std::vector<Line> lines_;
    std::unordered_set<std::string> known_;  // of one box: the same line may stand in several files
    RecordScan scan_;
    std::string contents_;
};

void FolderReader::readBox(int top, const std::string &path, const std::string &name,
                           const std::vector<std::string> &files) {
    known_.clear();
    const Descriptor folder = openFolder(top, path);
    for (const std::string &file : files) {
        const auto kind = kindOfFile(file);
        struct stat status {};
        const Descriptor opened = folder && kind ? openFile(folder.get(), file, status) : Descriptor();
        if (opened && readAll(opened.get(), kLargest, contents_))
            readFile(*kind, facts_.boxes.of(name));
        else if (kind && errno != ENOENT)
            tellClosed(path, file);
    }
}

uint32_t FolderReader::nameOf(Names &names, std::string_view text) {
    return names.of(printable(text));
}

void FolderReader::readFile(am::RecordKind kind, uint32_t box) {
    scan_.scan(
        kind, contents_,
        [&](const am::RecordLine &line, uint32_t nth, std::string_view text) {
            std::string identity = std::to_string(nth) + static_cast<char>('a' + static_cast<int>(kind));
            if (!known_.insert(identity.append(text)).second) return;
            lines_.push_back({.flow = flowOf(line),
                              .packets = line.packets,
                              .bytes = line.bytes,
                              .time = line.time,
                              .start = line.start,
                              .box = box,
                              .application = nameOf(facts_.applications, line.application),
                              .group = nameOf(facts_.groups, line.group),
                              .shown = box,
                              .flows = line.flows,
                              .ipA = line.ipA,
                              .ipB = line.ipB,
                              .kind = kind});
        },
        [this](const BadLine &) { facts_.badLines++; }, [](const am::RecordLine &) { return nullptr; });
}

// Lines of a flow stand together, in the order in which it grew.
void sortByFlow(std::vector<Line> &lines) {
    std::sort(lines.begin(), lines.end(), [](const Line &one, const Line &other) {
        return std::tie(one.kind, one.box, one.flow, one.time, one.bytes, one.packets) <
               std::tie(other.kind, other.box, other.flow, other.time, other.bytes, other.packets);
    });
}

// What a line adds.
Sums sumsOf(const Line &line, const Line *before, const Period &period) {
    switch (line.kind) {
        case am::RecordKind::Monitoring:
            return {.monitored = 1};
        case am::RecordKind::Application:
            return {.counted = line.flows};
        case am::RecordKind::Enforcement:
            break;
    }
    if (before)
        return {.packets = growth(before->packets, line.packets), .bytes = growth(before->bytes, line.bytes)};
    // Of a flow that began before anything that is looked at, only what it grows is known.
    if (line.start < period.lookBack()) return {};
    return {.packets = line.packets, .bytes = line.bytes, .enforced = 1};
}

bool sameFlow(const Line &one, const Line &other) {
    return one.kind == other.kind && one.kind == am::RecordKind::Enforcement && one.box == other.box &&
           one.flow == other.flow;
}

// A flow has one application: "-", once its line says that the application is on no list any more, yields to
// its name.
void nameFlows(std::vector<Line> &lines, const Facts &facts) {
    const auto later = [](const Names &names, uint32_t one, uint32_t other) {
        return names.all()[one] < names.all()[other] ? other : one;
    };
    for (auto first = lines.begin(); first != lines.end();) {
        const auto end = std::find_if_not(
            first, lines.end(), [&](const Line &line) { return &line == &*first || sameFlow(*first, line); });
        uint32_t application = first->application, group = first->group;
        const auto looked = [&facts](const Line &line) {
            return line.time >= facts.period.lookBack() && line.time < facts.period.to;
        };
        bool any = false;
        for (auto line = first; line != end; ++line) {
            if (!looked(*line)) continue;
            application = any ? later(facts.applications, application, line->application) : line->application;
            group = any ? later(facts.groups, group, line->group) : line->group;
            any = true;
        }
        for (auto line = first; line != end; ++line) {
            line->application = application;
            line->group = group;
        }
        first = end;
    }
}

struct HashAddress {
    size_t operator()(const am::RecordAddress &address) const {
        return std::hash<std::string_view>{}(
            {reinterpret_cast<const char *>(address.bytes), sizeof address.bytes});
    }
};

// Calls count(line, sums) for every line of both periods.
template <class Count>
void forEachLine(const std::vector<Line> &lines, const Period &period, const Count &count) {
    const Line *before = nullptr;
    for (const Line &line : lines) {
        if (line.time < period.lookBack() || line.time >= period.to) continue;
        const bool grown = before && sameFlow(*before, line);
        const Sums sums = sumsOf(line, grown ? before : nullptr, period);
        before = &line;
        if (line.time >= period.before) count(line, sums);
    }
}

void sum(const std::vector<Line> &lines, Facts &facts) {
    const Period &period = facts.period;
    std::unordered_map<am::RecordAddress, Sums, HashAddress> talkers;
    forEachLine(lines, period, [&](const Line &line, const Sums &sums) {
        facts.lines[static_cast<size_t>(line.kind)]++;
        const int32_t bucket = period.bucketOf(line.time);
        facts.cells[{bucket, line.shown, line.application, line.group}].add(sums);
        if (line.kind == am::RecordKind::Application || bucket < 0) return;
        talkers[line.ipA].add(sums);
        if (line.ipA != line.ipB) talkers[line.ipB].add(sums);
    });

    std::vector<std::pair<am::RecordAddress, Sums>> largest(talkers.begin(), talkers.end());
    std::sort(largest.begin(), largest.end(), [](const auto &one, const auto &other) {
        const auto rank = [](const auto &talker) {
            return std::tuple(~talker.second.bytes, ~(talker.second.enforced + talker.second.monitored),
                              addressText(talker.first));
        };
        return rank(one) < rank(other);
    });
    if (largest.size() > kMostTalkers) largest.resize(kMostTalkers);
    std::unordered_map<am::RecordAddress, uint32_t, HashAddress> numbers;
    for (const auto &[address, sums] : largest) numbers[address] = facts.talkers.of(addressText(address));
    forEachLine(lines, period, [&](const Line &line, const Sums &sums) {
        if (line.kind == am::RecordKind::Application) return;
        const auto add = [&](const am::RecordAddress &address) {
            const auto found = numbers.find(address);
            if (found != numbers.end())
                facts.talkerCells[{found->second, period.bucketOf(line.time), line.shown, line.application}]
                    .add(sums);
        };
        add(line.ipA);
        if (line.ipA != line.ipB) add(line.ipB);
    });
}

// With more boxes than a page names, those with most lines keep their names.
void nameBoxes(std::vector<Line> &lines, Facts &facts) {
    const std::vector<std::string> before = facts.boxes.all();
    if (before.size() <= kMostBoxes) return;
    std::vector<std::pair<int64_t, uint32_t>> counts(before.size());
    for (uint32_t box = 0; box < counts.size(); box++) counts[box].second = box;
    for (const Line &line : lines)
        if (line.time >= facts.period.before && line.time < facts.period.to &&
            line.kind != am::RecordKind::Application)
            counts[line.box].first--;
    std::sort(counts.begin(), counts.end(), [&before](const auto &one, const auto &other) {
        return std::tie(one.first, before[one.second]) < std::tie(other.first, before[other.second]);
    });
    facts.boxes = Names();
    std::vector<uint32_t> shown(before.size());
    for (size_t i = 0; i < counts.size(); i++)
        shown[counts[i].second] = facts.boxes.of(i < kMostBoxes ? before[counts[i].second] : kOtherBoxes);
    for (Line &line : lines) line.shown = shown[line.box];
}

std::string hostName() {
    char name[256] = "";
    (void)gethostname(name, sizeof name - 1);
    return name;
}

}  // namespace

bool factsFromFolder(const std::string &folder, const Wanted &wanted, Facts &facts, std::string &error) {
    const Descriptor top(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!top) {
        error = folder + ": " + strerror(errno);
        return false;
    }
    facts.source = folder;
    FolderReader reader(facts);
    const std::string own = wanted.box.empty() ? hostName() : wanted.box;
    forEachFolder(
        top.get(), [](const std::string &) { return false; },
        [&](const std::string &path, const std::vector<std::string> &files) {
            if (!wanted.site.empty() && !path.starts_with(wanted.site + '/')) return;
            reader.readBox(top.get(), path, path.empty() ? printable(own) : printable(path), files);
        },
        [](const std::string &path) { tellClosed(path, ""); });
    std::vector<Line> &lines = reader.lines();
    if (lines.empty()) {
        error = folder + ": no records";
        return false;
    }
    const int64_t latest = wanted.to != 0 ? wanted.to - 1 : time(nullptr) + 86400;
    int64_t last = wanted.to != 0 ? latest : 0;
    for (const Line &line : lines)
        if (line.time <= latest) last = std::max(last, line.time);
    int64_t first = std::numeric_limits<int64_t>::max();
    for (const Line &line : lines)
        if (line.time > last - wanted.seconds && line.time <= last) first = std::min(first, line.time);
    if (first > last) {
        error = folder + ": no records of that time";
        return false;
    }
    facts.period = periodOf(first, last, wanted.seconds);
    nameBoxes(lines, facts);
    widen(facts.period, facts.boxes.all().size());
    sortByFlow(lines);
    nameFlows(lines, facts);
    sum(lines, facts);
    return true;
}

}  // namespace fleet
