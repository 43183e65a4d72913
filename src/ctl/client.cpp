#include "ctl/client.h"

#include <libubus.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ctl/command_line.h"
#include "ctl/terminal.h"

namespace ctl {

namespace {

constexpr int kPatience = 300'000;  // ms: the installation of a kit holds the daemon for as long as it takes

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

void onReply(ubus_request *request, int, blob_attr *message) {
    static_cast<Reply *>(request->priv)->take(message);
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

int call(const char *object, const char *method, blob_attr *arguments, Reply &reply) {
    return ubus_invoke(bus, objectId(object), method, arguments, onReply, &reply, kPatience);
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
