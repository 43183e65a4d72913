#include <cstring>

#include "appmodel/app_lists.h"
#include "config/config_file.h"
#include "core/log.h"
#include "flows/mirroring.h"
#include "kit/kit_state.h"
#include "records/debug_dump.h"
#include "ubus/members.h"
#include "ubus/methods.h"
#include "ubus/policies.h"
#include "ubus/reply.h"
#include "ubus/request_log.h"

namespace {

bool is(const char *text, const char *value) {
    return strcmp(text, value) == 0;
}

// Absent leaves the flag as it is.
void setFlag(std::atomic<int> &flag, const char *text, bool on) {
    if (text) flag.store(on ? 1 : 0, std::memory_order_relaxed);
}

void printDb(const char *what) {
    const bool all = is(what, "yes");
    if (all) {
        debugPrintAppGrp();
        debugPrintEnfAppList();
        debugPrintMonAppList();
    }
    if (all || is(what, "flow")) {
        debugPrintAmEnfFlowDb();
        debugPrintFt4Queue();
        debugPrintFt6Queue();
    }
    if (all) debugPrintFt6MonQueue();
    if (all || is(what, "counter")) debugPrintCounter();
}

}  // namespace

int SETappMonAdminState(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    log_ubus_msg(msg);
    const auto arguments = am::textArguments(am::kAdminStatePolicy, msg);
    if (!arguments[0]) {
        replySuccess(req);
        return 0;
    }
    const int state = is(arguments[0], "disable") ? 0 : 1;
    am::kitState.tookMirroring = false;
    const int before = amAdminState.load(std::memory_order_relaxed);
    amNetLinkMirrorState(state);
    replySuccess(req);
    if (state != before) amWriteConfigToFile();
    return 0;
}

int SETappMonActivateAppList(ubus_context *, ubus_object *, ubus_request_data *req, const char *,
                             blob_attr *msg) {
    log_ubus_msg(msg);
    replySuccess(req);
    amWriteConfigToFile();
    return 0;
}

int SETappMonClearConfig(ubus_context *, ubus_object *, ubus_request_data *req, const char *,
                         blob_attr *msg) {
    log_ubus_msg(msg);
    const auto arguments = am::textArguments(am::kClearConfigPolicy, msg);
    if (arguments[0] && is(arguments[0], "yes")) {
        (void)amClearAppEnfList();
        (void)amClearAppMonList();
        amCleanAppGroup();
    }
    replySuccess(req);
    return 0;
}

int SetavDebugSettings(ubus_context *, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    log_ubus_msg(msg);
    const auto arguments = am::textArguments(am::kDebugPolicy, msg);
    const auto isEnable = [](const char *text) { return text && is(text, "enable"); };

    const char *packetLog = arguments[am::kPacketLog];
    setFlag(print_debug, packetLog, isEnable(packetLog) || (packetLog && is(packetLog, "packetDump")));
    setFlag(stats_debug, arguments[am::kStatsLog], isEnable(arguments[am::kStatsLog]));
    setFlag(flow_debug, arguments[am::kFlowLog], isEnable(arguments[am::kFlowLog]));
    // Before the level of the same request: it is the level so far that lets a dump through.
    if (arguments[am::kDebugPrintDb]) printDb(arguments[am::kDebugPrintDb]);
    const int level = arguments[am::kLogLevel] ? logLevelFromName(arguments[am::kLogLevel]) : -1;
    if (level >= 0) logLevel.store(level, std::memory_order_relaxed);

    replySuccess(req);
    return 0;
}
