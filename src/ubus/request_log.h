// The request log: every request and every reply of the fifteen methods, with passwords masked.  Event-loop
// thread.
#pragma once
extern "C" {
#include <libubox/blobmsg.h>
}

// Writes one entry; nothing for null.  Every handler calls it with its request before it looks at it.
void log_ubus_msg(const blob_attr *msg);

// Masks password values in a JSON text of `length` characters, in place.
void mask_pass(char *text, int length);
