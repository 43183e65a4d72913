#include "ubus/reply.h"

#include "core/log.h"
#include "ubus/bus_object.h"
#include "ubus/request_log.h"

namespace {

// Kept between replies, so that a reply allocates nothing once the buffers have grown.
blob_buf commonReply, statsReply;

// False without memory: half a reply could be taken for a whole one.
template <class FillResult>
bool build(blob_buf &reply, bool success, int errorCode, const char *errorMessage, FillResult fillResult) {
    if (blob_buf_init(&reply, 0) != 0 || blobmsg_add_u8(&reply, "success", success ? 1 : 0) != 0)
        return false;
    void *const result = blobmsg_open_nested(&reply, "result", false);
    if (!result || !fillResult(&reply)) return false;
    blob_nest_end(&reply, result);
    void *const error = blobmsg_open_nested(&reply, "error", false);
    if (!error || blobmsg_add_u32(&reply, "errorCode", static_cast<uint32_t>(errorCode)) != 0 ||
        blobmsg_add_string(&reply, "errorMessage", errorMessage) != 0)
        return false;
    blob_nest_end(&reply, error);
    return true;
}

template <class FillResult>
void sendReply(blob_buf &reply, ubus_request_data *req, bool success, int errorCode, const char *errorMessage,
               FillResult fillResult) {
    // Deferred, so that the library sends no status of its own when the handler returns.
    ubus_request_data deferred{};
    ubus_defer_request(ubus_ctx, req, &deferred);

    if (!build(reply, success, errorCode, errorMessage, fillResult)) {
        amLog(AM_LOG_ERROR, "%s:%d no memory for a reply\n", __func__, __LINE__);
        ubus_complete_deferred_request(ubus_ctx, &deferred, UBUS_STATUS_UNKNOWN_ERROR);
        return;
    }
    (void)ubus_send_reply(ubus_ctx, &deferred, reply.head);
    ubus_complete_deferred_request(ubus_ctx, &deferred, 0);
    log_ubus_msg(reply.head);
}

}  // namespace

void send_ubus_reply(ubus_request_data *req, bool success, int errorCode, const char *errorMessage) {
    sendReply(commonReply, req, success, errorCode, errorMessage, [](blob_buf *) { return true; });
}

void send_stats_reply(ubus_request_data *req, const char *fileCheckSum, const char *filename,
                      bool oldFilePresent, const char *oldFileCheckSum) {
    sendReply(statsReply, req, true, 0, "", [&](blob_buf *result) {
        return blobmsg_add_string(result, "fileCheckSum", fileCheckSum) == 0 &&
               blobmsg_add_string(result, "filename", filename) == 0 &&
               blobmsg_add_u8(result, "oldFilePresent", oldFilePresent ? 1 : 0) == 0 &&
               blobmsg_add_string(result, "oldFileCheckSum", oldFileCheckSum) == 0;
    });
}
