// What a kernel's side tells of a flow's counters.  It calls these; the records define them.
#pragma once
#include <cstdint>
#include <string_view>

#include "flows/enf_flow_db.h"

namespace am {

template <class Key>
struct FlowReport {
    Key key;
    uint8_t aged;  // not 0: the flow has ended
    uint64_t byteCnt, pktCnt;
    std::string_view accessProfile, qosPolicyRule;  // without data if not reported
};

// One report of one flow.  Event-loop thread.
void reportFlow4(const FlowReport<AmEnfKey4> &report) EXCLUDES(amEnfFlowLock);
void reportFlow6(const FlowReport<AmEnfKey6> &report) EXCLUDES(amEnfFlowLock);

// Writes what has been reported, and what is monitored, to the record files, as far as that is possible.
// Event-loop thread.
void flushReports();

// Throws away, and counts, what could not be written: its applications' numbers are about to mean others.
// Event-loop thread.
void dropReports();

}  // namespace am
