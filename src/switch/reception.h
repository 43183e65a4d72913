// How the packet socket is read.  Two implementations, one of them in a build (KORVID_RX): the memory-mapped
// ring, or batches of plain receives for kernels that no longer offer the ring.
//
// Threads: set up on the main thread before the capture thread runs, then the capture thread alone.
#pragma once
#include <libmnl/libmnl.h>

#include <atomic>
#include <cstddef>

#include "flows/capture.h"
#include "kit/engine.h"
#include "switch/protocol.h"
#include "switch/sockets.h"

namespace am {

// Readies the open, not yet bound packet socket.  0, or -1 when the process cannot go on without.
int setUpReception(mnl_socket *socket);

enum class Drained {
    empty,    // nothing left: wait for the socket
    waiting,  // a frame whose message has not come yet, though poll calls the socket readable: wait a moment
    halted,   // the capture thread has been asked to end
};

// Hands on what the packet socket holds until there is no more, the capture thread has been asked to end, or
// a frame cannot be completed yet.  Lets the event-loop thread take the gate between packets.
Drained drainPacketSocket() REQUIRES(amEngineGate);

// Set when the capture thread is to end: by its stop, and by SIGINT's handler.  Looked at between frames,
// since packets may never stop coming.
extern std::atomic<bool> captureHalted;
static_assert(std::atomic<bool>::is_always_lock_free);  // stored in a signal handler

// What a netlink error in a packet buffer comes to.
[[noreturn]] void failCapture();

// Runs the packet callback over the netlink messages in `data`.
inline void dispatchPackets(const void *data, size_t length) REQUIRES(amEngineGate) {
    if (runMessages(data, length, packet_portid, packet_cb) < MNL_CB_STOP) [[unlikely]]
        failCapture();
}

}  // namespace am
