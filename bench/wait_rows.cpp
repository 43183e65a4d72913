// How long a verdict waits while the event-loop thread walks the tables (a sweep, a dump, a drain of the
// queues, changes of a list), and how long a setting waits behind threads that report without pause.  The
// times here are real ones, of threads that need a processor each: on a machine that is busy with other work
// they measure that work.
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "appmodel/app_lists.h"
#include "core/log.h"
#include "records/debug_dump.h"
#include "records/mon_records.h"
#include "records/verdict.h"
#include "rows.h"
#include "show/methods.h"
#include "switch/protocol.h"
#include "world.h"

namespace bench {
namespace {

constexpr size_t kHeld = 100'000;
constexpr long kBetweenVerdicts = 200'000;  // nanoseconds
constexpr size_t kManyReporters = 6;        // an engine that shares its flows among threads of its own

void pauseFor(long nanoseconds) {
    const timespec pause{0, nanoseconds};
    (void)nanosleep(&pause, nullptr);
}

double realTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

long preemptions() {
    rusage usage{};
    (void)getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nivcsw;
}

// Where that is allowed: other programs' turns are not what is measured, nor is it a reporter's wait for a
// processor that the walk has.
enum Urgency { kAsAnyOther, kWalk, kReport };

void beUrgent(Urgency urgency) {
    const sched_param parameter{.sched_priority = urgency};
    (void)pthread_setschedparam(pthread_self(), urgency == kAsAnyOther ? SCHED_OTHER : SCHED_FIFO,
                                &parameter);
}

// One thread that reports.
struct Reporter {
    pthread_t thread;
    const std::atomic<bool> *stop;
    std::atomic<bool> ready{false};
    size_t first;        // place among the held keys at which this one begins
    bool urgent;         // and leaves the processor between two verdicts
    double longest = 0;  // microseconds
};

// Verdicts about flows that have their record, so that nothing but the wait takes long.  A verdict in which
// this thread lost its processor to another program is left out.
void *classify(void *argument) {
    auto &reporter = *static_cast<Reporter *>(argument);
    if (reporter.urgent) beUrgent(kReport);
    size_t at = reporter.first;
    while (!reporter.stop->load(std::memory_order_relaxed)) {
        const capture_flow_info info = flowOf(heldKeys()[at = (at + 7919) % kHeld], kMonitoredApp);
        const long before = preemptions();
        const double begin = realTime();
        (void)am_capture_flow_func(&info);
        const double took = realTime() - begin;
        if (preemptions() == before) reporter.longest = std::max(reporter.longest, took);
        reporter.ready.store(true);
        if (reporter.urgent) pauseFor(kBetweenVerdicts);
    }
    return nullptr;
}

// So many threads report while `work` runs; the longest wait of a verdict.
template <class Work>
double whileReporting(size_t reporters, bool urgent, Work work) {
    holdFlows(kHeld);
    discardVerdicts(true);
    std::atomic<bool> stop{false};
    std::vector<Reporter> all(reporters);
    for (size_t i = 0; i < reporters; i++) {
        all[i].stop = &stop;
        all[i].first = i * kHeld / reporters;
        all[i].urgent = urgent;
        if (pthread_create(&all[i].thread, nullptr, classify, &all[i]) != 0) exit(2);
    }
    for (const Reporter &reporter : all)
        while (!reporter.ready.load()) sched_yield();
    work();
    stop.store(true);
    double longest = 0;
    for (Reporter &reporter : all) {
        pthread_join(reporter.thread, nullptr);
        longest = std::max(longest, reporter.longest);
    }
    discardVerdicts(false);
    return longest;
}

double longestWait(void (*walk)(), size_t reporters) {
    return whileReporting(reporters, true, [walk] {
        beUrgent(kWalk);
        walk();
        beUrgent(kAsAnyOther);
    });
}

// What this machine needs to wake a thread that waits for a lock, at its worst: no walk can do better.
struct Handover {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<bool> wanted{false}, stop{false};
    double longest = 0;
};

void *wait(void *argument) {
    auto &handover = *static_cast<Handover *>(argument);
    beUrgent(kWalk);
    while (!handover.stop.load()) {
        const long before = preemptions();
        const double begin = realTime();
        handover.wanted.store(true);
        pthread_mutex_lock(&handover.lock);
        const double took = realTime() - begin;
        pthread_mutex_unlock(&handover.lock);
        if (preemptions() == before) handover.longest = std::max(handover.longest, took);
    }
    return nullptr;
}

double longestHandover() {
    Handover handover;
    pthread_mutex_lock(&handover.lock);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, wait, &handover) != 0) return 1e9;
    beUrgent(kWalk);
    for (int i = 0; i < 300; i++) {
        while (!handover.wanted.load()) {
        }
        for (const double begin = realTime(); realTime() - begin < 20;) {
        }  // until it sleeps
        handover.wanted.store(false);
        pthread_mutex_unlock(&handover.lock);
        while (!handover.wanted.load()) {
        }
        pthread_mutex_lock(&handover.lock);
    }
    handover.stop.store(true);
    pthread_mutex_unlock(&handover.lock);
    beUrgent(kAsAnyOther);
    pthread_join(thread, nullptr);
    return handover.longest;
}

