// From a mirrored packet to the engine's entry.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "flows/kernel_side.h"
#include "kit/engine.h"
#include "recv_reception.h"
#include "ring_world.h"
#include "rows.h"
#include "switch/protocol.h"
#include "switch/reception.h"
#include "switch/ring.h"
#include "switch/sockets.h"
#include "world.h"

namespace bench {
namespace {

constexpr size_t kDatagrams = 128;

__attribute__((noinline)) void noEngine(const capture_pkt *pkt, const timeval *) {
    keep(pkt);
}

// The entry both sides call; a variable, as in the daemon.
PcapPacketFn bareEntry = noEngine;

void setEngine(PcapPacketFn entry) {
    bareEntry = entry;
    const AmGuard gate(amEngineGate);
    process_pktptr = entry;
}

int bareAttr(const nlattr *attr, void *data) {
    if (mnl_attr_get_type(attr) != DPI_PKT_A_DATA) return MNL_CB_STOP;
    auto *pkt = static_cast<capture_pkt *>(data);
    pkt->data = static_cast<const uint8_t *>(mnl_attr_get_payload(attr));
    pkt->len = mnl_attr_get_len(attr);
    return MNL_CB_OK;
}

int bareMessage(const nlmsghdr *nlh, void *) {
    capture_pkt pkt{};
    const int walked = mnl_attr_parse(nlh, kFamilyHeaderSize, bareAttr, &pkt);
    if (walked != MNL_CB_OK) return walked;
    timeval now;
    gettimeofday(&now, nullptr);
    bareEntry(&pkt, &now);
    return MNL_CB_OK;
}

// The least that reads a ring.
size_t bareRing() {
    size_t count = 0;
    for (uint32_t at = 0;; at = (at + 1) % kFrames, count++) {
        NlMmapHdr *frame = headerAt(at);
        if (__atomic_load_n(&frame->nm_status, __ATOMIC_ACQUIRE) != NL_MMAP_VALID) return count;
        keep(mnl_cb_run(frame + 1, frame->nm_len, 0, packet_portid, bareMessage, nullptr));
        __atomic_store_n(&frame->nm_status, NL_MMAP_UNUSED, __ATOMIC_RELEASE);
    }
}

size_t ourRing() {
    amEngineEnter();
    keep(am::drainPackets());
    amEngineLeave();
    return kFrames;
}

std::function<void()> offer(size_t length) {
    return [length] {
        setEngine(noEngine);
        if (ringLength() != length) writeRing(length, kFrames);  // readers leave the packets as they are
        offerRing();
    };
}

void addClassifierRow(Table &table) {
    void *library = dlopen(NDPI_ENGINE, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        printf("left out: beside the classifier (%s)\n", dlerror());
        return;
    }
    const auto start = reinterpret_cast<void (*)()>(dlsym(library, "test_capture"));
    const auto entry = reinterpret_cast<PcapPacketFn>(dlsym(library, "pcap_packet"));
    start();
    const auto prepare = [entry] {
        setEngine(entry);
        writeRing(300, 16);  // flows of 16 packets: the classifier is still at work on each
        offerRing();
    };
    table.add(Row{.what = "packets of unclassified flows through libndpi",
                  .reference = "bare ring loop, same engine",
                  .limits = {.goal = 1.05},
                  .bare = {prepare, bareRing},
                  .ours = {prepare, ourRing}});
}

void addReceiveRow(Table &table) {
    const DatagramPair pair = datagramPair();
    packet_nls = mnl_socket_fdopen(pair.near);
    (void)recvSetUpReception(packet_nls);
    const auto prepare = [pair] {
        setEngine(noEngine);
        alignas(nlmsghdr) char message[kMessageSize];
        const uint32_t length = putPacketMessage(message, 64, 1);
        for (size_t i = 0; i < kDatagrams; i++) keep(sendto(pair.far, message, length, 0, nullptr, 0));
    };
    table.add(Row{.what = "KORVID_RX=recv, batched",
                  .reference = "bare receive-until-empty loop",
                  // Where a system call costs next to nothing, a batch saves no more than its headers cost.
                  .limits = {.goal = 0.85, .gate = 1.00},
                  .bare = {prepare,
                           [pair] {
                               alignas(nlmsghdr) static char buffer[kMessageSize];
                               size_t count = 0;
                               for (;; count++) {
                                   const ssize_t got = recv(pair.near, buffer, sizeof buffer, MSG_DONTWAIT);
                                   if (got <= 0) return count;
                                   keep(mnl_cb_run(buffer, static_cast<size_t>(got), 0, packet_portid,
                                                   bareMessage, nullptr));
                               }
                           }},
                  .ours = {prepare, [] {
                               amEngineEnter();
                               keep(recvDrainPackets());
                               amEngineLeave();
                               return kDatagrams;
                           }}});
}

}  // namespace

void addCaptureRows(Table &table) {
    mapRing();
    table.add(Row{.what = "capture path, no-op engine, 64-byte packets",
                  .reference = "libmnl walk + gettimeofday",
                  .limits = {.goal = 0.90},
                  .bare = {offer(64), bareRing},
                  .ours = {offer(64), ourRing}});
    table.add(Row{.what = "capture path, 3,900-byte packets",
                  .reference = "the same, 64-byte packets",
                  .limits = {.goal = 1.02},
                  .bare = {offer(64), ourRing},
                  .ours = {offer(3900), ourRing}});
    addClassifierRow(table);
    addReceiveRow(table);
}

}  // namespace bench
