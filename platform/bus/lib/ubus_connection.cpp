#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "ubus_internal.h"

namespace bus {

blob_buf outgoing{};

namespace {

// Holds a typical message; what does not fit is read to its place directly.
constexpr size_t kReadAhead = 2048;

// A broker that breaks the framing cannot be understood any more.
void abandon(ubus_context *ctx) {
    ctx->sock.eof = true;
    shutdown(ctx->sock.fd, SHUT_RDWR);
}

// Reads once; 0 when there is nothing now or nothing any more.
size_t readSome(ubus_context *ctx, char *into, size_t room) {
    ssize_t got;
    do {
        // Without a control buffer: the kernel drops descriptors that come along.
        got = recv(ctx->sock.fd, into, room, 0);
    } while (got < 0 && errno == EINTR);
    if (got > 0) return static_cast<size_t>(got);
    if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) ctx->sock.eof = true;
    return 0;
}

bool refill(ubus_context *ctx) {
    if (!ctx->read_ahead && !(ctx->read_ahead = static_cast<char *>(malloc(kReadAhead)))) {
        abandon(ctx);
        return false;
    }
    memmove(ctx->read_ahead, ctx->read_ahead + ctx->read_pos, ctx->read_end - ctx->read_pos);
    ctx->read_end -= ctx->read_pos;
    ctx->read_pos = 0;
    const size_t got = readSome(ctx, ctx->read_ahead + ctx->read_end, kReadAhead - ctx->read_end);
    ctx->read_end += got;
    return got > 0;
}

// Room for the message whose header lies at bytes; null ends the connection.
ubus_received *begin(ubus_context *ctx, const char *bytes) {
    const auto *header = reinterpret_cast<const ubus_msghdr *>(bytes);
    const auto *outer = reinterpret_cast<const blob_attr *>(bytes + sizeof(ubus_msghdr));
    const size_t length = blob_raw_len(outer);
    ubus_received *message = nullptr;
    if (header->version == 0 && length >= sizeof(blob_attr) && blob_pad_len(outer) <= UBUS_MAX_MSGLEN)
        message = static_cast<ubus_received *>(
            malloc(sizeof(ubus_received) + sizeof(ubus_msghdr) + blob_pad_len(outer)));
    if (!message) {
        abandon(ctx);
        return nullptr;
    }
    message->total = sizeof(ubus_msghdr) + length;
    message->have = 0;
    return message;
}

void takeAhead(ubus_context *ctx, ubus_received *message) {
    const size_t missing = message->total - message->have;
    const size_t ahead = ctx->read_end - ctx->read_pos;
    const size_t count = ahead < missing ? ahead : missing;
    if (!count) return;
    memcpy(message->bytes + message->have, ctx->read_ahead + ctx->read_pos, count);
    message->have += count;
    ctx->read_pos += count;
}

// Sends all of it, waiting for room as long as that takes.
bool sendAll(int fd, iovec *parts, size_t count) {
    while (count) {
        msghdr request{};
        request.msg_iov = parts;
        request.msg_iovlen = count;
        const ssize_t sent = sendmsg(fd, &request, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
            pollfd room{fd, POLLOUT, 0};
            poll(&room, 1, -1);
            continue;
        }
        auto rest = static_cast<size_t>(sent);
        while (count && rest >= parts->iov_len) {
            rest -= parts->iov_len;
            parts++;
            count--;
        }
        if (!count) break;
        parts->iov_base = static_cast<char *>(parts->iov_base) + rest;
        parts->iov_len -= rest;
    }
    return true;
}

// Handles what is there: first what waited, then what comes.
void serve(ubus_context *ctx, bool mayRead) {
    do {
        if (!ctx->stack_depth && !list_empty(&ctx->pending)) {
            ubus_received *message = takeFirst(&ctx->pending);
            processInvoke(ctx, message);
            free(message);
            continue;
        }
        ubus_received *message = receive(ctx, mayRead);
        if (!message) return;
        dispatch(ctx, message);
    } while (!uloop_cancelling() && !ctx->cancel_poll);
    // What is left in memory makes the socket readable no more.
    uloop_timeout_set(&ctx->pending_timer, 1);
}

void onReadable(uloop_fd *sock, unsigned int) {
    auto *ctx = container_of(sock, ubus_context, sock);
    ctx->cancel_poll = false;
    serve(ctx, true);
    if (ctx->sock.eof) connectionEnded(ctx);
}

void onPendingTimer(uloop_timeout *timer) {
    auto *ctx = container_of(timer, ubus_context, pending_timer);
    ctx->cancel_poll = false;
    serve(ctx, false);
}

void endLoop(ubus_context *ctx) {
    // Where the loop saw the hang-up of a broker that vanished, it has removed the socket: then it runs on.
    if (ctx->sock.registered) uloop_end();
}

void dropReceived(ubus_context *ctx) {
    freeMessages(&ctx->pending);
    free(ctx->receiving);
    ctx->receiving = nullptr;
    ctx->read_pos = ctx->read_end = 0;
}

int openSocket(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(address.sun_path)) return -1;
    memcpy(address.sun_path, path, strlen(path));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int result;
    do {
        result = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    } while (result < 0 && errno == EINTR);
    if (result == 0) return fd;
    close(fd);
    return -1;
}

