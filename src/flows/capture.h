// The packet-capture thread: waits for mirrored packets and hands every one to the engine.  It alone reads
// them.
#pragma once
#include <sys/time.h>

#include <atomic>
#include <cstdint>

#include "core/counts.h"
#include "core/log.h"
#include "flows/packet_dump.h"
#include "kit/engine.h"

// Packets accepted, whether or not an engine took them.  Written by the capture thread alone.
extern std::atomic<uint64_t> amPacketCounter;

// Starts the thread.  Main thread, once, after amCreateNetLinkSockets.
void amPktCaptureThread();

// Asks the thread to end and waits for it, a few seconds at most: before the kernel side closes.  False when
// it still runs, held up in the engine: then nothing that it uses may go.  Main thread.
[[nodiscard]] bool amStopCaptureThread();

namespace am {
// The same, with a bound: whether the thread has ended by then.  Any thread but that one.
bool stopCaptureWithin(int milliseconds);

// What an interrupt does about it: the packet count to the log, and half a second for the thread to end.
void endCaptureAtInterrupt();

// The pending error of a socket, which is then gone from it; 0 if there is none.  Any thread.
int takeSocketError(int fd);

// Set when the capture thread is to end: by its stop, and by SIGINT's handler.  Looked at between packets,
// since they may never stop coming.
extern std::atomic<bool> captureHalted;
static_assert(std::atomic<bool>::is_always_lock_free);  // stored in a signal handler

// For whoever reads the packets: hands one on, which stays where it is until this returns.  Lets the
// event-loop thread take the gate first if that wants it.  Capture thread.
inline void handPacket(const capture_pkt &pkt) REQUIRES(amEngineGate) {
    if (print_debug.load(std::memory_order_relaxed) != 0) [[unlikely]]
        logPacket(pkt);
    amEngineYield();
    timeval now;
    gettimeofday(&now, nullptr);
    if (process_pktptr)
        process_pktptr(&pkt, &now);
    else
        countUp(counts.packetsWithoutEngine);
    // The only writer: no need for the bus lock of an atomic addition.
    amPacketCounter.store(amPacketCounter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}
}  // namespace am

// The thread's body; it returns only when it has been asked to stop.
void *mainpThread(void *);
