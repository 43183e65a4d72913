#include "collect/collector.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "collect/rows.h"
#include "common/folder.h"
#include "common/printable.h"
#include "kit/md5.h"

namespace fleet {
namespace {

volatile sig_atomic_t stopWanted = 0;

constexpr size_t kFilesOfBatch = 512;
constexpr size_t kLockedFolders = 512;  // each a descriptor
constexpr size_t kBadLines = 1000;      // of a file; with more it is no record file
constexpr double kSoon = 1;             // s

const char *kindName(am::RecordKind kind) {
    switch (kind) {
        case am::RecordKind::Enforcement:
            return "enforcement";
        case am::RecordKind::Monitoring:
            return "monitoring";
        case am::RecordKind::Application:
            return "application";
    }
    return "";
}

std::string shown(const Place &place, const std::string &name) {
    return printable((place.folder.empty() ? "" : place.folder + '/') + name);
}

bool isHidden(const std::string &name, std::string_view end) {
    return name[0] == '.' && name.ends_with(end);
}

std::string digestOf(const std::string &contents) {
    am::Md5 md5;
    am::md5Begin(md5);
    am::md5Add(md5, contents.data(), contents.size());
    return am::md5Text(am::md5End(md5)).text;
}

// SIGTERM and SIGINT are let in only while the collector waits, so that none is missed.
sigset_t holdSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { stopWanted = 1; };
    (void)sigaction(SIGTERM, &action, nullptr);
    (void)sigaction(SIGINT, &action, nullptr);
    // Of a lease that somebody's writing breaks, and of a server that hangs up.
    (void)signal(SIGIO, SIG_IGN);
    (void)signal(SIGPIPE, SIG_IGN);
    sigset_t held, before;
    sigemptyset(&held);
    sigaddset(&held, SIGTERM);
    sigaddset(&held, SIGINT);
    (void)sigprocmask(SIG_BLOCK, &held, &before);
    return before;
}

bool stopPending() {
    sigset_t pending;
    (void)sigpending(&pending);
    return stopWanted != 0 || sigismember(&pending, SIGTERM) == 1 || sigismember(&pending, SIGINT) == 1;
}

}  // namespace

Collector::Collector(const Options &options, int top)
    : options_(options),
      top_(top),
      spool_(top),
      quarantine_(options.quarantine),
      server_(options.server, &stopPending) {}

int Collector::run() {
    const sigset_t before = holdSignals();
    while (!stopPending()) {
        if (monotonic() >= nextSweep_) sweep();
        takeDue();
        if (batchDue()) flush();
        if (batch_.empty()) spool_.unlock();  // of files that were no use yet
        progress_.waiting(seen_.size());
        if ((options_.once || options_.dryRun) && seen_.empty() && batch_.empty()) break;
        wait(nextDue());
        if (watch_.take([this](const Place &place) { notice(place); }))
            nextSweep_ = std::min(nextSweep_, monotonic() + kSoon);
    }
    if (!stopPending()) flush();
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
    progress_.end();
    return (options_.once || options_.dryRun) && progress_.problems() != 0 ? 1 : 0;
}

// What there is to see.

void Collector::sweep() {
    const bool again = nextSweep_ != 0;
    nextSweep_ = monotonic() + options_.sweep;
    if (again && options_.dryRun) return;
    const auto hidden = [](const std::string &name) {
        return isHidden(name, kLoading) || isHidden(name, kDone);
    };
    const auto visit = [this](const std::string &path, const std::vector<std::string> &files) {
        const Descriptor folder = openFolder(top_, path);
        if (folder && !watch_.add(folder.get(), path) && !watchMissing_) {
            watchMissing_ = true;
            (void)fprintf(stderr, "no watch on %s: %s; files are found every %d s\n", printable(path).c_str(),
                          strerror(errno), options_.sweep);
        }
        for (const std::string &name : files) {
            if (isHidden(name, kDone) && kindOfFile(name.substr(1)))
                spool_.expire({path, name}, int64_t{options_.keep} * 3600);
            else if (!seen_.contains({path, name}))
                notice({path, name});
        }
    };
    forEachFolder(top_, hidden, visit, [this](const std::string &path) {
        if (closed_.insert(path).second) progress_.problem(printable(path) + ": " + strerror(errno));
    });
}

void Collector::notice(const Place &place) {
    const std::string original = originalName(place.name);
    if (!kindOfFile(original) || (place.name[0] == '.' && original == place.name)) return;
    if (original != place.name && isInHand(place)) return;
    FileState state;
    if (!spool_.stateOf(place, state)) return;
    // Long settled by the clock that stamped it; of a time to come nothing is known.
    const int64_t age = time(nullptr) - state.modified / 1'000'000'000;
    const bool settled = age > options_.settle;
    await(place, state, settled ? 0 : monotonic() + options_.settle);
}