// Waits for the broker's first message; the socket still blocks.
bool greeted(ubus_context *ctx) {
    ubus_received *hello = nullptr;
    while (!hello && !ctx->sock.eof) hello = receive(ctx, true);
    if (!hello) return false;
    const bool good = hello->header()->type == UBUS_MSG_HELLO && hello->header()->peer != 0;
    ctx->local_id = hello->header()->peer;
    free(hello);
    return good;
}

int openConnection(ubus_context *ctx, const char *path) {
    if (ctx->sock.fd >= 0) {
        uloop_fd_delete(&ctx->sock);
        close(ctx->sock.fd);
    }
    dropReceived(ctx);
    ctx->sock.eof = ctx->sock.error = false;
    ctx->sock.fd = openSocket(path ? path : UBUS_UNIX_SOCKET);
    if (ctx->sock.fd < 0) return UBUS_STATUS_CONNECTION_FAILED;
    if (!greeted(ctx)) return UBUS_STATUS_UNKNOWN_ERROR;
    fcntl(ctx->sock.fd, F_SETFL, fcntl(ctx->sock.fd, F_GETFL, 0) | O_NONBLOCK);
    return UBUS_STATUS_OK;
}

}  // namespace

void freeMessages(list_head *messages) {
    ubus_received *message;
    ubus_received *next;
    list_for_each_entry_safe(message, next, messages, list) free(message);
    INIT_LIST_HEAD(messages);
}

ubus_received *receive(ubus_context *ctx, bool mayRead) {
    while (true) {
        if (!ctx->receiving && ctx->read_end - ctx->read_pos >= kMessageHeader) {
            ctx->receiving = begin(ctx, ctx->read_ahead + ctx->read_pos);
            if (!ctx->receiving) {
                ctx->read_pos = ctx->read_end = 0;
                return nullptr;
            }
        }
        if (ubus_received *message = ctx->receiving) {
            takeAhead(ctx, message);
            if (message->have == message->total) {
                memset(message->bytes + message->total, 0,
                       blob_pad_len(message->data()) - blob_raw_len(message->data()));
                ctx->receiving = nullptr;
                return message;
            }
            if (mayRead && message->total - message->have >= kReadAhead) {
                const size_t got =
                    readSome(ctx, message->bytes + message->have, message->total - message->have);
                message->have += got;
                if (!got) return nullptr;
                continue;
            }
        }
        if (!mayRead || !refill(ctx)) return nullptr;
    }
}

bool send(ubus_context *ctx, ubus_msg_type type, uint16_t seq, uint32_t peer) {
    ubus_msghdr header{0, static_cast<uint8_t>(type), cpu_to_be16(seq), cpu_to_be32(peer)};
    iovec parts[] = {{&header, sizeof(header)}, {outgoing.head, blob_raw_len(outgoing.head)}};
    if (sendAll(ctx->sock.fd, parts, ARRAY_SIZE(parts))) return true;
    ctx->sock.eof = true;
    return false;
}

