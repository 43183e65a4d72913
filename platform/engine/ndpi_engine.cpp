// The real classifier, on libndpi.  A flow is reported once: as soon as its application is certain, or after
// 32 packets, or when it ends, falls idle, is pushed out by newer flows or the engine is stopped, with what
// is known by then.  What stays unknown is application 0, so that the kernel need not go on mirroring it.
//
// An application is named on evidence in the flow's packets alone, never guessed from a port or from other
// flows of the hosts: a policy hangs on it.
#include <ndpi_api.h>
#include <netinet/in.h>
#include <sys/random.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "flow_table.h"

namespace engine {
namespace {

constexpr uint32_t kMaxFlows = 65536;
constexpr uint16_t kMaxPackets = 32;     // inspected of a flow
constexpr uint64_t kIdleTime = 120'000;  // ms
constexpr uint64_t kQuietTime = 30'000;  // ms; a kernel forgets a flow of UDP after as long
constexpr int kExpiriesPerPacket = 4;    // so that no packet waits for a crowd of flows that expire together
constexpr uint32_t kFlowStateDone = 0;   // the classifier holds nothing more of the flow
constexpr size_t kLongestPacket = 65535, kSlack = 256;

constinit ndpi_detection_module_struct *detector = nullptr;
constinit FlowTable table{};

// libndpi looks a few bytes past short packets here and there.  It is given a copy followed by zeros, never
// the ring frame itself.
constinit uint8_t copyOfPacket[kLongestPacket + kSlack]{};

void freeDetection(Flow &flow) {
    ndpi_free_flow(static_cast<ndpi_flow_struct *>(flow.detection));
    flow.detection = nullptr;
}

// Nothing may be used of the flow's detection afterwards.
void reportApplication(Flow &flow, const ndpi_protocol &found) {
    const uint16_t appId =
        found.app_protocol != NDPI_PROTOCOL_UNKNOWN ? found.app_protocol : found.master_protocol;
    freeDetection(flow);
    reportFlow(flowTuple(flow), appId, ndpi_get_proto_name(detector, appId), kFlowStateDone);
}

// libndpi remembers hosts: after one BitTorrent handshake it gives that name to every connection between the
// two that shows nothing, remote logins included.  What it knew of the flow itself stands.
void finish(Flow &flow) {
    if (!flow.detection) return;
    auto *detection = static_cast<ndpi_flow_struct *>(flow.detection);
    const bool unknown = detection->detected_protocol_stack[0] == NDPI_PROTOCOL_UNKNOWN;
    uint8_t guessed = 0;
    ndpi_protocol found = ndpi_detection_giveup(detector, detection, 0, &guessed);
    if (unknown && detection->confidence == NDPI_CONFIDENCE_DPI_CACHE)
        found.master_protocol = found.app_protocol = NDPI_PROTOCOL_UNKNOWN;
    reportApplication(flow, found);
}

void drop(Flow &flow) {
    finish(flow);
    flowRemove(table, flow);
}

void expire(uint64_t now) {
    for (int i = 0; i < kExpiriesPerPacket; i++) {
        Flow *flow = flowOldest(table);
        // The clock may have been set back since the flow was last seen.
        if (!flow || now < flow->lastSeen || now - flow->lastSeen < kIdleTime) return;
        drop(*flow);
    }
}

bool isCertain(ndpi_flow_struct *detection, const ndpi_protocol &found) {
    if (found.app_protocol == NDPI_PROTOCOL_UNKNOWN) return false;
    const bool insideAnother =
        found.master_protocol != NDPI_PROTOCOL_UNKNOWN && found.master_protocol != found.app_protocol;
    return insideAnother || !ndpi_extra_dissection_possible(detector, detection);
}

void inspect(Flow &flow, const Packet &packet, uint64_t now) {
    const size_t length = std::min(packet.len, kLongestPacket);
    memcpy(copyOfPacket, packet.data, length);
    memset(copyOfPacket + length, 0, kSlack);
    auto *detection = static_cast<ndpi_flow_struct *>(flow.detection);
    const ndpi_protocol found = ndpi_detection_process_packet(detector, detection, copyOfPacket,
                                                              static_cast<unsigned short>(length), now);
    if (isCertain(detection, found))
        reportApplication(flow, found);
    else if (++flow.packets >= kMaxPackets)
        finish(flow);
}

Flow *startFlow(const Tuple &key, bool swapped) {
    void *detection = ndpi_flow_malloc(sizeof(ndpi_flow_struct));
    if (!detection) return nullptr;
    memset(detection, 0, sizeof(ndpi_flow_struct));
    Flow *flow = flowAdd(table, key);
    if (!flow) {
        drop(*flowOldest(table));
        flow = flowAdd(table, key);
    }
    flow->swapped = swapped;
    flow->detection = detection;
    return flow;
}

void noteEnd(Flow &flow, const Packet &packet, bool swapped) {
    if (packet.tcpFlags & TCP_FIN) flow.finsSeen |= swapped ? 2 : 1;
    if (packet.tcpFlags & TCP_RST) flow.finsSeen = 3;
    if (flow.finsSeen == 3) finish(flow);
}

// Whether a packet begins another flow between the same ends: the ports of one that is over are used again.
// A kernel that has its verdict need not show us the end of a flow, nor the middle.
bool beginsAnother(const Flow &flow, const Packet &packet, uint64_t now) {
    const bool over = flow.finsSeen == 3 || !flow.detection;
    if (packet.tuple.proto == IPPROTO_TCP) return over && (packet.tcpFlags & (TCP_SYN | TCP_ACK)) == TCP_SYN;
    return over && now > flow.lastSeen && now - flow.lastSeen >= kQuietTime;
}

void follow(const Packet &packet, uint64_t now) {
    bool swapped = false;
    const Tuple key = canonical(packet.tuple, swapped);
    Flow *flow = flowFind(table, key);
    if (flow && beginsAnother(*flow, packet, now)) {
        drop(*flow);
        flow = nullptr;
    }
    if (!flow) flow = startFlow(key, swapped);
    if (!flow) return;
    flowTouch(table, *flow, now);
    if (flow->detection) inspect(*flow, packet, now);
    noteEnd(*flow, packet, swapped);
}

bool startDetector() {
    if (ndpi_get_api_version() != NDPI_API_VERSION) return false;
    detector = ndpi_init_detection_module(ndpi_no_prefs);
    if (!detector) return false;
    NDPI_PROTOCOL_BITMASK all;
    NDPI_BITMASK_SET_ALL(all);
    ndpi_set_protocol_detection_bitmask2(detector, &all);
    ndpi_finalize_initialization(detector);
    return true;
}

void stopDetector() {
    ndpi_exit_detection_module(detector);
    detector = nullptr;
}

}  // namespace
}  // namespace engine

using namespace engine;

void test_capture() {
    if (detector) return;
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof(seed), 0) != sizeof(seed)) seed = reinterpret_cast<uintptr_t>(&seed);
    if (!startDetector()) {
        (void)fprintf(stderr, "engine: libndpi %s cannot be started\n", ndpi_revision());
        return;
    }
    if (!flowTableInit(table, kMaxFlows, seed)) {
        (void)fprintf(stderr, "engine: no memory for the flow table\n");
        stopDetector();
    }
}

void pcap_packet(const capture_pkt *pkt, const timeval *ts) {
    Packet packet;
    if (!detector) return;
    const uint64_t now = static_cast<uint64_t>(ts->tv_sec) * 1000 + static_cast<uint64_t>(ts->tv_usec) / 1000;
    expire(now);
    if (parsePacket(*pkt, packet)) follow(packet, now);
}

void test_capture_exit() {
    if (!detector) return;
    while (Flow *flow = flowOldest(table)) drop(*flow);
    flowTableFree(table);
    stopDetector();
}
