// The messages of the control socket, taken apart: statistics reports.
#pragma once
#include <libmnl/libmnl.h>

// Data callback of the control socket, run by mnl_cb_run: 1 go on, 0 stop this buffer, -1 error.  The message
// is untrusted.
int stats_cb(const nlmsghdr *nlh, void *data);
