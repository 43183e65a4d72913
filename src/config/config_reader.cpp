// Reads the configuration file and applies it.  Every member may be missing or of another type than expected.
#include <cstring>
#include <memory>

#include "appmodel/app_lists.h"
#include "config/config_file.h"
#include "config/config_members.h"
#include "config/file_before.h"
#include "core/handle.h"
#include "core/log.h"
#include "core/paths.h"
#include "flows/mirroring.h"
#include "kit/kit_update.h"
#include "kit/transfer.h"
#include "kit/verified_kit.h"

namespace {

using am::objectMember;
using am::textMember;
using Json = std::unique_ptr<cJSON, am::Closer<cJSON_Delete>>;

enum class AdminState { kNotGiven, kEnable, kOther };

AdminState adminState(const cJSON *profile) {
    const cJSON *const state = cJSON_GetObjectItem(objectMember(profile, "appMonAdminState"), "adminState");
    if (!state) return AdminState::kNotGiven;
    const char *const text = cJSON_GetStringValue(state);
    return text && strcmp(text, "enable") == 0 ? AdminState::kEnable : AdminState::kOther;
}

void installKitIfAsked(const cJSON *profile) {
    const cJSON *const update = objectMember(profile, "appMonUpdateSignatureFile");
    const char *const reload = textMember(update ? update : profile, "reloadSignFile");
    if (!reload || strcmp(reload, "force") != 0) return;
    reloadSignFile = 1;
    if (dpiValidateKit() != 1 && am::kitUnverified()) return;
    if (amcCheckKit() == 1)
        amUpdateKit();
    else
        amCleanUpdateKit();
}

// False when the load has to stop here.
bool applyProfile(const cJSON *profile, int &mirroring) {
    amParseSignatureProfile(profile);
    switch (adminState(profile)) {
        case AdminState::kOther:
            return false;
        case AdminState::kEnable:
            mirroring = 1;
            break;
        case AdminState::kNotGiven:
            break;
    }
    installKitIfAsked(profile);
    amCleanAppGroup();
    amParseGroupConfig(profile);
    amParseAppListConfig(objectMember(profile, "avAppMonAppList"), AM_LIST_MONITORING);
    amParseAppListConfig(objectMember(profile, "avDpiAppList"), AM_LIST_ENFORCEMENT);
    amNetLinkMirrorState(mirroring);
    return true;
}

}  // namespace

void amParseSignatureProfile(const cJSON *profile) {
    const cJSON *const request = objectMember(profile, "avSignatureProfile");
    const char *const filePath = textMember(request, "filePath");
    const char *const username = textMember(request, "username");
    const char *const password = textMember(request, "password");
    if (!request) {
        amLog(AM_LOG_DEBUG, "%s:%d avSignatureProfile received is NULL\n", __func__, __LINE__);
        return;
    }
    if (!filePath) {
        amLog(AM_LOG_DEBUG, "%s:%d Filepath receivced is NULL\n", __func__, __LINE__);
        return;
    }
    if (!username) {
        amLog(AM_LOG_DEBUG, "%s:%d Username receivced is NULL\n", __func__, __LINE__);
        return;
    }
    if (!password) {
        amLog(AM_LOG_DEBUG, "%s:%d Password receivced is NULL\n", __func__, __LINE__);
        return;
    }

    // Without a check sum, which null stands for too, nothing is compared; one that is no text matches
    // nothing.
    const cJSON *const sum = cJSON_GetObjectItem(request, "fileCheckSum");
    const char *const sumText = cJSON_GetStringValue(sum);
    if (kit_download(username, password, filePath, sum && !cJSON_IsNull(sum) && !sumText ? "" : sumText) != 0)
        amLog(AM_LOG_ERROR, "%s:%d Failed to download the kit\n", __func__, __LINE__);
    else
        amLog(AM_LOG_DEBUG, "%s:%d Successfully downloaded the kit\n", __func__, __LINE__);
}

void amParseConfigFromFile() {
    const am::CText text = am::readConfigFile(kConfigPath);
    if (!text) return;
    const Json root(cJSON_Parse(text.get()));
    const cJSON *const profiles = cJSON_GetObjectItem(root.get(), "ApplicationVisbilityProfile");
    if (!cJSON_IsArray(profiles)) return;

    int mirroring = 0;
    for (const cJSON *profile = profiles->child; profile; profile = profile->next)
        if (cJSON_IsObject(profile) && !applyProfile(profile, mirroring)) break;
    am::noteConfigInFile();
}
