#include "kit/kit_contents.h"

#include <cstdio>
#include <cstring>

#include "appmodel/app_pool.h"
#include "core/handle.h"
#include "core/log.h"
#include "core/text.h"
#include "kit/kit_folders.h"
#include "kit/renumbering.h"

constinit char amKitVersion[50] = {};
constinit int amKitUpgradeType = 0;

namespace {

using am::memberPath;
using am::openMember;
using Path = am::MemberPath;
using Line = char[512];

}  // namespace

int amParseKitCompatibality() {
    Path path;
    memberPath(path, kKitTestDir, "compatibility.txt");
    if (!fileExists(path)) {
        printf("%s not present!!!, kit processing failed\n", path);
        (void)fflush(stdout);
        return 0;
    }
    const am::File file = openMember(path);
    if (!file) {
        amLog(AM_LOG_ERROR, "Error opening file %s", path);
        return 0;
    }
    const int32_t level = am::readLevel(file.get());
    if (level == qel_kit_compatability_version) return 1;
    amLog(AM_LOG_ERROR, "Kit not comaptible %d\n", level);
    return 0;
}

void amParseAppPoolCsvLine(char *line) {
    AmAppNode record{};
    const char *const name = am::parseIndexLine(line, record);
    if (strlen(name) > kAppNameSize) amLog(AM_LOG_NOTICE, "App name %s is too long, so truncating\n", name);
    if (!am::applicationsKeepNumbers) {
        AmAppNode *const known = amIsAppNameValid(record.name);
        if (known && known->state == AM_APP_OBSOLETE) known->appId = record.appId;
    }
    (void)amUpdateAppPool(&record);
}

int amParseAppPoolCsv() {
    Path path;
    memberPath(path, kKitInstallDir, "AppMon_Signature_Index.csv");
    if (!fileExists(path)) {
        amLog(AM_LOG_ERROR, "%s:%d file %s not found\n", __func__, __LINE__, path);
        return 0;
    }
    const am::File file = openMember(path);
    if (!file) {
        amLog(AM_LOG_ERROR, "Error opening file %s", path);
        return 0;
    }
    amAppPoolShmSigCnt = 0;
    Line line = {};
    if (!fgets(line, sizeof line, file.get())) return 1;
    while (fgets(line, sizeof line, file.get())) {
        amParseAppPoolCsvLine(line);
        memset(line, 0, sizeof line);
    }
    return 1;
}

int amParseKitVersion() {
    Path path;
    memberPath(path, kKitInstallDir, "version");
    if (!fileExists(path)) {
        amLog(AM_LOG_ERROR, "%s:%d file %s not found\n", __func__, __LINE__, path);
        return 0;
    }
    const int32_t held = am::decimal(amKitVersion);
    const am::File file = openMember(path);
    if (!file) {
        amLog(AM_LOG_ERROR, "Error opening Version file");
        return 0;
    }
    Line line = {};
    if (fgets(line, sizeof amKitVersion, file.get())) am::copyText(amKitVersion, line);
    amKitUpgradeType = am::decimal(amKitVersion) == held;
    amKitVersion[strcspn(amKitVersion, "\r\n")] = '\0';
    return 1;
}
