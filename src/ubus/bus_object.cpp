#include "ubus/bus_object.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "config/config_file.h"
#include "core/log.h"
#include "core/paths.h"
#include "flows/mirroring.h"
#include "ubus/methods.h"
#include "ubus/policies.h"

constinit ubus_context *ubus_ctx = nullptr;

namespace {

constexpr char kReloadEvent[] = "userconfig.reload";

// In the order in which the bus lists them.
const ubus_method dpi_methods[] = {
    UBUS_METHOD("CREATEavSignatureProfile", CREATEavSignatureProfile, am::kSignatureProfilePolicy),
    UBUS_METHOD("SETappMonClearConfig", SETappMonClearConfig, am::kClearConfigPolicy),
    UBUS_METHOD("SETappMonUpdateSignatureFile", SETappMonUpdateSignatureFile, am::kReloadSignFilePolicy),
    UBUS_METHOD("CREATEavAppGroup", CREATEavAppGroup, am::kGroupPolicy),
    UBUS_METHOD("CREATEavAppMonAppList", CREATEavAppMonAppList, am::kListPolicy),
    UBUS_METHOD("CREATEavDpiAppList", CREATEavDpiAppList, am::kListPolicy),
    UBUS_METHOD("SETappMonActivateAppList", SETappMonActivateAppList, am::kReloadSignFilePolicy),
    UBUS_METHOD("SETappMonAdminState", SETappMonAdminState, am::kAdminStatePolicy),
    UBUS_METHOD("SETavAppGroup", SETavAppGroup, am::kGroupPolicy),
    UBUS_METHOD("DELETEavAppGroup", DELETEavAppGroup, am::kGroupPolicy),
    UBUS_METHOD("SETavAppMonAppList", SETavAppMonAppList, am::kListPolicy),
    UBUS_METHOD("SETavDpiAppList", SETavDpiAppList, am::kListPolicy),
    UBUS_METHOD("GETavDpiStats", GETavDpiStats, am::kStatsPolicy),
    UBUS_METHOD("GETavAppMonStats", GETavAppMonStats, am::kStatsPolicy),
    UBUS_METHOD("SetavDebugSettings", SetavDebugSettings, am::kDebugPolicy),
};
static_assert(ARRAY_SIZE(dpi_methods) == 15);

ubus_object_type dpi_object_type = UBUS_OBJECT_TYPE("create", dpi_methods);
ubus_object dpi_object;
ubus_event_handler userconfig_event;
constinit bool starting = true;  // until the object has been added, or has not

// In place of the library's own handler, which ends the loop, and with it the daemon, when the end shows in
// the middle of a request.  The context stays: replies that are still to be sent fail on it, which is all
// that they do.
void onConnectionLost(ubus_context *ctx) {
    // While the object is being added the socket stays in the loop, which will find the end once more: off
    // it, the library would serve at once what is to wait.
    if (!starting) (void)uloop_fd_delete(&ctx->sock);
    static bool told = false;
    if (told) return;
    told = true;
    amLog(AM_LOG_ERROR, "%s:%d The bus is gone\n", "amConnectUbusSocket", __LINE__);
}

}  // namespace

void userconfig_reload_cb(ubus_context *, ubus_event_handler *, const char *type, blob_attr *) {
    if (strcmp(type, kReloadEvent) != 0) return;
    amNetLinkMirrorState(0);
    if (access(kConfigPath, F_OK) == 0) amParseConfigFromFile();
}

void amConnectUbusSocket(const char *path) {
    ubus_ctx = ubus_connect(path);
    if (!ubus_ctx) {
        fprintf(stderr, "Failed to connect to ubus\n");
        return;
    }
    ubus_ctx->connection_lost = onConnectionLost;
    // Before the first call: what comes in during a call waits for the loop then, and is else served right
    // after the call, before the rest of the daemon is there.
    (void)uloop_fd_add(&ubus_ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
    // The event handler first: once the object is seen, everything is in place.
    userconfig_event.cb = userconfig_reload_cb;
    (void)ubus_register_event_handler(ubus_ctx, &userconfig_event, kReloadEvent);

    dpi_object.name = "dpi";
    dpi_object.type = &dpi_object_type;
    dpi_object.methods = dpi_methods;
    dpi_object.n_methods = dpi_object_type.n_methods;
    const int result = ubus_add_object(ubus_ctx, &dpi_object);
    if (result != 0) fprintf(stderr, "Failed to add object: %s\n", ubus_strerror(result));
    starting = false;
}
