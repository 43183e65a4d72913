// Replies, with a library whose builders fail as the system's do: none, or one that is whole.
#include "ubus/reply.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

extern "C" {
#include <libubox/blobmsg_json.h>
}

#include "unit/log_capture.h"

namespace {

int callsUntilFailure;
std::string sent;
std::vector<int> statuses;  // with which requests were completed

bool fails() {
    return --callsUntilFailure == 0;
}

template <class Function>
Function *original(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// In place of the library's.
int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data, unsigned len) {
    static auto *const next = original<decltype(blobmsg_add_field)>("blobmsg_add_field");
    return fails() ? -1 : next(buf, type, name, data, len);
}

void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array) {
    static auto *const next = original<decltype(blobmsg_open_nested)>("blobmsg_open_nested");
    return fails() ? nullptr : next(buf, name, array);
}

void blob_nest_end(blob_buf *buf, void *cookie) {
    static auto *const next = original<decltype(blob_nest_end)>("blob_nest_end");
    ASSERT_NE(cookie, nullptr) << "written through by the system's library";
    next(buf, cookie);
}

int ubus_send_reply(ubus_context *, ubus_request_data *, blob_attr *message) {
    char *const text = blobmsg_format_json(message, true);
    sent = text;
    free(text);
    return 0;
}

void ubus_complete_deferred_request(ubus_context *, ubus_request_data *, int status) {
    statuses.push_back(status);
}

TEST(Reply, IsWholeOrNotSentAtAll) {
    const LogCapture log(AM_LOG_ERROR);
    int failures = 0;
    do {
        callsUntilFailure = ++failures;
        sent.clear();
        statuses.clear();
        ubus_request_data request{};
        send_stats_reply(&request, "", "records.csv", true, "");
        EXPECT_TRUE(request.deferred);
        ASSERT_EQ(statuses.size(), 1U) << failures;
        EXPECT_EQ(sent.empty(), statuses[0] != 0) << failures;
    } while (sent.empty());
    EXPECT_GT(failures, 8);
    EXPECT_TRUE(log.has("no memory for a reply\n"));
    EXPECT_EQ(sent,
              R"({"success":true,"result":{"fileCheckSum":"","filename":"records.csv","oldFilePresent":true,)"
              R"("oldFileCheckSum":""},"error":{"errorCode":0,"errorMessage":""}})");
}
