// Reads the configuration file and applies it.  Every member may be missing or of another type than expected.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "appmodel/app_lists.h"
#include "config/config_file.h"
#include "config/config_members.h"
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

// Far above what every application of a kit on both lists and in a group takes; parsing needs many times the
// file's size.
constexpr off_t kLargestFile = off_t{32} << 20;

// Reads the whole of a file of that size; fewer bytes when it has shrunk meanwhile.  A zero ends them.
am::CText readText(int fd, size_t size) {
    am::CText text(static_cast<char *>(malloc(size + 1)));
    if (!text) return nullptr;
    size_t length = 0;
    while (length < size) {
        const ssize_t got = read(fd, text.get() + length, size - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return nullptr;
        if (got == 0) break;
        length += static_cast<size_t>(got);
    }
    text.get()[length] = '\0';
    return text;
}

am::CText readFile(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // not to wait for the writer of a pipe
    if (fd < 0) return nullptr;
    struct stat file;
    am::CText text;
    if (fstat(fd, &file) == 0 && S_ISREG(file.st_mode)) {
        if (file.st_size <= kLargestFile)
            text = readText(fd, static_cast<size_t>(file.st_size));
        else
            amLog(AM_LOG_ERROR, "%s:%d %s is too large: %" PRId64 " bytes\n", "amParseConfigFromFile",
                  __LINE__, path, static_cast<int64_t>(file.st_size));
    }
    (void)close(fd);
    return text;
}

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
    const am::CText text = readFile(kConfigPath);
    if (!text) return;
    const Json root(cJSON_Parse(text.get()));
    const cJSON *const profiles = cJSON_GetObjectItem(root.get(), "ApplicationVisbilityProfile");
    if (!cJSON_IsArray(profiles)) return;

    int mirroring = 0;
    for (const cJSON *profile = profiles->child; profile; profile = profile->next)
        if (cJSON_IsObject(profile) && !applyProfile(profile, mirroring)) break;
    am::noteConfigInFile();
}
