// Flows' counters as the kernel's side reports them (flows/flow_report.h): matched against the enforcement
// flow database, and queued for the enforcement records file.  All of it on the event-loop thread.
#pragma once
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "flows/enf_flow_db.h"

inline constexpr int kReportQueueSize = 200;

// One matched report.  The first five fields lie as in the flow key; ports in host, addresses in network
// order.
template <class Address>
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): the key's fields have to come first
struct AmFtQueueEntry {
    Address fst_ip, secnd_ip;
    uint16_t fstPort, scndPort;
    uint8_t proto;
    char qos_policy_rule[32];  // NUL-terminated, empty if not reported
    char access_profile[32];   // likewise
    uint32_t aged;
    uint64_t byteCnt;
    uint64_t pktCnt;
    uint32_t appId;
    time_t startTime;
    time_t intStartTime;  // set when the entry is formatted, 0 until then
};
using AmFt4QueueEntry = AmFtQueueEntry<uint32_t>;
using AmFt6QueueEntry = AmFtQueueEntry<in6_addr>;
static_assert(offsetof(AmFt4QueueEntry, proto) == offsetof(AmEnfKey4, proto));
static_assert(offsetof(AmFt6QueueEntry, proto) == offsetof(AmEnfKey6, proto));

// All zero at start and after every successful flush.
extern AmFt4QueueEntry amnFt4Queue[kReportQueueSize];
extern AmFt6QueueEntry amnFt6Queue[kReportQueueSize];
extern int32_t ft4CommonIndex, ft6CommonIndex;  // filled entries

// Reports dropped because a queue was full and could not be flushed.
extern uint64_t amReportsDropped;
