// The replies of the fifteen methods.  The status of every request is 0; callers read the outcome from
// "success".  Without memory for the reply the request ends with UBUS_STATUS_UNKNOWN_ERROR and no reply,
// which is logged.
#pragma once
extern "C" {
#include <libubox/blobmsg.h>
}
#include <libubus.h>

// {"success", "result": {}, "error": {"errorCode", "errorMessage"}}, sent, completed and written to the
// request log.
void send_ubus_reply(ubus_request_data *req, bool success, int errorCode, const char *errorMessage);

inline void replySuccess(ubus_request_data *req) {
    send_ubus_reply(req, true, 0, "");
}
inline void replyFailure(ubus_request_data *req, const char *text) {
    send_ubus_reply(req, false, -1, text);
}

// The same with "result": {"fileCheckSum", "filename", "oldFilePresent", "oldFileCheckSum"}; always a
// success.
void send_stats_reply(ubus_request_data *req, const char *fileCheckSum, const char *filename,
                      bool oldFilePresent, const char *oldFileCheckSum);
