// The messages of the packet socket, taken apart: each holds one mirrored packet.
#pragma once
#include <libmnl/libmnl.h>

#include "kit/engine.h"
#include "switch/protocol.h"
#include "switch/sockets.h"

// Data callback of the packet socket, run by mnl_cb_run: 1 go on, 0 stop this buffer.  The message is
// untrusted.  Lets the event-loop thread take the gate first if that wants it.
int packet_cb(const nlmsghdr *nlh, void *data) REQUIRES(amEngineGate);

// 1 for the packet attribute, which is noted in the capture_pkt given as data; 0 for any other.
int packet_attr_cb(const nlattr *attr, void *pkt);

namespace am {

// What a netlink error in a packet buffer comes to.
[[noreturn]] void failCapture();

// Runs the packet callback over the netlink messages in `data`.
inline void dispatchPackets(const void *data, size_t length) REQUIRES(amEngineGate) {
    if (runMessages(data, length, packet_portid, packet_cb) < MNL_CB_STOP) [[unlikely]]
        failCapture();
}

}  // namespace am
