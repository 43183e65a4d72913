#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <time.h>

#include "ubus_internal.h"

namespace {

int64_t nowMillis() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void finish(ubus_request *req) {
    if (req->complete_cb) req->complete_cb(req, req->status_code);
}

void setStatus(ubus_request *req, int status) {
    if (!list_empty(&req->list)) list_del_init(&req->list);
    req->status_code = status;
    req->status_msg = true;
    if (!req->blocked) finish(req);
}

void callDataCallback(ubus_request *req, ubus_received *message) {
    if (req->raw_data_cb) {
        req->raw_data_cb(req, message->header()->type, message->data());
        return;
    }
    if (!req->data_cb) return;
    bus::MessageAttrs attrs;
    bus::parseMessage(message->data(), attrs);
    if (attrs[UBUS_ATTR_DATA]) req->data_cb(req, message->header()->type, attrs[UBUS_ATTR_DATA]);
}

// A callback may make calls of its own, during which more data or the status of this request may come: they
// wait until it returns.  It may also abort the request, and free it.
void deliverData(ubus_request *req, ubus_received *message) {
    if (req->blocked) {
        list_add_tail(&message->list, &req->pending);
        return;
    }
    bool cancelled = false;
    req->blocked = true;
    req->cancelled = &cancelled;
    while (true) {
        callDataCallback(req, message);
        free(message);
        if (cancelled) return;
        if (list_empty(&req->pending)) break;
        message = bus::takeFirst(&req->pending);
    }
    req->cancelled = nullptr;
    req->blocked = false;
    if (req->status_msg) finish(req);
}

ubus_request *findRequest(ubus_context *ctx, uint16_t seq, uint32_t peer) {
    ubus_request *req;
    list_for_each_entry(req, &ctx->requests, list) {
        if (req->seq == seq && req->peer == peer) return req;
    }
    return nullptr;
}

// Waits for bytes from the broker; false once the deadline (0 = none) has passed.
bool waitForInput(const ubus_context *ctx, int64_t deadline) {
    int wait = -1;
    if (deadline) {
        const int64_t left = deadline - nowMillis();
        if (left <= 0) return false;
        wait = left > INT_MAX ? INT_MAX : static_cast<int>(left);
    }
    pollfd input{ctx->sock.fd, POLLIN, 0};
    poll(&input, 1, wait);  // a signal only makes it look again
    return true;
}

struct Lookup {
    ubus_lookup_handler_t cb;
    void *priv;
};

void onLookupData(ubus_request *req, int, blob_attr *data) {
    const auto *lookup = static_cast<const Lookup *>(req->priv);
    bus::MessageAttrs attrs;
    bus::parseMessage(data, attrs);
    if (!attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_OBJPATH] || !attrs[UBUS_ATTR_OBJTYPE]) return;
    ubus_object_data object{};
    object.id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
    object.path = blob_get_string(attrs[UBUS_ATTR_OBJPATH]);
    object.type_id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]);
    object.signature = attrs[UBUS_ATTR_SIGNATURE];
    lookup->cb(req->ctx, &object, lookup->priv);
}

void onLookupId(ubus_request *req, int, blob_attr *data) {
    bus::MessageAttrs attrs;
    bus::parseMessage(data, attrs);
    if (attrs[UBUS_ATTR_OBJID]) *static_cast<uint32_t *>(req->priv) = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
}

int startLookup(ubus_context *ctx, ubus_request *req, const char *path) {
    blob_buf_init(&bus::outgoing, 0);
    if (path) blob_put_string(&bus::outgoing, UBUS_ATTR_OBJPATH, path);
    return bus::startRequest(ctx, req, UBUS_MSG_LOOKUP, 0);
}

int monitor(ubus_context *ctx, const char *method) {
    return ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_MONITOR, method, nullptr, nullptr, nullptr, 1000);
}

}  // namespace