void dispatch(ubus_context *ctx, ubus_received *message) {
    switch (message->header()->type) {
        case UBUS_MSG_STATUS:
        case UBUS_MSG_DATA:
            processAnswer(ctx, message);
            return;
        case UBUS_MSG_INVOKE:
            if (ctx->stack_depth) {
                list_add_tail(&message->list, &ctx->pending);
                return;
            }
            processInvoke(ctx, message);
            break;
        case UBUS_MSG_MONITOR:
            if (ctx->monitor_cb) ctx->monitor_cb(ctx, be16_to_cpu(message->header()->seq), message->data());
            break;
        default:
            break;
    }
    free(message);
}

void connectionEnded(ubus_context *ctx) {
    failRequests(ctx);
    if (ctx->connection_lost) ctx->connection_lost(ctx);
}

void servePending(ubus_context *ctx) {
    if (ctx->stack_depth || list_empty(&ctx->pending)) return;
    if (ctx->sock.registered)
        uloop_timeout_set(&ctx->pending_timer, 1);
    else
        serve(ctx, false);
}

bool putData(const blob_attr *msg) {
    return blob_put(&outgoing, UBUS_ATTR_DATA, msg ? blob_data(msg) : nullptr,
                    msg ? static_cast<unsigned int>(blob_len(msg)) : 0) != nullptr;
}

}  // namespace bus

int ubus_connect_ctx(ubus_context *ctx, const char *path) {
    memset(ctx, 0, sizeof(*ctx));
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->objects);
    INIT_LIST_HEAD(&ctx->pending);
    ctx->sock.fd = -1;
    ctx->sock.cb = bus::onReadable;
    ctx->pending_timer.cb = bus::onPendingTimer;
    ctx->connection_lost = bus::endLoop;
    if (uloop_init() == 0 && ubus_reconnect(ctx, path) == UBUS_STATUS_OK) return 0;
    ubus_shutdown(ctx);
    return -1;
}

ubus_context *ubus_connect(const char *path) {
    auto *ctx = static_cast<ubus_context *>(malloc(sizeof(ubus_context)));
    if (!ctx) return nullptr;
    if (ubus_connect_ctx(ctx, path) == 0) return ctx;
    free(ctx);
    return nullptr;
}

void ubus_shutdown(ubus_context *ctx) {
    if (!ctx) return;
    if (ctx->sock.fd >= 0) {
        uloop_fd_delete(&ctx->sock);
        close(ctx->sock.fd);
        ctx->sock.fd = -1;
    }
    uloop_timeout_cancel(&ctx->pending_timer);
    bus::dropReceived(ctx);
    free(ctx->read_ahead);
    ctx->read_ahead = nullptr;
}

void ubus_free(ubus_context *ctx) {
    ubus_shutdown(ctx);
    free(ctx);
}

int ubus_reconnect(ubus_context *ctx, const char *path) {
    const int status = bus::openConnection(ctx, path);
    if (status != UBUS_STATUS_OK) return status;
    list_head objects;
    INIT_LIST_HEAD(&objects);
    while (!list_empty(&ctx->objects)) {
        auto *object = list_first_entry(&ctx->objects, ubus_object, avl);
        list_del(&object->avl);
        list_add_tail(&object->avl, &objects);
        object->id = 0;
        if (object->type) object->type->id = 0;
    }
    while (!list_empty(&objects)) {
        auto *object = list_first_entry(&objects, ubus_object, avl);
        list_del(&object->avl);
        ubus_add_object(ctx, object);
    }
    return UBUS_STATUS_OK;
}

const char *ubus_strerror(int error) {
    static const char *const kTexts[] = {
        "Success",
        "Invalid command",
        "Invalid argument",
        "Method not found",
        "Not found",
        "No response",
        "Permission denied",
        "Request timed out",
        "Operation not supported",
        "Unknown error",
        "Connection failed",
        "Out of memory",
        "Parsing message data failed",
        "System error",
    };
    static_assert(ARRAY_SIZE(kTexts) == __UBUS_STATUS_LAST);
    if (error >= 0 && error < __UBUS_STATUS_LAST) return kTexts[error];
    static char unknown[32];
    snprintf(unknown, sizeof(unknown), "Unknown error: %d", error);
    return unknown;
}
