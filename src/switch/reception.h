// How the packet socket is read: this and am::drainPackets.  Two implementations, one of them in a build
// (KORVID_RX): the memory-mapped ring, or batches of plain receives for kernels that no longer offer the
// ring.
//
// Threads: set up on the main thread before the capture thread runs, then the capture thread alone.
#pragma once
#include <libmnl/libmnl.h>

namespace am {

// Readies the open, not yet bound packet socket.  0, or -1 when the process cannot go on without.
int setUpReception(mnl_socket *socket);

}  // namespace am
