// The daemon on the system message bus: the object "dpi" with its fifteen methods, and the event
// userconfig.reload. Everything here runs on the event-loop thread.
#pragma once
extern "C" {
#include <libubox/blobmsg.h>
}
#include <libubus.h>

// Null: there was no bus at start-up.  It stays when the bus goes away later: calls on it fail.
extern ubus_context *ubus_ctx;

// Connects to the bus at `path` (null: the library's default), listens for userconfig.reload, and publishes
// the object.  Requests and events that come meanwhile are served by the loop.  Without a bus, and when it
// goes away, which is logged once, the daemon runs on; there is no retry.
void amConnectUbusSocket(const char *path);

void userconfig_reload_cb(ubus_context *ctx, ubus_event_handler *handler, const char *type,
                          blob_attr *message);
