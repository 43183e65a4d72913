#include <unistd.h>

#include <cstring>

#include "core/text.h"
#include "kit/upload.h"
#include "records/enf_records.h"
#include "records/mon_records.h"
#include "ubus/members.h"
#include "ubus/methods.h"
#include "ubus/policies.h"
#include "ubus/reply.h"
#include "ubus/request_log.h"

namespace {

// A record file and the slot that uploads it.
struct ExportFile {
    UploadSlot slot;
    const char *path;
    const char *failure;

    const char *name() const { return strrchr(path, '/') + 1; }
};

struct ExportMethod {
    ExportFile current;
    ExportFile old;  // rotated; uploaded as well when it exists
};

constexpr ExportMethod kEnforcementExport{
    {kSlotEnf, kEnfRecords, "Failed to upload the enforcement stats file"},
    {kSlotEnfOld, kEnfRecordsOld, "Failed to upload the enforcement old stats file"}};
constexpr ExportMethod kMonitoringExport{
    {kSlotMon, kMonRecords, "Failed to upload appmon_monitor_flow_records.csv file"},
    {kSlotMonOld, kMonRecordsOld, "Failed to upload the app-records old stats file"}};

void fillSlot(UploadSlot slot, const am::TextArguments<3> &arguments) {
    const AmGuard guard(amUploadLock);
    UploadArgs &args = thread_mgr[slot].args;
    if (arguments[am::kStatsUser]) am::copyText(args.username, arguments[am::kStatsUser]);
    if (arguments[am::kStatsPassword]) am::copyText(args.password, arguments[am::kStatsPassword]);
    if (arguments[am::kStatsPath]) am::copyText(args.filePath, arguments[am::kStatsPath]);
}

// The request has been answered by now: the failure reply is for the request log.
void start(const ExportFile &file, ubus_request_data *req) {
    if (startUpload(file.slot, file.name()) != 0) replyFailure(req, file.failure);
}

int serve(const ExportMethod &method, ubus_request_data *req, const blob_attr *msg) {
    log_ubus_msg(msg);
    const bool oldPresent = access(method.old.path, F_OK) == 0;
    const bool stopped = stop_upload_thread(method.current.slot) == 0 &&
                         (!oldPresent || stop_upload_thread(method.old.slot) == 0);
    if (stopped) {
        clearUploadArgs(method.current.slot);
        clearUploadArgs(method.old.slot);
        const auto arguments = am::textArguments(am::kStatsPolicy, msg);
        fillSlot(method.current.slot, arguments);
        if (oldPresent) fillSlot(method.old.slot, arguments);
    }
    send_stats_reply(req, "", method.current.name(), oldPresent, "");
    if (!stopped) return 0;
    start(method.current, req);
    if (oldPresent) start(method.old, req);
    return 0;
}

}  // namespace

int GETavDpiStats(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    return serve(kEnforcementExport, req, msg);
}

int GETavAppMonStats(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    return serve(kMonitoringExport, req, msg);
}
