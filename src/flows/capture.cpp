#include "flows/capture.h"

#include <poll.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/lock.h"
#include "core/log.h"
#include "core/thread.h"
#include "flows/interrupt.h"
#include "switch/protocol.h"
#include "switch/reception.h"
#include "switch/sockets.h"

constinit std::atomic<uint64_t> amPacketCounter{0};

namespace {

constexpr int kPollTimeout = 1000;         // milliseconds
constexpr long kWaitingPause = 1'000'000;  // nanoseconds
constexpr int kStopPauseMs = 10;
constexpr int kStopPatienceMs = 3000;
constexpr int kWakeSignal = SIGURG;  // ignored by default, so nobody misses it

constinit AmMutex threadLock;
bool threadJoined GUARDED_BY(threadLock) = true;
pthread_t captureThread GUARDED_BY(threadLock);

void pauseFor(long nanoseconds) {
    const timespec pause{0, nanoseconds};
    (void)nanosleep(&pause, nullptr);
}

void wakeOnly(int) {}  // the poll of the capture thread returns with EINTR, that is all

void capture(int fd) {
    pollfd waited{fd, POLLIN | POLLERR, 0};
    amLog(AM_LOG_DEBUG, "%s:%d Poll the packet socket\n", "mainpThread", __LINE__);
    while (!am::captureHalted.load(std::memory_order_relaxed)) {
        if (poll(&waited, 1, kPollTimeout) < 0) {
            if (errno == EINTR) continue;
            perror("mnl_socket_send");
            _exit(1);
        }
        if (waited.revents & POLLERR) {
            const int error = am::takeSocketError(fd);
            amLog(AM_LOG_ERROR, "%s:%d packet socket error: %s\n", "mainpThread", __LINE__, strerror(error));
            continue;
        }
        if (!(waited.revents & POLLIN)) {
            if (waited.revents != 0) pauseFor(kWaitingPause);  // a socket that has ended is always ready
            continue;
        }
        amEngineEnter();
        const am::Drained drained = am::drainPacketSocket();
        amEngineLeave();
        if (drained == am::Drained::waiting) pauseFor(kWaitingPause);
    }
}

// The attribute of a message that it fills to the end, which is every packet message of a healthy kernel;
// null for any other.  Saves them the walk.
const nlattr *soleAttribute(const nlmsghdr *nlh) {
    constexpr uint32_t kAttributes = MNL_NLMSG_HDRLEN + kFamilyHeaderSize;
    if (nlh->nlmsg_len < kAttributes + MNL_ATTR_HDRLEN) return nullptr;
    const auto *attr = reinterpret_cast<const nlattr *>(reinterpret_cast<const char *>(nlh) + kAttributes);
    const bool whole = attr->nla_len >= MNL_ATTR_HDRLEN &&
                       kAttributes + MNL_ALIGN(uint32_t{attr->nla_len}) == MNL_ALIGN(nlh->nlmsg_len);
    return whole ? attr : nullptr;
}

void debugPacket(const capture_pkt &pkt) {
    // No first byte to look at: no attribute, or an empty one.
    if (!pkt.data || pkt.len <= MNL_ATTR_HDRLEN) return;
    const unsigned version = pkt.data[0] & 0xf0U;
    amLog(AM_LOG_PACKET, "Ip version %x %x\n", version, pkt.data[0]);
    switch (version) {
        case 0x60:
            dump_ipv6(&pkt);
            break;
        case 0x40:
            dump_ipv4(&pkt);
            break;
        default:
            amLog(AM_LOG_PACKET, "Wrong ip version\n");
    }
}

}  // namespace

namespace am {

constinit std::atomic<bool> captureHalted{false};

void failCapture() {
    amLog(AM_LOG_ERROR, "%s:%d mnl_cb_run error!!!\n", "mainpThread", __LINE__);
    _exit(1);  // no exit(): other threads still use what its handlers would tear down
}

}  // namespace am

int packet_attr_cb(const nlattr *attr, void *pkt) {
    if ((attr->nla_type & NLA_TYPE_MASK) != DPI_PKT_A_DATA) return MNL_CB_STOP;
    auto *packet = static_cast<capture_pkt *>(pkt);
    packet->data = reinterpret_cast<const uint8_t *>(attr) + MNL_ATTR_HDRLEN;
    packet->len = attr->nla_len;
    return MNL_CB_OK;
}

int packet_cb(const nlmsghdr *nlh, void *) {
    capture_pkt pkt{};
    const nlattr *sole = soleAttribute(nlh);
    const int walked =
        sole ? packet_attr_cb(sole, &pkt) : mnl_attr_parse(nlh, kFamilyHeaderSize, packet_attr_cb, &pkt);
    if (walked != MNL_CB_OK) return walked;

    if (print_debug.load(std::memory_order_relaxed) != 0) [[unlikely]]
        debugPacket(pkt);
    amEngineYield();
    timeval now;
    gettimeofday(&now, nullptr);
    if (process_pktptr) process_pktptr(&pkt, &now);
    // The only writer: no need for the bus lock of an atomic addition.
    amPacketCounter.store(amPacketCounter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return MNL_CB_OK;
}

void *mainpThread(void *) {
    // The flow trees and the aging timer are the main thread's to set up, before this thread runs: the event
    // loop is not to be called from here.
    installInterruptHandler();
    capture(mnl_socket_get_fd(packet_nls));
    return nullptr;
}

void amPktCaptureThread() {
    struct sigaction wake {};
    wake.sa_handler = wakeOnly;
    (void)sigaction(kWakeSignal, &wake, nullptr);

    // The event loop's signals stay with the event loop's thread.
    sigset_t others;
    sigemptyset(&others);
    sigaddset(&others, SIGTERM);
    sigaddset(&others, SIGCHLD);
    const AmGuard guard(threadLock);
    const int error = am::startThread(captureThread, others, mainpThread, nullptr);
    threadJoined = error != 0;
    if (error != 0) amLog(AM_LOG_ERROR, "%s:%d capture thread: %s\n", __func__, __LINE__, strerror(error));
}

namespace am {

bool stopCaptureWithin(int milliseconds) {
    captureHalted.store(true, std::memory_order_relaxed);
    // Repeated: a wake-up that comes between the thread's look at the request and its poll is lost.
    for (int waited = 0; waited <= milliseconds; waited += kStopPauseMs) {
        {
            const AmGuard guard(threadLock);
            if (!threadJoined) threadJoined = am::joinEnded(captureThread);
            if (threadJoined) return true;
            pthread_kill(captureThread, kWakeSignal);
        }
        pauseFor(kStopPauseMs * 1'000'000L);
    }
    return false;
}

}  // namespace am

bool amStopCaptureThread() {
    const bool ended = am::stopCaptureWithin(kStopPatienceMs);
    if (!ended) amLog(AM_LOG_ERROR, "%s:%d capture thread does not end\n", __func__, __LINE__);
    return ended;
}
