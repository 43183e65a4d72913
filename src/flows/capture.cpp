#include "flows/capture.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/lock.h"
#include "core/log.h"
#include "core/thread.h"
#include "flows/interrupt.h"
#include "flows/kernel_side.h"

constinit std::atomic<uint64_t> amPacketCounter{0};

namespace {

constexpr int kPollTimeout = 1000;         // milliseconds
constexpr long kWaitingPause = 1'000'000;  // nanoseconds
constexpr int kStopPauseMs = 10;
constexpr int kStopPatienceMs = 3000;
constexpr int kInterruptPatienceMs = 500;
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
            am::countUp(am::counts.packetOverruns);
            continue;
        }
        if (!(waited.revents & POLLIN)) {
            if (waited.revents != 0) pauseFor(kWaitingPause);  // a socket that has ended is always ready
            continue;
        }
        amEngineEnter();
        const am::Drained drained = am::drainPackets();
        amEngineLeave();
        if (drained == am::Drained::waiting) pauseFor(kWaitingPause);
    }
}

}  // namespace

namespace am {

constinit std::atomic<bool> captureHalted{false};

}  // namespace am

void *mainpThread(void *) {
    // The flow trees and the aging timer are the main thread's to set up, before this thread runs: the event
    // loop is not to be called from here.
    installInterruptHandler();
    capture(am::packetDescriptor());
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

void endCaptureAtInterrupt() {
    amLog(AM_LOG_ERROR, "%s:%d recv packet count: %" PRIu64 "\n", "my_sig_handler", __LINE__,
          amPacketCounter.load(std::memory_order_relaxed));
    // The thread may be sending a verdict.  One that is held up in the engine is not waited for.
    (void)stopCaptureWithin(kInterruptPatienceMs);
}

int takeSocketError(int fd) {
    int error = 0;
    socklen_t size = sizeof error;
    (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

}  // namespace am

bool amStopCaptureThread() {
    const bool ended = am::stopCaptureWithin(kStopPatienceMs);
    if (!ended) amLog(AM_LOG_ERROR, "%s:%d capture thread does not end\n", __func__, __LINE__);
    return ended;
}
