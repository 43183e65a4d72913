// How the packet socket is read.  Two implementations, one of them in a build (KORVID_RX): the memory-mapped
// ring, or batches of plain receives for kernels that no longer offer the ring.
//
// Threads: set up on the main thread before the capture thread runs, then the capture thread alone.
#pragma once
#include <libmnl/libmnl.h>

#include "kit/engine.h"

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

}  // namespace am
