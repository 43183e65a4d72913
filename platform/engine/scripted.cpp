// The scripted engine: a flow's application follows from rules.h alone, so that tests know every verdict
// beforehand. Built several times, each with one fault or habit that a real engine may have
// (platform/engine/CMakeLists.txt).
#include <unistd.h>

#include <cstdio>

#include "flow_set.h"
#include "packet.h"
#include "rules.h"
#include "scripted.h"

#ifndef ENGINE_ID_BASE
#define ENGINE_ID_BASE 0
#endif

namespace engine {
namespace {

constexpr char kRuleFile[] = "/flash/engine.rules";

constinit Rules rules{};
constinit FlowSet flows{};
constinit bool prepared = false, fullReported = false;

// Also from the first packet: one variant has no start entry.
void prepare() {
    if (prepared) return;
    defaultRules(rules, ENGINE_ID_BASE);
    readRules(rules, kRuleFile);
    flowSetInit(flows, rules.maxFlows);
    prepared = true;
}

bool isDue(const Tuple &tuple) {
    if (rules.everyPacket) return true;
    bool swapped = false;
    switch (flowSetAdd(flows, hashTuple(canonical(tuple, swapped), 0))) {
        case FlowSeen::kNew:
            return true;
        case FlowSeen::kKnown:
            return false;
        case FlowSeen::kFull:
            break;
    }
    if (!fullReported)
        (void)fprintf(stderr, "engine: %zu flows seen, new ones are not reported\n", flows.used);
    fullReported = true;
    return false;
}

[[maybe_unused]] void classify(const capture_pkt &pkt) {
    prepare();
    Packet packet;
    if (!parsePacket(pkt, packet) || !isDue(packet.tuple)) return;
    uint32_t appId = applicationOf(rules, packet.tuple);
    if (appId == kNotReported) return;
    if constexpr (kHelped) appId = helperSame(appId);
    if constexpr (kOwnOperators) useOperators();
    if (kHoldReports)
        holdReport(packet.tuple, appId, rules.flowState);
    else
        reportFlow(packet.tuple, appId, "", rules.flowState);
}

// For the variant without an exit entry, and after a packet that came later than the exit.
__attribute__((destructor)) void unload() {
    if (kCheckHandover) noteUnloading();
    flowSetFree(flows);
}

}  // namespace
}  // namespace engine

using namespace engine;

#ifdef ENGINE_UNRESOLVED
extern "C" __attribute__((visibility("default"))) void engine_entry_of_another_kit();
#endif

#ifndef ENGINE_WITHOUT_START
void test_capture() {
    prepare();
    if constexpr (kOwnOperators) useOperators();
    if (kOwnThreads) startThreads();
    if (kCheckHandover) noteStarted();
}
#endif

#ifndef ENGINE_WITHOUT_PACKET
void pcap_packet([[maybe_unused]] const capture_pkt *pkt, const timeval *) {
#ifdef ENGINE_UNRESOLVED
    engine_entry_of_another_kit();
#endif
#ifndef ENGINE_NOOP
    if (kCheckHandover) noteEntered();
#ifdef ENGINE_BLOCK_SECONDS
    for (unsigned left = ENGINE_BLOCK_SECONDS; left != 0; left = sleep(left)) {
    }  // signals do not cut it short
#endif
    classify(*pkt);
    if (kCheckHandover) noteLeft();
#endif
}
#endif

#ifndef ENGINE_WITHOUT_EXIT
void test_capture_exit() {
    if (kCheckHandover) noteStopping();
    if (kOwnThreads) stopThreads();
    if (kHoldReports) reportHeld();
    flowSetFree(flows);
    prepared = fullReported = false;
}
#endif
