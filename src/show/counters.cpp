#include "show/counters.h"

#include "appmodel/app_pool.h"
#include "core/counts.h"
#include "core/lock.h"
#include "flows/capture.h"
#include "flows/enf_flow_db.h"
#include "flows/kernel_side.h"
#include "records/app_records.h"
#include "records/enf_records.h"
#include "records/mon_records.h"
#include "records/stats_report.h"
#include "show/methods.h"

namespace am {

namespace {

constexpr char kInstallKit[] =
    "no engine takes packets: install a signature kit (korvidctl kit install FILE)";
constexpr char kOverruns[] =
    "packets come faster than the engine takes them: mirror fewer ports, or fewer packets of each connection";
constexpr char kWhileOff[] =
    "the engine had flows to report when mirroring went off: nothing needs to be done";
constexpr char kOtherKit[] =
    "the engine knows applications that its kit's index does not name: check the kit";
constexpr char kOtherFamily[] = "the engine reports flows that are neither IPv4 nor IPv6: check the kit";
constexpr char kMemory[] = "there is no memory for flow records: enforce fewer applications or add memory";
constexpr char kMonitorFewer[] =
    "more than 200 monitored flows came within five minutes: monitor fewer applications";
constexpr char kRecordsFile[] = "record files in /flash cannot be written: make room there, and see the log";
constexpr char kUnmatched[] =
    "the kernel counts flows that the daemon does not know, as after a restart: disable and enable mirroring";

struct MonitoredNow {
    uint64_t waiting, missed;
};
MonitoredNow monitoredNow() {
    const AmGuard guard(amMonQueueLock);
    return {uint64_t{amMonFlowCounter} + amMonFlow6Counter, uint64_t{amMonFlowMiss} + amMonFlow6Miss};
}

struct Filler {
    Counter *out;
    uint32_t count = 0;
    void add(const char *name, uint64_t value, const char *cure = nullptr) {
        if (count < kMostCounters) out[count++] = {name, value, cure};
    }
};

void addFlows(Filler &fill) {
    const uint64_t inserted = valueOf(amFlowCounter) + valueOf(amFlowCounter6);
    const uint64_t again = valueOf(counts.flowsRenewed) + valueOf(counts.flowsRepeated);
    const EnfFlowsHeld held = enfFlowsHeld();
    fill.add("verdicts.judged", flowsJudged());
    fill.add("verdicts.enforced", inserted + again + valueOf(counts.flowsNoMemory));
    fill.add("verdicts.mirroring_off", valueOf(counts.verdictsWhileOff), kWhileOff);
    fill.add("verdicts.unknown_application", valueOf(counts.verdictsUnknownApp), kOtherKit);
    fill.add("verdicts.unknown_family", valueOf(counts.verdictsOther), kOtherFamily);
    fill.add("flows.recorded", inserted);
    fill.add("flows.renewed", valueOf(counts.flowsRenewed));
    fill.add("flows.repeated", valueOf(counts.flowsRepeated));
    fill.add("flows.no_memory", valueOf(counts.flowsNoMemory), kMemory);
    fill.add("flows.held_ipv4", held.ipv4);
    fill.add("flows.held_ipv6", held.ipv6);
}

void addRecords(Filler &fill) {
    const MonitoredNow monitored = monitoredNow();
    fill.add("monitored.queued", valueOf(counts.monitoredDrained) + monitored.waiting);
    fill.add("monitored.waiting", monitored.waiting);
    fill.add("monitored.missed", monitored.missed, kMonitorFewer);
    fill.add("monitored.not_written", valueOf(counts.monitoredLost), kRecordsFile);
    const auto waiting = static_cast<uint64_t>(ft4CommonIndex) + static_cast<uint64_t>(ft6CommonIndex);
    fill.add("reports.messages", valueOf(amStatsCounter));
    fill.add("reports.matched", valueOf(counts.reportsFlushed) + waiting + amReportsDropped);
    fill.add("reports.waiting", waiting);
    fill.add("reports.unmatched", valueOf(counts.reportsUnmatched), kUnmatched);
    fill.add("reports.dropped", amReportsDropped, kRecordsFile);
    fill.add("records.enforcement_lines", amEnfRecordState.lines);
    fill.add("records.monitoring_lines", amMonRecordState.lines);
    fill.add("records.application_lines", amAppRecordState.lines);
    fill.add("records.failures",
             amEnfRecordState.failures + amMonRecordState.failures + amAppRecordState.failures, kRecordsFile);
}

}  // namespace

uint32_t readCounters(Counter (&out)[kMostCounters]) {
    Filler fill{out};
    // What is a part is read first, so that it never exceeds the whole.
    const uint64_t withoutEngine = valueOf(counts.packetsWithoutEngine);
    const uint64_t received = valueOf(amPacketCounter);
    fill.add("packets.received", received);
    fill.add("packets.to_engine", received - (withoutEngine < received ? withoutEngine : received));
    fill.add("packets.without_engine", withoutEngine, kInstallKit);
    fill.add("packets.overruns", valueOf(counts.packetOverruns), kOverruns);
    addFlows(fill);
    for (const SideCounter &counter : sideCounters())
        fill.add(counter.name, valueOf(*counter.value), counter.cure);
    addRecords(fill);
    return fill.count;
}

int answerCounters(Answer &answer, const blob_attr *) {
    Counter counters[kMostCounters];
    const uint32_t count = readCounters(counters);
    answer.table("counters", [&] {
        for (uint32_t i = 0; i < count; i++) answer.number(counters[i].name, counters[i].value);
    });
    answer.array("losses", [&] {
        for (uint32_t i = 0; i < count; i++) {
            if (!counters[i].cure || counters[i].value == 0) continue;
            answer.table(nullptr, [&] {
                answer.text("name", counters[i].name);
                answer.number("value", counters[i].value);
                answer.text("cure", counters[i].cure);
            });
        }
    });
    return UBUS_STATUS_OK;
}

}  // namespace am
