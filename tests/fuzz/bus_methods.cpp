// The fifteen methods of the daemon's bus object, each with any message.  The first byte chooses the method;
// the rest is what stands in the request's data.
extern "C" {
#include <libubox/blobmsg.h>
}
#include <libubus.h>
#include <sched.h>

#include <algorithm>

#include "flows/enf_flow_db.h"
#include "flows/flow_info.h"
#include "fuzz.h"
#include "kit/upload.h"
#include "records/enf_records.h"
#include "records/mon_records.h"
#include "records/verdict.h"
#include "ubus/methods.h"
#include "world.h"

namespace {

struct Method {
    ubus_handler_t handler;
    const char *name;
};
#define METHOD(name) \
    { name, #name }
// In the order of the bus object; corpus files count on it.
constexpr Method kMethods[] = {
    METHOD(CREATEavSignatureProfile),
    METHOD(SETappMonClearConfig),
    METHOD(SETappMonUpdateSignatureFile),
    METHOD(CREATEavAppGroup),
    METHOD(CREATEavAppMonAppList),
    METHOD(CREATEavDpiAppList),
    METHOD(SETappMonActivateAppList),
    METHOD(SETappMonAdminState),
    METHOD(SETavAppGroup),
    METHOD(DELETEavAppGroup),
    METHOD(SETavAppMonAppList),
    METHOD(SETavDpiAppList),
    METHOD(GETavDpiStats),
    METHOD(GETavAppMonStats),
    METHOD(SetavDebugSettings),
};
constexpr size_t kMethodCount = sizeof(kMethods) / sizeof(kMethods[0]);

int repliesSent, requestsCompleted;

// The request's data as the library hands it over: whole, zero bytes up to the next multiple of 4.
std::unique_ptr<uint8_t[]> makeMessage(const uint8_t *data, size_t size) {
    const size_t length = sizeof(blob_attr) + size;
    const size_t padded = (length + 3) & ~size_t{3};
    std::unique_ptr<uint8_t[]> bytes(new uint8_t[padded]());
    blob_attr head{cpu_to_be32(static_cast<uint32_t>(UBUS_ATTR_DATA << 24 | length))};
    std::memcpy(bytes.get(), &head, sizeof(head));
    if (size) std::memcpy(bytes.get() + sizeof(head), data, size);
    return bytes;
}

}  // namespace

// In place of the library's: what is sent must be a reply.
extern "C" int ubus_send_reply(ubus_context *, ubus_request_data *, blob_attr *message) {
    static const blobmsg_policy kReply[] = {
        {"success", BLOBMSG_TYPE_BOOL}, {"result", BLOBMSG_TYPE_TABLE}, {"error", BLOBMSG_TYPE_TABLE}};
    blob_attr *members[3];
    FUZZ_CHECK(blobmsg_parse(kReply, 3, members, blob_data(message),
                             static_cast<unsigned int>(blob_len(message))) == 0);
    FUZZ_CHECK(members[0] && members[1] && members[2]);
    repliesSent++;
    return 0;
}

extern "C" void ubus_complete_deferred_request(ubus_context *, ubus_request_data *, int status) {
    FUZZ_CHECK(status == 0);
    requestsCompleted++;
}

namespace {

void request(const Method &method, const uint8_t *data, size_t size) {
    const auto message = makeMessage(data, size);
    ubus_context context{};
    ubus_object object{};
    ubus_request_data request{};
    repliesSent = requestsCompleted = 0;
    FUZZ_CHECK(method.handler(&context, &object, &request, method.name,
                              reinterpret_cast<blob_attr *>(message.get())) == 0);
    FUZZ_CHECK(request.deferred && repliesSent == 1 && requestsCompleted == 1);
}

// Something for the dumps to show.
void makeFlows() {
    capture_flow_info info{};
    info.proto = IPPROTO_UDP;
    info.app_id = 2;
    amUpdateEnfFlowDb(&info);
    amUpdateEnfFlowDb6(&info);
    amUpdateMonFlow(&info);
    amUpdateMonFlow6(&info);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::makeWorld();
    // Record files, so that an export comes as far as the transfer.
    for (const char *path : {kEnfRecords, kEnfRecordsOld, kMonRecords})
        fuzz::writeFile(path, reinterpret_cast<const uint8_t *>("line\n"), 5);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    makeFlows();
    while (size >= 3) {
        const Method &method = kMethods[fuzz::takeByte(data, size) % kMethodCount];
        const size_t high = fuzz::takeByte(data, size);
        const size_t length = std::min(high << 8 | fuzz::takeByte(data, size), size);
        request(method, data, length);
        data += length;
        size -= length;
    }
    while (!uploadThreadsEnded()) sched_yield();
    fuzz::resetModel();
    return 0;
}
