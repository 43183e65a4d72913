// The two netlink sockets to the DPI kernel module.
//
// control_nls: configuration and result messages out, statistics reports in, served by the event loop.
// packet_nls: mirrored packets in, read by the capture thread alone.
// Threads: opened, closed and switched on the main thread; result messages are sent from the engine's
// threads.  Each send is one datagram and needs no lock.
#pragma once
#include <libmnl/libmnl.h>

#include <atomic>
#include <cstdint>

extern "C" {
#include <libubox/uloop.h>
}

#include "appmodel/app_pool.h"
#include "core/lock.h"

extern mnl_socket *control_nls;
extern mnl_socket *packet_nls;
extern uint32_t control_portid;  // the process id
extern uint32_t packet_portid;   // the process id with bit 16 set
extern uloop_fd mgmt_fd;

// 1 = mirroring enabled.  Written by amNetLinkMirrorState only, under amModelLock; relaxed reads elsewhere.
extern std::atomic<int> amAdminState;
extern std::atomic<uint64_t> amStatsCounter;  // datagrams read from the control socket

// Opens and binds both sockets, maps the ring, registers with the kernel and with the event loop, and takes
// SIGINT over.  Ends the process with status 1 when a socket or the ring cannot be had.
void amCreateNetLinkSockets();

// Closes the packet socket, then the control socket, each if it is open, and forgets them.  The capture
// thread must have ended; a verdict in progress on another of the engine's threads is waited for.
void amCloseNetLinkSockets() EXCLUDES(amModelLock);

// Switches the kernel's mirroring: 1 on, any other value off; nothing when that is the state already.
// Switching off empties both enforcement flow trees, for good: no verdict is in progress by then.
void amNetLinkMirrorState(int state) EXCLUDES(amModelLock);

// Reads the control socket until it is drained.  Ends the process with status 1 on a netlink error.
void amRecvNLMgmtSocket(uloop_fd *fd, unsigned int events);

namespace am {

// The pending error of a socket, which is then gone from it; 0 if there is none.  Any thread.
int takeSocketError(int fd);

// What an interrupt does with the sockets, in this order: mirroring off, the packet count to the log, the
// packet and the control socket closed.  For the interrupt's own thread, while the others may still use the
// handles: these stay, the process ends at once.
void withdrawFromKernel();

// Closes the packet socket, then the control socket, below threads that still use the handles: for a process
// that ends at once.
void closeDescriptors();

}  // namespace am
