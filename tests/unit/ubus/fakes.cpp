#include "unit/ubus/fakes.h"

#include <sys/stat.h>

#include "config/config_file.h"
#include "kit/kit_update.h"
#include "kit/transfer.h"
#include "kit/upload.h"
#include "netlink/sockets.h"
#include "records/debug_dump.h"
#include "ubus/reply.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

Fakes fakes;

constinit std::atomic<int> amAdminState{0};
constinit int32_t reloadSignFile = 0;
constinit AmMutex amUploadLock;
thread_mgr_slot thread_mgr[kUploadSlots];

namespace {

void note(const std::string &call) {
    fakes.calls.push_back(call);
}

}  // namespace

void amNetLinkMirrorState(int state) {
    note("mirror " + std::to_string(state));
    amAdminState = state;
}

void amWriteConfigToFile() {
    note("write config");
}

int dpiValidateKit() {
    note("validate");
    return fakes.validateResult;
}

int amcCheckKit() {
    note("check");
    return fakes.checkResult;
}

void amUpdateKit() {
    note("update");
}

void amCleanUpdateKit() {
    note("clean");
}

int kit_download(const char *username, const char *password, const char *url, const char *md5) {
    note(std::string("download ") + username + "|" + password + "|" + url + "|" + md5);
    return fakes.downloadResult;
}

int stop_upload_thread(int slot) {
    note("stop " + std::to_string(slot));
    return fakes.stopResult[slot];
}

void clearUploadArgs(int slot) {
    note("clear " + std::to_string(slot));
    const AmGuard guard(amUploadLock);
    memset(&thread_mgr[slot].args, 0, sizeof thread_mgr[slot].args);
}

int startUpload(int slot, const char *fileName) {
    const AmGuard guard(amUploadLock);
    const UploadArgs &args = thread_mgr[slot].args;
    note("start " + std::to_string(slot) + " " + fileName + " " + args.username + "|" + args.password + "|" +
         args.filePath);
    return fakes.startResult[slot];
}

void debugPrintAmEnfFlowDb() {
    note("dump flows");
}
void debugPrintFt4Queue() {
    note("dump ft4");
}
void debugPrintFt6Queue() {
    note("dump ft6");
}
void debugPrintFt6MonQueue() {
    note("dump mon6");
}
void debugPrintCounter() {
    note("dump counter");
}

void send_ubus_reply(ubus_request_data *, bool success, int errorCode, const char *errorMessage) {
    EXPECT_EQ(errorCode, success ? 0 : -1);
    note(success ? "reply ok" : std::string("reply ") + errorMessage);
    EXPECT_EQ(success, *errorMessage == '\0');
}

void send_stats_reply(ubus_request_data *, const char *fileCheckSum, const char *filename,
                      bool oldFilePresent, const char *oldFileCheckSum) {
    EXPECT_STREQ(fileCheckSum, "");
    EXPECT_STREQ(oldFileCheckSum, "");
    note(std::string("stats ") + filename + (oldFilePresent ? " old" : ""));
}

Message::Message(const char *json) : absent_(!json) {
    blob_buf_init(&buf_, 0);
    if (absent_) return;
    EXPECT_TRUE(blobmsg_add_json_from_string(&buf_, json)) << json;
}

void MethodTest::SetUp() {
    ModelTest::SetUp();
    (void)mkdir("/var/log", 0755);
    fakes = {};
    amAdminState = 0;
    reloadSignFile = 0;
    installKit({{"appA", 0}, {"appB", 1}, {"appC", 2}});
    log_.forget();
}

std::string MethodTest::call(Handler handler, const char *json) {
    Message message(json);
    return call(handler, message.get());
}

std::string MethodTest::call(Handler handler, blob_attr *message) {
    fakes.calls.clear();
    EXPECT_EQ(handler(nullptr, nullptr, nullptr, "method", message), 0);
    std::string all;
    int replies = 0;
    for (const std::string &one : fakes.calls) {
        all += (all.empty() ? "" : ", ") + one;
        if (one.rfind("reply", 0) == 0 || one.rfind("stats", 0) == 0) replies++;
    }
    EXPECT_GE(replies, 1) << "every request is answered";
    return all;
}
