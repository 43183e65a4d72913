// Verdicts: what an engine says of a flow becomes bits of the connection's mark.
//
//   verdict --connection found--> marked
//       '--not there yet--> waiting --found at a later try, or by a walk over all connections--> marked
//                              '--a second over, or no room to wait--> counted as not found
//
// A connection's first packet is seen before the kernel enters the connection, and one whose addresses are
// translated at both ends has neither of its tuples at the FORWARD hook: those are what waits.
//
// Threads: verdicts come on any of the engine's threads.  A private lock covers the socket and what waits.
#pragma once
#include <libmnl/libmnl.h>

#include <cstdint>
#include <span>

#include "netfilter/conntrack.h"

namespace am {

// 0, or a negative error number.  -EPERM: no right to; -EINVAL or -EOPNOTSUPP: a kernel without conntrack or
// its netlink interface.  Event-loop thread, with the loop set up.
int openVerdicts();
void closeVerdicts();    // handles and all; no verdict is under way
void abandonVerdicts();  // descriptors only, for a process that ends at once

// The packet that the capture thread is handing to the engine: a verdict that comes from within tells more of
// its connection than addresses and ports.  Null when there is none.  Capture thread.
struct PacketInHand {
    std::span<const uint8_t> packet;
    const nlattr *connection;  // NFULA_CT, or null
};
void setPacketInHand(const PacketInHand *packet);

// Tries again what is due of what waits.  Any thread.
void retryVerdicts();

// Forgets what waits: its numbers mean nothing any more.  Any thread.
void dropVerdicts();

// Whether a verdict without the bit has gone out for the application since this was asked last.  Event-loop
// thread.
bool takeUnenforced(uint32_t application);

// Sets the daemon's bits of that connection's mark.  0, or a negative error number.  Any thread.
int markConnection(const Connection &connection, uint32_t value);

}  // namespace am
