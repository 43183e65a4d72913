#include "netfilter/mirror.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>

extern "C" {
#include <libubox/uloop.h>
}

#include "core/log.h"
#include "flows/capture.h"
#include "kit/engine.h"
#include "netfilter/attributes.h"
#include "netfilter/nflog.h"
#include "netfilter/pace.h"
#include "netfilter/requests.h"
#include "netfilter/side.h"
#include "netfilter/verdicts.h"

namespace am {

namespace {

constexpr int kSocketBuffer = 4 << 20;
constexpr int kBindAgain = 1000;  // milliseconds
constexpr int64_t kTellPeriod = 10'000;

mnl_socket *packets = nullptr;
alignas(nlmsghdr) char received[kNflogReceive] GUARDED_BY(amEngineGate);
NflogLosses losses GUARDED_BY(amEngineGate);
NflogPace pace GUARDED_BY(amEngineGate);

void onBindAgain(uloop_timeout *);
uloop_timeout bindTimer{.list = {}, .pending = false, .cb = onBindAgain, .time = {}};

// Of a burst of losses the first line comes at once, the next after a while with the sum.
void tellLosses() REQUIRES(amEngineGate) {
    static uint64_t told = 0;
    static int64_t toldAt = -kTellPeriod;
    const uint64_t lost = sideCounts.packetsLost.load(std::memory_order_relaxed);
    if (lost == told) return;
    const int64_t now = steadyMs();
    if (now - toldAt < kTellPeriod) return;
    amLog(AM_LOG_ERROR,
          "%s:%d %" PRIu64 " mirrored packets lost, %" PRIu64
          " since the start: they came faster than "
          "they were read\n",
          "mainpThread", __LINE__, lost - told, lost);
    told = lost;
    toldAt = now;
}

void takePacket(const nlmsghdr *message) REQUIRES(amEngineGate) {
    NflogPacket packet;
    if (!readNflogPacket(message, packet)) return;
    if (packet.numbered)
        if (const uint32_t missing = losses.see(packet.sequence); missing != 0)
            countUp(sideCounts.packetsLost, missing);
    const PacketInHand inHand{packet.packet, packet.connection};
    setPacketInHand(&inHand);
    handPacket({packet.packet.data(), packet.packet.size() + kPacketLengthExtra});
    setPacketInHand(nullptr);
}

// False when the capture thread is to end.
bool takeBatch(size_t length) REQUIRES(amEngineGate) {
    std::span<const char> rest{received, length};
    bool goOn = true;
    uint32_t count = 0;
    eachMessage(rest, [&](const nlmsghdr *message) NO_THREAD_SAFETY_ANALYSIS {
        goOn = goOn && !captureHalted.load(std::memory_order_relaxed);
        if (goOn) takePacket(message);
        count++;
    });
    if (pace.see(count, steadyMs())) {
        alignas(nlmsghdr) char buffer[kNflogRequestSize] = {};
        const nlmsghdr *request = buildNflogBatch(buffer, sideSettings.group, pace.batch());
        (void)mnl_socket_sendto(packets, request, request->nlmsg_len);
    }
    return goOn;
}

int bindGroup() REQUIRES(amEngineGate) {
    // What is left of the time before may fill the socket, and the answer would have no room.
    while (recv(mnl_socket_get_fd(packets), received, sizeof received, MSG_DONTWAIT) > 0) {
    }
    losses = {};
    pace = {};
    const NflogSettings settings{.group = sideSettings.group, .batch = pace.batch()};
    int error = 0;
    const NflogBound bound = bindNflog(packets, settings, error);
    if (bound == NflogBound::no) return error;
    amLog(AM_LOG_INFO, "%s:%d listening to NFLOG group %u, packets come %s their connections\n",
          "setMirroring", __LINE__, settings.group,
          bound == NflogBound::withConnections ? "with" : "without");
    return 0;
}

void onBindAgain(uloop_timeout *) {
    startMirror();
}

}  // namespace

int openMirror() {
    packets = openNetfilterSocket();
    if (!packets) return -errno;
    const int fd = mnl_socket_get_fd(packets);
    // A full socket is no error to be told of: the packets' numbers say how many are missing.
    int on = 1;
    (void)mnl_socket_setsockopt(packets, NETLINK_NO_ENOBUFS, &on, sizeof on);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer) != 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
    return 0;
}

void closeMirror() {
    (void)uloop_timeout_cancel(&bindTimer);
    if (packets) (void)mnl_socket_close(packets);
    packets = nullptr;
}

void abandonMirror() {
    if (packets) (void)close(mnl_socket_get_fd(packets));
}

void startMirror() {
    amEngineSeize();
    const int error = bindGroup();
    amEngineRelease();
    static int told = 0;
    if (error != 0) {
        if (error != told)
            amLog(AM_LOG_ERROR, "%s:%d NFLOG group %u: %s; trying again every second\n", "setMirroring",
                  __LINE__, sideSettings.group, reasonOf(error));
        (void)uloop_timeout_set(&bindTimer, kBindAgain);
    } else if (told != 0) {
        amLog(AM_LOG_ERROR, "%s:%d NFLOG group %u is free now\n", "setMirroring", __LINE__,
              sideSettings.group);
    }
    told = error;
}

void stopMirror() {
    (void)uloop_timeout_cancel(&bindTimer);
    withdrawMirror();
}

// The answer is read, and passed over, by the capture thread.
void withdrawMirror() {
    if (!packets) return;
    alignas(nlmsghdr) char buffer[kNflogRequestSize] = {};
    const nlmsghdr *request = buildNflogUnbind(buffer, sideSettings.group);
    (void)mnl_socket_sendto(packets, request, request->nlmsg_len);
}

int packetDescriptor() {
    return mnl_socket_get_fd(packets);
}

Drained drainPackets() {
    const int fd = mnl_socket_get_fd(packets);
    for (;;) {
        if (captureHalted.load(std::memory_order_relaxed)) return Drained::halted;
        const ssize_t got = recv(fd, received, sizeof received, MSG_DONTWAIT);
        if (got > 0) {
            if (!takeBatch(static_cast<size_t>(got))) return Drained::halted;
            continue;
        }
        if (got < 0 && errno == EINTR) continue;
        retryVerdicts();
        tellLosses();
        return Drained::empty;
    }
}

}  // namespace am
