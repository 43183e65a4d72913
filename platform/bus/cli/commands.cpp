#include "commands.h"

#include <unistd.h>

#include <memory>
#include <set>
#include <string>

#include "libubox/blobmsg_json.h"

namespace bus {

namespace {

constexpr int kDefaultTimeout = 30;  // seconds

struct Free {
    void operator()(char *text) const { free(text); }
};
using Text = std::unique_ptr<char, Free>;

int secondsOr(int standard) {
    return options.timeoutSeconds < 0 ? standard : options.timeoutSeconds;
}

int millis(int seconds) {
    return seconds > 2000000 ? 2000000000 : seconds * 1000;
}

// ---- list

const char *argumentType(void *, blob_attr *attr) {
    if (blobmsg_type(attr) != BLOBMSG_TYPE_INT32) return nullptr;
    switch (blobmsg_get_u32(attr)) {
        case BLOBMSG_TYPE_ARRAY:
            return "\"Array\"";
        case BLOBMSG_TYPE_TABLE:
            return "\"Table\"";
        case BLOBMSG_TYPE_STRING:
            return "\"String\"";
        case BLOBMSG_TYPE_INT32:
            return "\"Integer\"";
        case BLOBMSG_TYPE_BOOL:
            return "\"Boolean\"";
        default:
            return "\"(unknown)\"";
    }
}

void printObject(ubus_context *, ubus_object_data *object, void *) {
    if (options.simple || !options.verbose) {
        printf("%s\n", object->path);
        return;
    }
    printf("'%s' @%08x\n", object->path, object->id);
    if (!object->signature) return;
    blob_attr *method;
    size_t rem;
    blob_for_each_attr(method, object->signature, rem) {
        const Text text(blobmsg_format_json_with_cb(method, false, argumentType, nullptr, -1));
        printf("\t%s\n", text ? text.get() : "");
    }
}

// ---- call

void printReply(ubus_request *, int, blob_attr *msg) {
    const Text text(blobmsg_format_json_indent(msg, true, options.simple ? -1 : 0));
    if (text) printf("%s\n", text.get());
}

// People see a plain status; a log that collects stderr of scripts gets the whole command.
int callFailed(const Arguments &args, int status) {
    if (options.simple || isatty(STDERR_FILENO)) return status;
    fprintf(stderr, "Command failed: ubus call %s %s%s%s (%s)\n", args.values[0], args.values[1],
            args.count > 2 ? " " : "", args.count > 2 ? args.values[2] : "", ubus_strerror(status));
    return -status;
}

// Fills buffer with the message of a command; false if the text is no JSON object.
bool readMessage(blob_buf *buffer, const Arguments &args, int index) {
    blob_buf_init(buffer, 0);
    return args.count <= index || blobmsg_add_json_from_string(buffer, args.values[index]);
}

// ---- events

void printEvent(ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg) {
    const Text text(blobmsg_format_json(msg, true));
    printf("{ \"%s\": %s }\n", type, text ? text.get() : "");
    fflush(stdout);
}

std::set<std::string> missing;  // what wait_for has not seen yet

void onObjectAdded(ubus_context *, ubus_event_handler *, const char *, blob_attr *msg) {
    static constexpr blobmsg_policy kPolicy[] = {{"path", BLOBMSG_TYPE_STRING}};
    blob_attr *path = nullptr;
    blobmsg_parse_attr(kPolicy, 1, &path, msg);
    if (path) missing.erase(blobmsg_get_string(path));
    if (missing.empty()) uloop_end();
}

void endLoop(uloop_timeout *) {
    uloop_end();
}

}  // namespace

void runLoop(ubus_context *ctx, int seconds) {
    uloop_timeout limit{};
    limit.cb = endLoop;
    if (seconds > 0) uloop_timeout_set(&limit, millis(seconds));
    ubus_add_uloop(ctx);
    if (!uloop_cancelled) uloop_run();  // a run forgets what came before it
    uloop_timeout_cancel(&limit);
}

int listCommand(ubus_context *ctx, const Arguments &args) {
    if (args.count > 1) return kUsage;
    return ubus_lookup(ctx, args.count ? args.values[0] : nullptr, printObject, nullptr);
}

int callCommand(ubus_context *ctx, const Arguments &args) {
    if (args.count < 2 || args.count > 3) return kUsage;
    blob_buf message{};
    int result;
    uint32_t id = 0;
    if (!readMessage(&message, args, 2)) {
        result = callFailed(args, UBUS_STATUS_PARSE_ERROR);
    } else if ((result = ubus_lookup_id(ctx, args.values[0], &id)) == UBUS_STATUS_OK) {
        result = ubus_invoke(ctx, id, args.values[1], message.head, printReply, nullptr,
                             millis(secondsOr(kDefaultTimeout)));
        if (result != UBUS_STATUS_OK) result = callFailed(args, result);
    }
    blob_buf_free(&message);
    return result;
}

int sendCommand(ubus_context *ctx, const Arguments &args) {
    if (args.count < 1 || args.count > 2) return kUsage;
    blob_buf message{};
    const int result = readMessage(&message, args, 1) ? ubus_send_event(ctx, args.values[0], message.head)
                                                      : UBUS_STATUS_PARSE_ERROR;
    blob_buf_free(&message);
    return result;
}

int listenCommand(ubus_context *ctx, const Arguments &args) {
    static ubus_event_handler handler{};
    handler.cb = printEvent;
    static char all[] = "*";
    static char *everything[] = {all};
    const Arguments patterns = args.count ? args : Arguments{1, everything};
    for (int i = 0; i < patterns.count; i++) {
        const int status = ubus_register_event_handler(ctx, &handler, patterns.values[i]);
        if (status == UBUS_STATUS_OK) continue;
        if (!options.simple)
            fprintf(stderr, "Error while registering for event '%s': %s\n", patterns.values[i],
                    ubus_strerror(status));
        return kSetupFailed;
    }
    runLoop(ctx, secondsOr(0));
    return 0;
}

int waitForCommand(ubus_context *ctx, const Arguments &args) {
    if (args.count < 1) return kUsage;
    static ubus_event_handler handler{};
    static uloop_timeout giveUp{};
    handler.cb = onObjectAdded;
    giveUp.cb = endLoop;
    missing.insert(args.values, args.values + args.count);
    // The event first: an object that comes between the two steps is then seen by one of them.
    const int status = ubus_register_event_handler(ctx, &handler, "ubus.object.add");
    if (status != UBUS_STATUS_OK) return status;
    for (int i = 0; i < args.count; i++) {
        uint32_t id;
        if (ubus_lookup_id(ctx, args.values[i], &id) == UBUS_STATUS_OK) missing.erase(args.values[i]);
    }
    if (missing.empty()) return 0;
    uloop_timeout_set(&giveUp, millis(secondsOr(kDefaultTimeout)));
    ubus_add_uloop(ctx);
    uloop_run();
    return missing.empty() ? 0 : UBUS_STATUS_TIMEOUT;
}

}  // namespace bus
