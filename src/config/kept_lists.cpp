// Groups and lists across an exchange of kits, by way of what the configuration file would hold.
#include <memory>

#include <cjson/cJSON.h>

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "config/config_file.h"
#include "core/handle.h"
#include "core/log.h"
#include "flows/kernel_side.h"

namespace am {

namespace {

using Json = std::unique_ptr<cJSON, Closer<cJSON_Delete>>;
constinit Json kept;

}  // namespace

void keepLists() {
    Json profile(cJSON_CreateObject());
    if (profile && cJSON_AddItemToObject(profile.get(), "avAppGroup", amWriteGroupConfig()) &&
        cJSON_AddItemToObject(profile.get(), "avAppMonAppList", amWriteMonitorConfig()) &&
        cJSON_AddItemToObject(profile.get(), "avDpiAppList", amWriteEnforcementConfig()))
        kept = std::move(profile);
    else
        amLog(AM_LOG_ERROR, "%s:%d no memory, groups and lists end with the kit\n", "amUpdateKit", __LINE__);
}

void restoreLists() {
    const Json profile = std::move(kept);
    if (!profile) return;
    amCleanAppGroup();
    amParseGroupConfig(profile.get());
    amParseAppListConfig(cJSON_GetObjectItem(profile.get(), "avAppMonAppList"), AM_LIST_MONITORING);
    amParseAppListConfig(cJSON_GetObjectItem(profile.get(), "avDpiAppList"), AM_LIST_ENFORCEMENT);
}

}  // namespace am
