// The two netlink sockets to the DPI kernel module.
//
// control_nls: configuration and result messages out, statistics reports in, served by the event loop.
// packet_nls: mirrored packets in, read by the capture thread alone.
// Threads: opened, closed and switched on the main thread; result messages are sent from the engine's
// threads.  Each send is one datagram and needs no lock.
#pragma once
#include <libmnl/libmnl.h>

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

// Reads the control socket until it is drained.  Ends the process with status 1 on a netlink error.
void amRecvNLMgmtSocket(uloop_fd *fd, unsigned int events);
