#include "ctl/client.h"

#include <libubus.h>
#include <poll.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ctl/command_line.h"
#include "ctl/terminal.h"

namespace ctl {

namespace {

constexpr int kPatience = 300;    // s: the installation of a kit holds the daemon for as long as it takes
constexpr int kLookAgain = 1000;  // ms

ubus_context *bus = nullptr;

[[noreturn]] void end(Exit status, const char *what, const char *why) {
    (void)fflush(stdout);
    giveTerminalBack();
    fprintf(stderr, "korvidctl: %s%s%s\n", what, *why ? ": " : "", why);
    exit(status);
}

uint32_t objectId(const char *object) {
    uint32_t id = 0;
    const int status = ubus_lookup_id(bus, object, &id);
    if (status == UBUS_STATUS_NOT_FOUND)
        end(kNoDaemon, "korvid is not on the bus",
            "it does not run, or its access group does not let you see it");
    if (status != UBUS_STATUS_OK) end(kNoDaemon, "the bus does not answer", ubus_strerror(status));
    return id;
}

struct Call {
    Reply &reply;
    bool done = false;
    int status = UBUS_STATUS_TIMEOUT;
};

void onReply(ubus_request *request, int, blob_attr *message) {
    static_cast<Call *>(request->priv)->reply.take(message);
}

void onEnd(ubus_request *request, int status) {
    auto &call = *static_cast<Call *>(request->priv);
    call.done = true;
    call.status = status;
}

// The broker does not tell that who was asked has ended, so that is looked for.
void expectDaemon(const char *object, uint32_t id) {
    if (objectId(object) != id) end(kNoDaemon, "korvid has been restarted while it was asked", "");
}

}  // namespace

am::Member Fields::member(const char *name) const {
    am::Member member;
    for (am::Members members = members_; members.next(member);)
        if (strcmp(member.name, name) == 0) return member;
    return {"", am::Member::kNoType, nullptr};
}

const char *Fields::text(const char *name) const {
    const char *const text = member(name).text();
    return text ? text : "";
}

uint64_t Fields::number(const char *name) const {
    const am::Member found = member(name);
    switch (found.type) {
        case BLOBMSG_TYPE_INT8:
        case BLOBMSG_TYPE_INT16:
        case BLOBMSG_TYPE_INT32:
        case BLOBMSG_TYPE_INT64:
            return blobmsg_cast_u64(const_cast<blob_attr *>(found.attr));
        default:
            return 0;
    }
}

void Reply::take(const blob_attr *message) {
    (void)blob_buf_init(&copy_, 0);
    am::Member member;
    for (am::Members members = am::Members::ofMessage(message); members.next(member);)
        if (member.attr) (void)blobmsg_add_blob(&copy_, const_cast<blob_attr *>(member.attr));
}

void connectBus(const char *socket) {
    bus = ubus_connect(socket);
    if (!bus) end(kNoDaemon, "there is no bus", "ubusd does not run, or not at this socket (-s)");
}

void disconnectBus() {
    if (bus) ubus_free(bus);
    bus = nullptr;
}

namespace {

[[noreturn]] void endBy(int status, const char *method) {
    end(status == UBUS_STATUS_CONNECTION_FAILED ? kNoDaemon : kFailed, method, ubus_strerror(status));
}

// A ubus status.
int call(const char *object, const char *method, blob_attr *arguments, Reply &reply) {
    const uint32_t id = objectId(object);
    ubus_request request;
    const int status = ubus_invoke_async(bus, id, method, arguments, &request);
    if (status != UBUS_STATUS_OK) return status;
    Call call{reply};
    request.priv = &call;
    request.data_cb = onReply;
    request.complete_cb = onEnd;
    ubus_complete_request_async(bus, &request);
    for (int looks = 0; !call.done && looks < kPatience;) {
        pollfd input{bus->sock.fd, POLLIN, 0};
        const int ready = poll(&input, 1, kLookAgain);
        if (ready > 0) ubus_handle_event(bus);
        if (bus->sock.eof) break;
        if (ready != 0) continue;
        expectDaemon(object, id);
        looks++;
    }
    if (!call.done) ubus_abort_request(bus, &request);
    return bus->sock.eof && call.status != UBUS_STATUS_OK ? UBUS_STATUS_CONNECTION_FAILED : call.status;
}

}  // namespace

Found look(const char *method, blob_attr *arguments, Reply &reply) {
    switch (const int status = call("korvid", method, arguments, reply)) {
        case UBUS_STATUS_OK:
            return Found::yes;
        case UBUS_STATUS_NOT_FOUND:
            return Found::no;
        case UBUS_STATUS_INVALID_ARGUMENT:
            return Found::noQuestion;
        default:
            endBy(status, method);
    }
}

void ask(const char *method, blob_attr *arguments, Reply &reply) {
    const int status = call("korvid", method, arguments, reply);
    if (status != UBUS_STATUS_OK) endBy(status, method);
}

bool change(const char *method, blob_attr *arguments) {
    Reply reply;
    const int status = call("dpi", method, arguments, reply);
    if (status != UBUS_STATUS_OK) endBy(status, method);
    if (reply.fields().flag("success")) return true;
    fprintf(stderr, "korvidctl: the daemon refused: %s\n",
            reply.fields().table("error").text("errorMessage"));
    return false;
}

}  // namespace ctl