void dump() {
    logLevel.store(AM_LOG_INFO);
    debugPrintAmEnfFlowDb();
    logLevel.store(AM_LOG_ERROR);
}

void drain() {
    for (int i = 0; i < 20; i++) {
        pauseFor(200'000);
        amProcessMonFlowDbLogging(nullptr);
    }
}

// What a bus method does to put one application on a list or to take it off again, and a change of state.
double slowestSettings() {
    constexpr int kSettings = 100;
    const std::string name = applicationName(kPlainApp);
    std::vector<double> waits;
    whileReporting(kManyReporters, false, [&] {
        for (int i = 0; i < kSettings; i++) {
            const double begin = realTime();
            (void)amAddAppToAppList(name.c_str(), nullptr, AM_LIST_MONITORING);
            (void)amClearAppMonList();
            (void)amAddGrpToAppList("office", AM_LIST_MONITORING);
            waits.push_back((realTime() - begin) / 1e3);
        }
    });
    std::sort(waits.begin(), waits.end());
    return waits[kSettings * 99 / 100 - 1];
}

void changeLists() {
    for (int i = 0; i < 50; i++) {
        (void)amClearAppMonList();
        (void)amAddGrpToAppList("office", AM_LIST_MONITORING);
    }
}

// What clients of the object korvid ask for, the longest answers: every application sorted, flows that hardly
// any record matches.
void answerQuestions() {
    static blob_buf question, reply;
    (void)blob_buf_init(&question, 0);
    (void)blobmsg_add_string(&question, "address", "203.0.113.77");
    for (int i = 0; i < 10; i++) {
        am::Answer apps(reply);
        (void)am::answerApps(apps, nullptr);
        am::Answer flows(reply);
        (void)am::answerFlows(flows, question.head);
        am::Answer counters(reply);
        (void)am::answerCounters(counters, nullptr);
    }
}

}  // namespace

void addWaitRows(Table &table) {
    const struct Walk {
        const char *what;
        void (*walk)();
    } walks[] = {{"longest wait of a verdict, sweep of 1e5 flows", amCleanAgedEnfFlowDb},
                 {"longest wait of a verdict, dump of 1e5 flows", dump},
                 {"longest wait of a verdict, drain", drain},
                 {"longest wait of a verdict, list changes", changeLists},
                 {"longest wait of a verdict, operators' questions", answerQuestions}};
    table.add(Figure{.what = "longest wake-up of a waiting thread, with 20 us of waiting",
                     .unit = "us",
                     .limits = {},
                     .measure = longestHandover,
                     .rounds = 9});
    // The gate leaves room for a machine whose bare wake-up takes most of the goal; a walk that keeps its
    // lock takes 2,000 us or more.
    for (const size_t reporters : {size_t{1}, kManyReporters})
        for (const Walk &it : walks)
            table.add(Figure{.what = std::string(it.what) + (reporters == 1 ? "" : ", six reporters"),
                             .unit = "us",
                             .limits = {.goal = 100, .gate = 300},
                             .measure = [walk = it.walk, reporters] { return longestWait(walk, reporters); },
                             .rounds = 9});
    table.add(Figure{.what = "wait of a setting behind six reporters, p99",
                     .unit = "ms",
                     .limits = {.goal = 100},
                     .measure = slowestSettings,
                     .rounds = 5});
}

}  // namespace bench
