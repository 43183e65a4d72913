// Client of the message bus: publishing objects, calling those of others, events.
//
//   ubus_connect -> ubus_add_uloop -> ubus_add_object, ubus_register_event_handler -> uloop_run -> ubus_free
//
// All belongs to the thread that runs the event loop.  Functions that return int give a UBUS_STATUS number
// unless stated otherwise.  While a synchronous call waits, incoming calls and events are kept and handled
// once no call and no handler is active any more; signals do not interrupt it.
//
// When the broker goes away, connection_lost is called, perhaps more than once: from the loop, or at the end
// of what was being done when a read or a call met the end.  Its default ends the loop in the latter case
// only, as the loop takes a hang-up off by itself; a program that has to run on, or to end, sets its own.
#pragma once

// NOLINTBEGIN(modernize-use-nullptr,bugprone-macro-parentheses): also read by C; braced initialisers may be
// arguments

#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <stdint.h>
#include <string.h>

#include "ubus_common.h"
#include "ubusmsg.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct ubus_context;
struct ubus_event_handler;
struct ubus_object;
struct ubus_object_data;
struct ubus_received;
struct ubus_request;
struct ubus_request_data;

typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv);
// The result becomes the status of the call, unless the request was deferred.  msg lives until it returns.
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
                              struct ubus_request_data *req, const char *method, struct blob_attr *msg);
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev,
                                     const char *type, struct blob_attr *msg);
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);
typedef void (*ubus_connect_handler_t)(struct ubus_context *ctx);

#define UBUS_OBJECT_TYPE(_name, _methods) \
    { .name = _name, .id = 0, .methods = _methods, .n_methods = ARRAY_SIZE(_methods) }

#define UBUS_METHOD_FIELDS(_name, _handler, _mask, _tags, _policy, _n_policy)                \
    {                                                                                        \
        .name = _name, .handler = _handler, .mask = _mask, .tags = _tags, .policy = _policy, \
        .n_policy = _n_policy                                                                \
    }

#define UBUS_METHOD(_name, _handler, _policy) \
    UBUS_METHOD_FIELDS(_name, _handler, 0, 0, _policy, ARRAY_SIZE(_policy))
#define UBUS_METHOD_TAG(_name, _handler, _policy, _tags) \
    UBUS_METHOD_FIELDS(_name, _handler, 0, _tags, _policy, ARRAY_SIZE(_policy))
#define UBUS_METHOD_MASK(_name, _handler, _policy, _mask) \
    UBUS_METHOD_FIELDS(_name, _handler, _mask, 0, _policy, ARRAY_SIZE(_policy))
#define UBUS_METHOD_NOARG(_name, _handler) UBUS_METHOD_FIELDS(_name, _handler, 0, 0, NULL, 0)
#define UBUS_METHOD_TAG_NOARG(_name, _handler, _tags) UBUS_METHOD_FIELDS(_name, _handler, 0, _tags, NULL, 0)

// Never sent: for the provider's own use.
#define UBUS_TAG_STATUS (1UL << 0)
#define UBUS_TAG_ADMIN (1UL << 1)
#define UBUS_TAG_PRIVATE (1UL << 2)

struct ubus_method {
    const char *name;  // null takes every method
    ubus_handler_t handler;
    unsigned long mask;  // non-zero: only policy entries with their bit set are published
    unsigned long tags;
    const struct blobmsg_policy *policy;
    int n_policy;
};

struct ubus_object_type {
    const char *name;
    uint32_t id;  // given by the broker; start with 0
    const struct ubus_method *methods;
    int n_methods;
};

// The caller zeroes it and fills name, type, methods and n_methods; it must stay in place while registered.
struct ubus_object {
    struct list_head avl;  // in the context's objects
    const char *name;
    uint32_t id;  // given by the broker, 0 = not registered
    const char *path;
    struct ubus_object_type *type;
    ubus_state_handler_t subscribe_cb;
    bool has_subscribers;
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_event_handler {
    struct ubus_object obj;
    ubus_event_handler_t cb;
};

struct ubus_context {
    struct list_head requests;  // that wait for an answer
    struct list_head objects;
    struct list_head pending;  // calls and events that came during a call

    struct uloop_fd sock;
    struct uloop_timeout pending_timer;

    uint32_t local_id;  // of this client, as received (network byte order)
    uint16_t request_seq;
    bool cancel_poll;
    int stack_depth;  // handlers and synchronous calls that are active

    ubus_connect_handler_t connection_lost;
    void (*monitor_cb)(struct ubus_context *ctx, uint32_t seq, struct blob_attr *data);

    struct ubus_received *receiving;  // incomplete message
    char *read_ahead;
    size_t read_pos;
    size_t read_end;
};

struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature;  // null without one
};

struct ubus_acl_key {
    const char *user;
    const char *group;
    const char *object;
};

struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;
    struct ubus_acl_key acl;  // names of the caller, null when the broker sent none
    bool deferred;
    int fd;
    int req_fd;
};

struct ubus_request {
    struct list_head list;
    struct list_head pending;  // data that came while its callback was running
    int status_code;
    bool status_msg;  // status_code is final
    bool blocked;     // a callback of this request is running
    bool waiting;     // in ubus_complete_request
    bool notify;
    bool *cancelled;  // set when the request is aborted in its own callback

    uint32_t peer;
    uint16_t seq;

    ubus_data_handler_t raw_data_cb;
    ubus_data_handler_t data_cb;
    ubus_complete_handler_t complete_cb;

    int fd;
    struct ubus_context *ctx;
    void *priv;
};

// ---- connection

// A null path means the default socket.  Waits for the broker's greeting; calls uloop_init.  Null on failure.
struct ubus_context *ubus_connect(const char *path);
// Null is allowed.
void ubus_free(struct ubus_context *ctx);
// The same for a context of the caller's: 0 or -1.
int ubus_connect_ctx(struct ubus_context *ctx, const char *path);
void ubus_shutdown(struct ubus_context *ctx);
// Registers all objects again, under new ids; event patterns are gone, and the socket is not in the loop.
int ubus_reconnect(struct ubus_context *ctx, const char *path);

static inline void ubus_add_uloop(struct ubus_context *ctx) {
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

// For other loops: the socket is readable.
static inline void ubus_handle_event(struct ubus_context *ctx) {
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

// Never null; a number without a text shares one static buffer.
const char *ubus_strerror(int error);

// ---- serving

// Without name and type an anonymous object, which nobody can look up.
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);

// Any number of replies per call; msg is not changed.  The broker drops a provider that replies more than 1
// MiB.
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);

// The handler's result is ignored; the call ends with ubus_complete_deferred_request on the copy.
static inline void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                      struct ubus_request_data *new_req) {
    (void)ctx;
    *new_req = *req;
    req->deferred = true;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret);

// ---- events

// A trailing * makes the pattern a prefix.  The same ev may take several patterns.
int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern);
int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);

static inline int ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev) {
    return ubus_remove_object(ctx, &ev->obj);
}

// ---- calling

// cb once per object; a null path finds all, a trailing * makes it a prefix.
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

// cb once per reply; a null msg is an empty one; timeout in milliseconds, 0 waits for ever.
int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                ubus_data_handler_t cb, void *priv, int timeout);
// Sends.  Then fill the callbacks of req, and complete it one way or the other.
int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                      struct ubus_request *req);
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout);
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req);
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req);

// Copies of all messages through the broker come to ctx->monitor_cb.
int ubus_monitor_start(struct ubus_context *ctx);
int ubus_monitor_stop(struct ubus_context *ctx);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
// NOLINTEND(modernize-use-nullptr,bugprone-macro-parentheses)