// The watch tells of the names that the collector itself has given, and a sweep finds them.
bool Collector::isInHand(const Place &place) const {
    return std::any_of(batch_.begin(), batch_.end(),
                       [&place](const Loaded &loaded) { return loaded.file.place == place; });
}

void Collector::await(const Place &place, const FileState &state, double due) {
    forget(place);
    seen_[place] = {state, due};
    order_.emplace(due, place);
}

void Collector::forget(const Place &place) {
    const auto found = seen_.find(place);
    if (found == seen_.end()) return;
    order_.erase({found->second.due, place});
    seen_.erase(found);
}

// Taking files.

void Collector::takeDue() {
    while (!order_.empty() && order_.begin()->first <= monotonic() && !stopPending()) {
        const Place place = order_.begin()->second;
        const FileState before = seen_.at(place).state;
        FileState now;
        if (!spool_.stateOf(place, now)) {
            forget(place);
        } else if (now != before) {
            await(place, now, monotonic() + options_.settle);
        } else if (options_.dryRun) {
            forget(place);
            tellDryRun(place);
        } else {
            take(place, now);
            if (batchLines_ >= options_.batch || batch_.size() >= kFilesOfBatch ||
                spool_.locked() >= kLockedFolders)
                flush();
        }
    }
}

void Collector::take(const Place &place, const FileState &state) {
    forget(place);
    ClaimedFile file;
    const size_t limit = options_.largest + 1;
    switch (spool_.claim(place, state, limit, file, contents_)) {
        case Claim::Claimed:
            break;
        case Claim::Busy:
        case Claim::Gone:
            return;
        case Claim::Written: {
            const Place &now = file.place.name.empty() ? place : file.place;
            FileState changed;
            if (spool_.stateOf(now, changed))
                await(now, changed, monotonic() + std::max<double>(options_.settle, kSoon));
            return;
        }
        case Claim::Failed:
            progress_.problem(shown(place, place.name) + ": " + strerror(errno));
            return;
    }

    std::string reason;
    if (contents_.size() > options_.largest) reason = "larger than record files are";
    file.digest = spool_.digestBeside({place.folder, file.original});
    if (!file.digest.empty() && file.digest != digestOf(contents_)) reason = "not what its digest says";
    if (reason.empty()) {
        load(std::move(file), *kindOfFile(file.original));
        return;
    }
    progress_.problem(shown(place, file.original) + ": " + reason + "; set aside");
    if (!spool_.finish(file, kRejected))
        progress_.problem(shown(file.place, file.place.name) + ": cannot be set aside");
}

const char *Collector::timeProblem(const am::RecordLine &line) const {
    constexpr int64_t kDay = 86400;
    const auto storable = [](int64_t time) { return time >= 0 && time <= UINT32_MAX; };
    if (!storable(line.time) || !storable(line.start) || !storable(line.intStart))
        return "a time that cannot be stored";
    const int64_t now = time(nullptr);
    if (line.time > now + kDay) return "a time to come";
    if (options_.oldest != 0 && line.time < now - options_.oldest * kDay) return "older than is taken";
    return nullptr;
}

void Collector::load(ClaimedFile &&file, am::RecordKind kind) {
    const std::string box = printable(file.place.folder);
    std::string &rows = rows_[static_cast<size_t>(kind)];
    const size_t rowsBefore = rows.size();
    size_t lines = 0, badCount = 0;
    int64_t first = 0;
    std::vector<BadLine> bad;
    const auto addBad = [&](const BadLine &line) {
        if (badCount++ < kBadLines) bad.push_back(line);
    };
    scan_.scan(
        kind, contents_,
        [&](const am::RecordLine &line, uint32_t nth, std::string_view) {
            if (lines++ == 0) first = line.time;
            appendRow(rows, kind, box, line, nth);
        },
        addBad, [this](const am::RecordLine &line) { return timeProblem(line); });

    const std::string name = shown(file.place, file.original);
    const long added =
        bad.empty() ? 0 : quarantine_.add(file.place.folder.empty() ? "" : box, kind, file.original, bad);
    const bool full = added < 0 && errno == EFBIG;
    if (added < 0 && !full) {
        progress_.problem(name + ": quarantine: " + strerror(errno) + "; tried again later");
        rows.resize(rowsBefore);
        if (!options_.once) await(file.place, file.state, monotonic() + options_.sweep);
        return;
    }
    std::string report = name + ": " + kindName(kind) + ", " + std::to_string(lines) + " lines loaded";
    if (badCount != 0)
        report += ", " + std::to_string(badCount) + " quarantined (" + std::to_string(full ? 0 : added) +
                  " new; line " + std::to_string(bad.front().number) + ": " + bad.front().reason + ")";
    const bool rejected = full || badCount > kBadLines;
    if (full) report += "; the box's quarantine is full";
    if (rejected) report += "; set aside";
    if (lines != 0) noticeOlder(file, kind, first, report);

    if (batch_.empty()) batchBegan_ = monotonic();
    batch_.push_back({std::move(file), std::move(report), lines, badCount, rejected});
    batchLines_ += lines;
}

