#include "show/korvid_object.h"

#include "core/log.h"
#include "show/health.h"
#include "show/methods.h"
#include "ubus/bus_object.h"

namespace {

// Kept between replies, so that a reply allocates nothing once the buffer has grown.
blob_buf buffer;

template <int (*fill)(am::Answer &answer, const blob_attr *message)>
int serve(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *message) {
    am::Answer answer(buffer);
    const int status = fill(answer, message);
    if (status != UBUS_STATUS_OK) return status;
    if (!answer.whole()) {
        amLog(AM_LOG_ERROR, "%s:%d no memory for a reply\n", "korvid", __LINE__);
        return UBUS_STATUS_UNKNOWN_ERROR;
    }
    return ubus_send_reply(ctx, req, answer.message());
}

constexpr blobmsg_policy kAppsPolicy[] = {
    {"list", BLOBMSG_TYPE_STRING}, {"name", BLOBMSG_TYPE_STRING},  {"sort", BLOBMSG_TYPE_STRING},
    {"limit", BLOBMSG_TYPE_INT32}, {"offset", BLOBMSG_TYPE_INT32},
};
constexpr blobmsg_policy kGroupsPolicy[] = {
    {"name", BLOBMSG_TYPE_STRING}, {"limit", BLOBMSG_TYPE_INT32}, {"offset", BLOBMSG_TYPE_INT32}};
constexpr blobmsg_policy kFlowsPolicy[] = {
    {"application", BLOBMSG_TYPE_STRING},
    {"address", BLOBMSG_TYPE_STRING},
    {"limit", BLOBMSG_TYPE_INT32},
    {"cursor", BLOBMSG_TYPE_STRING},
};
constexpr blobmsg_policy kExplainPolicy[] = {
    {"protocol", BLOBMSG_TYPE_STRING},        {"source", BLOBMSG_TYPE_STRING},
    {"source_port", BLOBMSG_TYPE_INT32},      {"destination", BLOBMSG_TYPE_STRING},
    {"destination_port", BLOBMSG_TYPE_INT32}, {"application", BLOBMSG_TYPE_STRING},
};

const ubus_method methods[] = {
    UBUS_METHOD_NOARG("status", serve<am::answerStatus>),
    UBUS_METHOD_NOARG("counters", serve<am::answerCounters>),
    UBUS_METHOD("apps", serve<am::answerApps>, kAppsPolicy),
    UBUS_METHOD("groups", serve<am::answerGroups>, kGroupsPolicy),
    UBUS_METHOD("flows", serve<am::answerFlows>, kFlowsPolicy),
    UBUS_METHOD("explain", serve<am::answerExplain>, kExplainPolicy),
};

constexpr int kPublishAfter = 50;  // milliseconds

ubus_object_type objectType = UBUS_OBJECT_TYPE("korvid", methods);
ubus_object object;

void publish(uloop_timeout *) {
    if (!ubus_ctx) return;
    object.name = "korvid";
    object.type = &objectType;
    object.methods = methods;
    object.n_methods = objectType.n_methods;
    const int result = ubus_add_object(ubus_ctx, &object);
    if (result != UBUS_STATUS_OK)
        amLog(AM_LOG_ERROR, "%s:%d the bus object korvid cannot be added: %s\n", "amPublishKorvidObject",
              __LINE__, ubus_strerror(result));
}

uloop_timeout timer{.list = {}, .pending = false, .cb = publish, .time = {}};

}  // namespace

void amPublishKorvidObject() {
    am::startUptime();
    // Not while the first requests to dpi come in: the broker answers one thing after the other.
    (void)uloop_timeout_set(&timer, kPublishAfter);
    am::watchLosses();
}
