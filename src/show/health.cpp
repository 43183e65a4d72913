#include "show/health.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

extern "C" {
#include <libubox/uloop.h>
}

#include "flows/mirroring.h"
#include "kit/engine.h"
#include "kit/kit_state.h"
#include "records/app_records.h"
#include "records/enf_records.h"
#include "records/mon_records.h"
#include "show/counters.h"

namespace am {

namespace {

constexpr int kPeriod = 60'000;           // ms
constexpr uint32_t kSamples = 5;          // of the last minutes
constexpr time_t kYear2020 = 1577836800;  // seconds since the epoch

uint64_t samples[kSamples][kMostCounters];  // the newest first
uint32_t taken = 0;

void sample(uloop_timeout *timer) {
    (void)uloop_timeout_set(timer, kPeriod);
    Counter counters[kMostCounters];
    const uint32_t count = readCounters(counters);
    memmove(samples[1], samples[0], (kSamples - 1) * sizeof samples[0]);
    for (uint32_t i = 0; i < count; i++) samples[0][i] = counters[i].value;
    if (taken < kSamples) taken++;
}

uloop_timeout timer{.list = {}, .pending = false, .cb = sample, .time = {}};

void visitLosses(ProblemVisit visit, void *context) {
    Counter counters[kMostCounters];
    const uint32_t count = readCounters(counters);
    for (uint32_t i = 0; i < count; i++) {
        const uint64_t before = taken > 0 ? samples[taken - 1][i] : 0;
        if (!counters[i].cure || counters[i].value <= before) continue;
        char what[160];
        snprintf(what, sizeof what, "losses grow: %s, %" PRIu64 " more within minutes", counters[i].name,
                 counters[i].value - before);
        visit(what, counters[i].cure, context);
    }
}

void visitKit(ProblemVisit visit, void *context) {
    if (kitState.refused) {
        char what[160];
        snprintf(what, sizeof what, "the last kit was refused: %s", kitState.refusal);
        visit(what, "check it with korvidctl kit check FILE, then install one that passes", context);
    }
    if (kitState.tookMirroring && amAdminState.load(std::memory_order_relaxed) != 1)
        visit("mirroring is off since a kit was refused", "switch it on again: korvidctl enable", context);
    if (!amEngineLoaded())
        visit("no engine: packets are not classified", "install a signature kit: korvidctl kit install FILE",
              context);
}

void visitRecords(ProblemVisit visit, void *context) {
    const struct {
        const RecordState &state;
        const char *path;
    } files[] = {
        {amEnfRecordState, kEnfRecords}, {amMonRecordState, kMonRecords}, {amAppRecordState, kAppRecords}};
    for (const auto &file : files) {
        if (!file.state.failing) continue;
        char what[160];
        snprintf(what, sizeof what, "records cannot be written: %s", file.path);
        visit(what, "make room in /flash, and see the log for the reason", context);
    }
}

}  // namespace

void watchLosses() {
    (void)uloop_timeout_set(&timer, kPeriod);
}

void forEachProblem(ProblemVisit visit, void *context) {
    visitKit(visit, context);
    visitRecords(visit, context);
    visitLosses(visit, context);
    if (time(nullptr) < kYear2020)
        visit("the clock is before 2020: records carry wrong times", "set the clock, or have NTP set it",
              context);
}

}  // namespace am