namespace bus {

int startRequest(ubus_context *ctx, ubus_request *req, ubus_msg_type type, uint32_t peer) {
    memset(req, 0, sizeof(*req));
    INIT_LIST_HEAD(&req->list);
    INIT_LIST_HEAD(&req->pending);
    req->ctx = ctx;
    req->peer = peer;
    req->seq = ++ctx->request_seq;
    req->fd = -1;
    if (blob_pad_len(outgoing.head) > UBUS_MAX_MSGLEN) return UBUS_STATUS_INVALID_ARGUMENT;
    return send(ctx, type, req->seq, peer) ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_ARGUMENT;
}

void processAnswer(ubus_context *ctx, ubus_received *message) {
    const ubus_msghdr *header = message->header();
    ubus_request *req = findRequest(ctx, be16_to_cpu(header->seq), be32_to_cpu(header->peer));
    if (req && header->type == UBUS_MSG_DATA) {
        deliverData(req, message);
        return;
    }
    if (req) {
        bus::MessageAttrs attrs;
        parseMessage(message->data(), attrs);
        setStatus(req, attrs[UBUS_ATTR_STATUS] ? blob_get_int32(attrs[UBUS_ATTR_STATUS])
                                               : UBUS_STATUS_INVALID_ARGUMENT);
    }
    free(message);
}

void failRequests(ubus_context *ctx) {
    // Callbacks may start new requests: those are not of this connection's end.
    list_head ended;
    INIT_LIST_HEAD(&ended);
    while (!list_empty(&ctx->requests)) {
        list_head *node = ctx->requests.next;
        list_del(node);
        list_add_tail(node, &ended);
    }
    while (!list_empty(&ended)) {
        auto *req = list_first_entry(&ended, ubus_request, list);
        setStatus(req, req->waiting ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT);
    }
}

}  // namespace bus

int ubus_complete_request(ubus_context *ctx, ubus_request *req, int timeout) {
    const int64_t deadline = timeout ? nowMillis() + timeout : 0;
    ubus_complete_request_async(ctx, req);
    req->waiting = true;
    ctx->stack_depth++;
    while (!req->status_msg) {
        if (ubus_received *message = bus::receive(ctx, true)) {
            bus::dispatch(ctx, message);
        } else if (ctx->sock.eof) {
            bus::connectionEnded(ctx);
            if (!req->status_msg) setStatus(req, UBUS_STATUS_CONNECTION_FAILED);
        } else if (!waitForInput(ctx, deadline)) {
            setStatus(req, UBUS_STATUS_TIMEOUT);
        }
    }
    // The loop does not see what was read along with the answer.
    while (ubus_received *message = bus::receive(ctx, false)) bus::dispatch(ctx, message);
    ctx->stack_depth--;
    req->waiting = false;
    const int status = req->status_code;
    bus::servePending(ctx);
    return status;
}

void ubus_complete_request_async(ubus_context *ctx, ubus_request *req) {
    if (list_empty(&req->list) && !req->status_msg) list_add(&req->list, &ctx->requests);
}

void ubus_abort_request(ubus_context *, ubus_request *req) {
    bus::freeMessages(&req->pending);
    if (req->cancelled) *req->cancelled = true;
    if (!list_empty(&req->list)) list_del_init(&req->list);
}

int ubus_invoke_async(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg,
                      ubus_request *req) {
    blob_buf_init(&bus::outgoing, 0);
    blob_put_u32(&bus::outgoing, UBUS_ATTR_OBJID, obj);
    blob_put_string(&bus::outgoing, UBUS_ATTR_METHOD, method);
    if (!bus::putData(msg)) return UBUS_STATUS_INVALID_ARGUMENT;
    return bus::startRequest(ctx, req, UBUS_MSG_INVOKE, obj);
}

int ubus_invoke(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg, ubus_data_handler_t cb,
                void *priv, int timeout) {
    ubus_request req;
    const int status = ubus_invoke_async(ctx, obj, method, msg, &req);
    if (status != UBUS_STATUS_OK) return status;
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

int ubus_lookup(ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv) {
    ubus_request req;
    const int status = startLookup(ctx, &req, path);
    if (status != UBUS_STATUS_OK) return status;
    Lookup lookup{cb, priv};
    req.raw_data_cb = onLookupData;
    req.priv = &lookup;
    return ubus_complete_request(ctx, &req, 0);
}

int ubus_lookup_id(ubus_context *ctx, const char *path, uint32_t *id) {
    ubus_request req;
    int status = startLookup(ctx, &req, path);
    if (status != UBUS_STATUS_OK) return status;
    uint32_t found = 0;
    req.raw_data_cb = onLookupId;
    req.priv = &found;
    status = ubus_complete_request(ctx, &req, 0);
    if (status == UBUS_STATUS_OK && !found) status = UBUS_STATUS_NOT_FOUND;  // an object without a type
    if (status == UBUS_STATUS_OK) *id = found;
    return status;
}

int ubus_monitor_start(ubus_context *ctx) {
    return monitor(ctx, "add");
}

int ubus_monitor_stop(ubus_context *ctx) {
    return monitor(ctx, "remove");
}
