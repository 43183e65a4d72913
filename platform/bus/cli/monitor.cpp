#include <memory>

#include "commands.h"
#include "libubox/blobmsg_json.h"
#include "message_attrs.h"

namespace bus {

namespace {

constexpr const char *kTypeNames[__UBUS_MSG_LAST] = {
    "hello",      "status",        "data",      "ping",        "lookup", "invoke",
    "add_object", "remove_object", "subscribe", "unsubscribe", "notify", nullptr,
};

// Which attributes are shown, and as what.
struct Shown {
    const char *name;
    enum blobmsg_type type;
};

constexpr Shown kShown[UBUS_ATTR_MAX] = {
    {nullptr, BLOBMSG_TYPE_UNSPEC},     // UNSPEC
    {"status", BLOBMSG_TYPE_INT32},     // STATUS
    {"objpath", BLOBMSG_TYPE_STRING},   // OBJPATH
    {"objid", BLOBMSG_TYPE_INT32},      // OBJID
    {"method", BLOBMSG_TYPE_STRING},    // METHOD
    {"objtype", BLOBMSG_TYPE_INT32},    // OBJTYPE
    {"signature", BLOBMSG_TYPE_TABLE},  // SIGNATURE
    {"data", BLOBMSG_TYPE_TABLE},       // DATA
    {nullptr, BLOBMSG_TYPE_UNSPEC},     // TARGET
    {"active", BLOBMSG_TYPE_INT8},      // ACTIVE
    {"no_reply", BLOBMSG_TYPE_INT8},    // NO_REPLY
    {nullptr, BLOBMSG_TYPE_UNSPEC},     // SUBSCRIBERS
    {"user", BLOBMSG_TYPE_STRING},      // USER
    {"group", BLOBMSG_TYPE_STRING},     // GROUP
};

char *formatAttributes(blob_attr *data) {
    static blob_buf buffer{};
    MessageAttrs attrs;
    parseMessage(data, attrs);
    blob_buf_init(&buffer, 0);
    for (size_t i = 0; i < UBUS_ATTR_MAX; i++)
        if (attrs[i] && kShown[i].name)
            blobmsg_add_field(&buffer, kShown[i].type, kShown[i].name, blob_data(attrs[i]),
                              static_cast<unsigned int>(blob_len(attrs[i])));
    return blobmsg_format_json(buffer.head, true);
}

void printMessage(ubus_context *, uint32_t, blob_attr *data) {
    static constexpr blob_attr_info kInfo[UBUS_MONITOR_MAX] = {
        {BLOB_ATTR_INT32, 0, 0, nullptr},   // CLIENT
        {BLOB_ATTR_INT32, 0, 0, nullptr},   // PEER
        {BLOB_ATTR_INT8, 0, 0, nullptr},    // SEND
        {BLOB_ATTR_INT32, 0, 0, nullptr},   // SEQ
        {BLOB_ATTR_INT32, 0, 0, nullptr},   // TYPE
        {BLOB_ATTR_NESTED, 0, 0, nullptr},  // DATA
    };
    blob_attr *attrs[UBUS_MONITOR_MAX];
    if (blob_parse(data, attrs, kInfo, UBUS_MONITOR_MAX) != UBUS_MONITOR_MAX) return;
    const bool sent = blob_get_u8(attrs[UBUS_MONITOR_SEND]) != 0;
    const uint32_t type = blob_get_u32(attrs[UBUS_MONITOR_TYPE]);
    if (options.monitorDirection >= 0 && options.monitorDirection != static_cast<int>(sent)) return;
    if (options.monitorTypes && (type >= __UBUS_MSG_LAST || !(options.monitorTypes >> type & 1))) return;
    char number[16];
    snprintf(number, sizeof(number), "%u", type);
    const char *name = type < __UBUS_MSG_LAST ? kTypeNames[type] : nullptr;
    char *text = formatAttributes(attrs[UBUS_MONITOR_DATA]);
    printf("%s %08x #%08x %14s: %s\n", sent ? "->" : "<-", blob_get_u32(attrs[UBUS_MONITOR_CLIENT]),
           blob_get_u32(attrs[UBUS_MONITOR_PEER]), name ? name : number, text ? text : "");
    fflush(stdout);
    free(text);
}

}  // namespace

int messageTypeNumber(const char *name) {
    for (int i = 0; i < __UBUS_MSG_LAST; i++)
        if (kTypeNames[i] && strcmp(kTypeNames[i], name) == 0) return i;
    return -1;
}

int monitorCommand(ubus_context *ctx, const Arguments &args) {
    if (args.count) return kUsage;
    ctx->monitor_cb = printMessage;
    const int status = ubus_monitor_start(ctx);
    if (status != UBUS_STATUS_OK) return status;
    runLoop(ctx, 0);
    ubus_monitor_stop(ctx);
    return 0;
}

}  // namespace bus
