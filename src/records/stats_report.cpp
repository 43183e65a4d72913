#include "records/stats_report.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "core/counts.h"
#include "core/log.h"
#include "core/text.h"
#include "flows/flow_report.h"
#include "records/enf_records.h"
#include "records/mon_records.h"

AmFt4QueueEntry amnFt4Queue[kReportQueueSize];
AmFt6QueueEntry amnFt6Queue[kReportQueueSize];
constinit int32_t ft4CommonIndex = 0;
constinit int32_t ft6CommonIndex = 0;
constinit uint64_t amReportsDropped = 0;

namespace {

struct V4 {
    using Key = AmEnfKey4;
    using Entry = AmFt4QueueEntry;
    static constexpr const char *kOp = "stats_report_cb4";
    static Entry *queue() { return amnFt4Queue; }
    static int32_t &index() { return ft4CommonIndex; }
    static AmEnfFlow4 *search(const Key &key) REQUIRES(amEnfFlowLock) { return amSearchEnfFlowDb(&key); }
};

struct V6 {
    using Key = AmEnfKey6;
    using Entry = AmFt6QueueEntry;
    static constexpr const char *kOp = "stats_report_cb6";
    static Entry *queue() { return amnFt6Queue; }
    static int32_t &index() { return ft6CommonIndex; }
    static AmEnfFlow6 *search(const Key &key) REQUIRES(amEnfFlowLock) { return amSearchEnfFlowDb6(&key); }
};

// A matched flow's share of its database record, read under the lock.
struct FlowFacts {
    uint16_t appId;
    time_t startTime;
    bool ended;  // by this report
};

// Marks the flow's record with the reported age.  Also where the report itself finds no room: the kernel says
// it once, and a record that nobody marks stays for good.
template <class Ip>
bool matchFlow(const am::FlowReport<typename Ip::Key> &report, FlowFacts &facts) {
    const AmGuard guard(amEnfFlowLock);
    auto *const flow = Ip::search(report.key);
    if (!flow) return false;
    facts = {flow->appId, flow->startTime, report.aged != 0 && flow->aged == 0};
    flow->aged = report.aged;
    return true;
}

// What the kernel has counted of a flow is known for good once it has ended.
template <class Key>
void addUp(const am::FlowReport<Key> &report, uint16_t appId) {
    amModelLock.soleWriterReads();
    AmActiveApp *const app = amActiveApp(appId);
    if (!app) return;
    app->endedPackets += report.pktCnt;
    app->endedBytes += report.byteCnt;
}

// A flush that fails says so itself; how many reports that cost is told once there is room again.
void tellDropped(const char *op) {
    static uint64_t told = 0;
    if (amReportsDropped == told) return;
    amLog(AM_LOG_ERROR, "%s:%d %" PRIu64 " reports dropped while records could not be written\n", op,
          __LINE__, amReportsDropped - told);
    told = amReportsDropped;
}

template <class Ip>
void enqueue(const am::FlowReport<typename Ip::Key> &report, const FlowFacts &facts) {
    tellDropped(Ip::kOp);
    typename Ip::Entry &entry = Ip::queue()[Ip::index()++];
    entry.fst_ip = report.key.fst_ip;
    entry.secnd_ip = report.key.secnd_ip;
    entry.fstPort = report.key.fstPort;
    entry.scndPort = report.key.scndPort;
    entry.proto = report.key.proto;
    entry.aged = report.aged;
    entry.byteCnt = report.byteCnt;
    entry.pktCnt = report.pktCnt;
    entry.appId = facts.appId;
    entry.startTime = facts.startTime;
    if (report.accessProfile.data()) am::copyText(entry.access_profile, report.accessProfile);
    if (report.qosPolicyRule.data()) am::copyText(entry.qos_policy_rule, report.qosPolicyRule);
}

// A name is not terminated; nothing of one that was not reported.
void logName(const char *format, std::string_view name) {
    if (name.data()) amLog(AM_LOG_STATS, format, static_cast<int>(name.size()), name.data());
}

// Apart, so that its texts are no burden to reports that are not logged.
[[gnu::noinline]] void logReport(const am::FlowReport<AmEnfKey4> &report) {
    amLog(AM_LOG_STATS,
          "fst_ip %s, secnd_ip %s, fstPort %u, scndPort %u, proto %u, aged %u, byteCnt %" PRIu64
          ", pktCnt %" PRIu64 "\n",
          am::addressText(report.key.fst_ip).text, am::addressText(report.key.secnd_ip).text,
          report.key.fstPort, report.key.scndPort, report.key.proto, report.aged, report.byteCnt,
          report.pktCnt);
    logName("access_profile: %.*s\n", report.accessProfile);
}

[[gnu::noinline]] void logReport(const am::FlowReport<AmEnfKey6> &report) {
    amLog(AM_LOG_STATS,
          "ipv6: fst_ip %s, secnd_ip %s, fstPort %u, scndPort %u, proto %u, aged %u, byteCnt %" PRIu64
          ", pktCnt %" PRIu64 "\n",
          am::addressText(report.key.fst_ip).text, am::addressText(report.key.secnd_ip).text,
          report.key.fstPort, report.key.scndPort, report.key.proto, report.aged, report.byteCnt,
          report.pktCnt);
    if (!report.accessProfile.data()) return;
    logName("access_profile: %.*s\n", report.accessProfile);
    logName("qos_policy_rule: %.*s\n", report.qosPolicyRule);
}

template <class Ip>
void recordReport(const am::FlowReport<typename Ip::Key> &report) {
    if (Ip::index() >= kReportQueueSize) (void)amWriteEnfFlowRecordToFile();

    FlowFacts facts{};
    const bool matched = matchFlow<Ip>(report, facts);
    if (!matched) {
        amLog(AM_LOG_DEBUG, "%s:%d Stats received for non exisiting flow in Flow DB\n", Ip::kOp, __LINE__);
        am::countUp(am::counts.reportsUnmatched);
    } else if (Ip::index() < kReportQueueSize) {
        enqueue<Ip>(report, facts);
    } else {
        amReportsDropped++;
    }
    if (facts.ended) addUp(report, facts.appId);
    if (stats_debug.load(std::memory_order_relaxed)) [[unlikely]]
        logReport(report);
}

}  // namespace

namespace am {

void reportFlow4(const FlowReport<AmEnfKey4> &report) {
    recordReport<V4>(report);
}

void reportFlow6(const FlowReport<AmEnfKey6> &report) {
    recordReport<V6>(report);
}

void flushReports() {
    if (ft4CommonIndex != 0 || ft6CommonIndex != 0) (void)amWriteEnfFlowRecordToFile();
    flushMonitored();
}

void dropReports() {
    amReportsDropped += static_cast<uint64_t>(ft4CommonIndex) + static_cast<uint64_t>(ft6CommonIndex);
    std::fill_n(amnFt4Queue, std::exchange(ft4CommonIndex, 0), AmFt4QueueEntry{});
    std::fill_n(amnFt6Queue, std::exchange(ft6CommonIndex, 0), AmFt6QueueEntry{});
    dropMonitored();
}

}  // namespace am
