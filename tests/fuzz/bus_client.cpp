// The client side of the bus: what a broker sends, split in two reads anywhere.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "fuzz.h"
extern "C" {
#include <libubox/blobmsg_json.h>
}
#include <libubus.h>

namespace {

constexpr uint32_t kObjectId = 0x1234;
constexpr size_t kLongestInput = 16384;  // fits into the socket's buffer

int brokerEnd = -1;

// Greeting, and the answers to the two requests that publish an object and an event handler.
const uint8_t kGreeting[] = {
    0, 0, 0, 0, 0, 0, 0x10, 0x01, 0, 0, 0, 4,  // HELLO
    0, 2, 0, 1, 0, 0, 0,    0,    0, 0, 0, 20, 3, 0, 0, 8, 0, 0, 0x12, 0x34,
    5, 0, 0, 8, 0, 0, 0x43, 0x21,                                          // DATA
    0, 1, 0, 1, 0, 0, 0,    0,    0, 0, 0, 12, 1, 0, 0, 8, 0, 0, 0,    0,  // STATUS
};

// Walks all of the message, as a handler that logs it does.
int echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg) {
    if (msg) {
        std::unique_ptr<char, decltype(&std::free)> text(blobmsg_format_json(msg, true), std::free);
        FUZZ_CHECK(text);
    }
    blob_buf reply{};
    blob_buf_init(&reply, 0);
    blobmsg_add_string(&reply, "method", method);
    ubus_send_reply(ctx, req, reply.head);
    blob_buf_free(&reply);
    return 0;
}

ubus_method methods[] = {{"echo", echo, 0, 0, nullptr, 0}, {nullptr, echo, 0, 0, nullptr, 0}};
ubus_object_type objectType{"echo", 0, methods, 2};

void drain() {
    char unused[4096];
    while (recv(brokerEnd, unused, sizeof(unused), MSG_DONTWAIT) > 0) continue;
}

}  // namespace

// The library connects to the other end of a socket pair.
extern "C" int connect(int fd, const sockaddr *, socklen_t) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return -1;
    dup2(ends[0], fd);
    close(ends[0]);
    brokerEnd = ends[1];
    return send(brokerEnd, kGreeting, sizeof(kGreeting), 0) == sizeof(kGreeting) ? 0 : -1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const uint8_t cut = fuzz::takeByte(data, size);
    size = std::min(size, kLongestInput);
    ubus_context *ctx = ubus_connect("/");
    FUZZ_CHECK(ctx);
    ctx->connection_lost = [](ubus_context *) {};
    ubus_object object{};
    object.name = "echo";
    object.type = &objectType;
    object.methods = methods;
    object.n_methods = 2;
    objectType.id = 0;
    FUZZ_CHECK(ubus_add_object(ctx, &object) == UBUS_STATUS_OK && object.id == kObjectId);

    const size_t first = size * cut / 255;
    for (const auto &[from, to] : {std::pair{size_t{0}, first}, std::pair{first, size}}) {
        if (from == to || ctx->sock.eof) continue;
        FUZZ_CHECK(send(brokerEnd, data + from, to - from, MSG_NOSIGNAL) == static_cast<ssize_t>(to - from));
        ubus_handle_event(ctx);
        drain();
    }
    ubus_free(ctx);
    close(brokerEnd);
    return 0;
}
