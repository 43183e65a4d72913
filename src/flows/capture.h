// The packet-capture thread: waits on the packet socket, walks the ring frame by frame, and hands every
// mirrored packet to the engine.  It alone reads the ring and the packet socket.
#pragma once
#include <libmnl/libmnl.h>

#include <atomic>
#include <cstdint>

#include "kit/engine.h"

// Packet messages accepted, whether or not an engine took them.  Written by the capture thread alone.
extern std::atomic<uint64_t> amPacketCounter;

// Starts the thread.  Main thread, once, after amCreateNetLinkSockets.
void amPktCaptureThread();

// Asks the thread to end and waits for it, a few seconds at most: before the sockets close.  False when it
// still runs, held up in the engine: then nothing that it uses may go.  Main thread.
[[nodiscard]] bool amStopCaptureThread();

namespace am {
// The same, with a bound: whether the thread has ended by then.  Any thread but that one.
bool stopCaptureWithin(int milliseconds);
}  // namespace am

// The thread's body; it returns only when it has been asked to stop.
void *mainpThread(void *);

// Data callback of the packet socket, run by mnl_cb_run: 1 go on, 0 stop this buffer.  The message is
// untrusted.  Lets the event-loop thread take the gate first if that wants it.
int packet_cb(const nlmsghdr *nlh, void *data) REQUIRES(amEngineGate);

// 1 for the packet attribute, which is noted in the capture_pkt given as data; 0 for any other.
int packet_attr_cb(const nlattr *attr, void *pkt);

// Packet lines of the log, at PACKET.  A packet too short for the header that a line shows gets no line.
void dump_ipv4(const capture_pkt *pkt);
void dump_ipv6(const capture_pkt *pkt);
