// How long a verdict waits while the event-loop thread walks the tables: a sweep, a dump, a drain of the
// queues, a change of a list.  The times here are real ones, of two threads that need a processor each: on a
// machine that is busy with other work they measure that work.
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <vector>

#include "appmodel/app_lists.h"
#include "core/log.h"
#include "netlink/protocol.h"
#include "records/debug_dump.h"
#include "records/mon_records.h"
#include "rows.h"
#include "world.h"

namespace bench {
namespace {

constexpr size_t kHeld = 100'000;
constexpr size_t kMostVerdicts = 200'000;

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

// Where that is allowed: other programs' turns are not what is measured.
void beUrgent(bool urgent) {
    const sched_param parameter{.sched_priority = urgent ? 1 : 0};
    (void)pthread_setschedparam(pthread_self(), urgent ? SCHED_FIFO : SCHED_OTHER, &parameter);
}

struct Verdicts {
    std::atomic<bool> ready{false}, stop{false};
    double longest = 0;  // microseconds
};

// The capture thread: verdicts about flows that have their record, so that nothing but the wait takes long. A
// verdict in which this thread lost its processor to another program is left out.
void *classify(void *argument) {
    auto &verdicts = *static_cast<Verdicts *>(argument);
    beUrgent(true);
    size_t at = 0;
    for (size_t n = 0; n < kMostVerdicts && !verdicts.stop.load(); n++) {
        const capture_flow_info info = flowOf(heldKeys()[at = (at + 7919) % kHeld], kMonitoredApp);
        const long before = preemptions();
        const double begin = realTime();
        (void)amUpdateEnfFlowDb(&info);
        (void)amUpdateMonFlow(&info);
        const double took = realTime() - begin;
        if (preemptions() == before) verdicts.longest = std::max(verdicts.longest, took);
        verdicts.ready.store(true);
    }
    verdicts.ready.store(true);
    return nullptr;
}

double longestWait(void (*walk)()) {
    holdFlows(kHeld);
    Verdicts verdicts;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, classify, &verdicts) != 0) return 1e9;
    while (!verdicts.ready.load()) sched_yield();
    beUrgent(true);
    walk();
    beUrgent(false);
    verdicts.stop.store(true);
    pthread_join(thread, nullptr);
    return verdicts.longest;
}

// What this machine needs to wake a thread that waits for a lock, at its worst: no walk can do better.
struct Handover {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<bool> wanted{false}, stop{false};
    double longest = 0;
};

void *wait(void *argument) {
    auto &handover = *static_cast<Handover *>(argument);
    beUrgent(true);
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
    beUrgent(true);
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
    beUrgent(false);
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
        timespec pause{0, 200'000};
        (void)nanosleep(&pause, nullptr);
        amProcessMonFlowDbLogging(nullptr);
    }
}

void changeLists() {
    for (int i = 0; i < 50; i++) {
        (void)amClearAppMonList();
        (void)amAddGrpToAppList("office", AM_LIST_MONITORING);
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
                 {"longest wait of a verdict, list changes", changeLists}};
    table.add(Figure{.what = "longest wake-up of a waiting thread, with 20 us of waiting",
                     .unit = "us",
                     .limits = {},
                     .measure = longestHandover,
                     .rounds = 9});
    // The gate leaves room for a machine whose bare wake-up takes most of the goal; a walk that keeps its
    // lock takes 2,000 us or more.
    for (const Walk &it : walks)
        table.add(Figure{.what = it.what,
                         .unit = "us",
                         .limits = {.goal = 100, .gate = 300},
                         .measure = [walk = it.walk] { return longestWait(walk); },
                         .rounds = 9});
}

}  // namespace bench