// The current file's first line gets younger with each rotation.  One that is older than before comes from a
// clock that was set back, or from another box that has been given this one's folder.
void Collector::noticeOlder(const ClaimedFile &file, am::RecordKind kind, int64_t first,
                            std::string &report) {
    if (file.original.find("_old") != std::string::npos) return;
    int64_t &before = firstTimes_[{file.place.folder, kind}];
    if (first < before)
        report += "; begins before the last one: a clock set back, or two boxes with one name";
    before = first;
}

void Collector::tellDryRun(const Place &place) {
    const Descriptor folder = openFolder(top_, place.folder);
    struct stat status {};
    const Descriptor file = folder ? openFile(folder.get(), place.name, status) : Descriptor();
    const std::string original = originalName(place.name);
    const std::string name = shown(place, original);
    if (!file || !readAll(file.get(), options_.largest + 1, contents_)) {
        progress_.problem(name + ": cannot be read");
        return;
    }
    if (contents_.size() > options_.largest) {
        progress_.problem(name + ": larger than record files are; would be set aside");
        return;
    }
    size_t lines = 0, bad = 0;
    scan_.scan(
        *kindOfFile(original), contents_,
        [&](const am::RecordLine &, uint32_t, std::string_view) { lines++; },
        [&](const BadLine &line) {
            if (bad++ == 0 && !isatty(STDERR_FILENO))
                (void)fprintf(stderr, "%s: line %zu: %s\n", name.c_str(), line.number, line.reason);
        },
        [this](const am::RecordLine &line) { return timeProblem(line); });
    progress_.file(name + ": " + kindName(*kindOfFile(original)) + ", " + std::to_string(lines) +
                       " lines to load, " + std::to_string(bad) + " to quarantine",
                   lines, bad);
}

// Batches.

bool Collector::batchDue() const {
    if (batch_.empty()) return false;
    return (options_.once && seen_.empty()) || monotonic() - batchBegan_ >= options_.linger;
}

bool Collector::insertAll() {
    for (size_t i = 0; i < rows_.size(); i++) {
        if (rows_[i].empty()) continue;
        if (!server_.insert(insertStatement(static_cast<am::RecordKind>(i)), rows_[i])) return false;
        rows_[i].clear();
    }
    return true;
}

void Collector::flush() {
    constexpr double kLongest = 30;
    double pause = 0.5;
    while (!batch_.empty() && !insertAll()) {
        if (server_.error() != lastError_) {
            lastError_ = server_.error();
            (void)fprintf(stderr, "ClickHouse: %s; tried again until it answers\n", lastError_.c_str());
        }
        const double until = monotonic() + pause;
        while (monotonic() < until && !stopPending()) wait(until);
        if (stopPending()) return;  // the files keep their second names
        pause = std::min(pause * 2, kLongest);
    }
    if (!lastError_.empty()) (void)fputs("ClickHouse answers again\n", stderr);
    lastError_.clear();
    dropBatch();
}

void Collector::dropBatch() {
    for (const Loaded &loaded : batch_) {
        const std::string_view end = loaded.rejected      ? kRejected
                                     : options_.keep == 0 ? std::string_view()
                                                          : kDone;
        FileState now;
        if (!spool_.finish(loaded.file, end) && spool_.stateOf(loaded.file.place, now))
            await(loaded.file.place, now, monotonic() + options_.settle);
        progress_.file(loaded.report, loaded.lines, loaded.bad);
    }
    batch_.clear();
    batchLines_ = 0;
    spool_.unlock();
}

double Collector::nextDue() const {
    double next = nextSweep_;
    if (!order_.empty()) next = std::min(next, order_.begin()->first);
    if (!batch_.empty()) next = std::min(next, batchBegan_ + options_.linger);
    return next;
}

void Collector::wait(double until) {
    const double left = std::max(until - monotonic(), 0.0);
    const timespec timeout{static_cast<time_t>(left),
                           static_cast<long>((left - static_cast<double>(static_cast<time_t>(left))) * 1e9)};
    pollfd events{.fd = watch_.descriptor(), .events = POLLIN, .revents = 0};
    sigset_t open;
    sigemptyset(&open);
    (void)ppoll(&events, 1, &timeout, &open);
}

}  // namespace fleet
