// From the spool into ClickHouse, every line once:
//
//   seen (watch, sweep) --whole--> claimed, read --> rows of a batch --inserted--> done
//
// A file is done only after ClickHouse has said that it has the whole batch, and a batch that may be in is
// sent again: the tables keep one of equal rows.  So whatever ends a collector, or ClickHouse, at whatever
// moment, costs a repetition.  One thread.
#pragma once
#include <array>
#include <map>
#include <set>

#include "collect/options.h"
#include "collect/progress.h"
#include "collect/quarantine.h"
#include "collect/spool.h"
#include "collect/watch.h"
#include "common/record_scan.h"

namespace fleet {

class Collector {
  public:
    Collector(const Options &options, int top);

    // Until a signal, or until all is loaded.  The program's exit status.
    int run();

  private:
    struct Seen {
        FileState state;
        double due;  // monotonic: whole if it has not changed until then
    };
    struct Loaded {
        ClaimedFile file;
        std::string report;
        size_t lines, bad;
        bool rejected;
    };

    void sweep();
    void notice(const Place &place);
    [[nodiscard]] bool isInHand(const Place &place) const;
    void await(const Place &place, const FileState &state, double due);
    void forget(const Place &place);
    void takeDue();
    void take(const Place &place, const FileState &state);
    void load(ClaimedFile &&file, am::RecordKind kind);
    [[nodiscard]] const char *timeProblem(const am::RecordLine &line) const;
    void noticeOlder(const ClaimedFile &file, am::RecordKind kind, int64_t first, std::string &report);
    void tellDryRun(const Place &place);

    [[nodiscard]] bool batchDue() const;
    void flush();
    [[nodiscard]] bool insertAll();
    void dropBatch();
    [[nodiscard]] double nextDue() const;
    void wait(double until);

    const Options &options_;
    int top_;
    Spool spool_;
    Watch watch_;
    Quarantine quarantine_;
    Progress progress_;
    ClickHouse server_;
    RecordScan scan_;

    std::map<Place, Seen> seen_;
    std::set<std::pair<double, Place>> order_;  // the same, by time
    double nextSweep_ = 0;
    bool watchMissing_ = false;
    std::set<std::string> closed_;  // folders that cannot be looked into, and have been told

    std::string contents_;
    std::array<std::string, am::kRecordKinds> rows_;
    std::vector<Loaded> batch_;
    size_t batchLines_ = 0;
    double batchBegan_ = 0;
    std::string lastError_;
    std::map<std::pair<std::string, am::RecordKind>, int64_t> firstTimes_;  // of a box's files
};

}  // namespace fleet
