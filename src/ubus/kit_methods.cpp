#include <cstring>

#include "config/config_file.h"
#include "core/log.h"
#include "core/text.h"
#include "flows/mirroring.h"
#include "kit/kit_state.h"
#include "kit/kit_update.h"
#include "kit/transfer.h"
#include "ubus/members.h"
#include "ubus/methods.h"
#include "ubus/policies.h"
#include "ubus/reply.h"
#include "ubus/request_log.h"

namespace {

// Where a kit is fetched from; an absent argument is an empty text.
struct KitRequest {
    char username[256];
    char password[256];
    char filePath[1024];
    char fileCheckSum[33];
};

template <size_t N>
void take(char (&field)[N], const char *text) {
    am::copyText(field, text ? text : "");
}

}  // namespace

int CREATEavSignatureProfile(ubus_context *, ubus_object *, ubus_request_data *req, const char *,
                             blob_attr *msg) {
    log_ubus_msg(msg);
    const auto arguments = am::textArguments(am::kSignatureProfilePolicy, msg);
    KitRequest kit;
    take(kit.username, arguments[am::kKitUser]);
    take(kit.password, arguments[am::kKitPassword]);
    take(kit.filePath, arguments[am::kKitPath]);
    take(kit.fileCheckSum, arguments[am::kKitCheckSum]);
    // Before the download, which holds the event loop as long as the server takes.
    replySuccess(req);

    if (kit_download(kit.username, kit.password, kit.filePath, kit.fileCheckSum) != 0)
        amLog(AM_LOG_ERROR, "%s:%d Failed to download the kit\n", __func__, __LINE__);
    else
        amLog(AM_LOG_DEBUG, "%s:%d Successfully downloaded the kit\n", __func__, __LINE__);
    explicit_bzero(&kit, sizeof kit);
    return 0;
}

int SETappMonUpdateSignatureFile(ubus_context *, ubus_object *, ubus_request_data *req, const char *,
                                 blob_attr *msg) {
    log_ubus_msg(msg);
    const auto arguments = am::textArguments(am::kReloadSignFilePolicy, msg);
    reloadSignFile = 0;
    if (!arguments[0] || strcmp(arguments[0], "force") != 0) {
        replySuccess(req);
        reloadSignFile = 1;
        return 0;
    }
    const bool mirroring = amAdminState.load(std::memory_order_relaxed) == 1;
    if (mirroring) amNetLinkMirrorState(0);
    am::kitState.tookMirroring = false;
    if (dpiValidateKit() != 1) {
        am::kitState.tookMirroring = mirroring;
        // Mirroring stays off: there may be no engine that fits what is on flash.
        replyFailure(req, "Kit Validation Failed!!!");
        return 0;
    }
    replySuccess(req);
    if (amcCheckKit() == 1)
        amUpdateKit();
    else
        amCleanUpdateKit();
    if (mirroring) amNetLinkMirrorState(1);
    reloadSignFile = 1;
    return 0;
}
