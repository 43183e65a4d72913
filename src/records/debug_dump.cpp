#include "records/debug_dump.h"

#include <algorithm>
#include <cinttypes>

#include "appmodel/app_lists.h"
#include "core/log.h"
#include "core/text.h"
#include "flows/capture.h"
#include "flows/enf_flow_db.h"
#include "flows/kernel_side.h"
#include "records/mon_records.h"
#include "records/stats_report.h"

namespace {

// Also of the monitoring queue: all dumps name applications as the enforcement list has them.
struct Names {
    char application[kAppNameSize + 1] = {};
    char group[kGroupNameSize + 1] = {};

    explicit Names(uint32_t appId) {
        getAppAndGroupNameFromAppId(appId, application, group, AM_LIST_ENFORCEMENT);
    }
};

void printFlow(const AmEnfFlow4 &flow) {
    const Names names(flow.appId);
    amLog(AM_LOG_INFO,
          "App-Name %s Grp-Name %s src_ip %s, dst ip %s, src_port %d, dst_port %d, l4_proto %d\n",
          names.application, names.group, am::addressText(flow.key.fst_ip).text,
          am::addressText(flow.key.secnd_ip).text, flow.key.fstPort, flow.key.scndPort, flow.key.proto);
}

template <class Address>
void printReport(const AmFtQueueEntry<Address> &entry) {
    const Names names(entry.appId);
    amLog(
        AM_LOG_INFO,
        "src-ip %s dst-ip %s src_port %d dst_port %d l4_proto %d app-name %s grp-name %s pkt-count %" PRIu64,
        am::addressText(entry.fst_ip).text, am::addressText(entry.secnd_ip).text, entry.fstPort,
        entry.scndPort, entry.proto, names.application, names.group, entry.pktCnt);
}

}  // namespace

void debugPrintAmEnfFlowDb() {
    if (amLogWanted(AM_LOG_INFO)) forEachEnfFlow4(printFlow);
}

void debugPrintFt4Queue() {
    amLog(AM_LOG_INFO, "amFt4Queue ft4CommonIndex %d\n", ft4CommonIndex);
    std::for_each_n(amnFt4Queue, ft4CommonIndex, printReport<uint32_t>);
}

void debugPrintFt6Queue() {
    amLog(AM_LOG_INFO, "amFt6Queue ft6CommonIndex %d\n", ft6CommonIndex);
    std::for_each_n(amnFt6Queue, ft6CommonIndex, printReport<in6_addr>);
}

void debugPrintFt6MonQueue() {
    if (!amLogWanted(AM_LOG_INFO)) return;
    AmMonFt6Entry entries[kMonQueueSize];
    uint32_t count = 0;
    {
        const AmGuard guard(amMonQueueLock);
        count = amMonFlow6Counter;
        std::copy_n(amMonFt6Queue, count, entries);
    }
    amLog(AM_LOG_INFO, "amMonFt6Queue amMonFlow6Counter %d\n", static_cast<int>(count));
    std::for_each_n(entries, count, [](const AmMonFt6Entry &entry) {
        const Names names(entry.app_id);
        amLog(AM_LOG_INFO, "src-ip %s dst-ip %s src_port %d dst_port %d l4_proto %d app-name %s grp-name %s",
              am::addressText(entry.src_ip6).text, am::addressText(entry.dst_ip6).text, entry.src_port,
              entry.dst_port, entry.proto, names.application, names.group);
    });
}

void debugPrintCounter() {
    amLog(AM_LOG_INFO,
          "Packet Counter [%" PRIu64 "] : Flow4 Counter [%" PRIu64 "] : Flow6 Counter [%" PRIu64
          "] : Stats Counter [%" PRIu64 "]\n",
          amPacketCounter.load(std::memory_order_relaxed), amFlowCounter.load(std::memory_order_relaxed),
          amFlowCounter6.load(std::memory_order_relaxed), amStatsCounter.load(std::memory_order_relaxed));
}
