#include "kit/kit_contents.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "appmodel/app_pool.h"
#include "core/handle.h"
#include "core/log.h"
#include "core/text.h"
#include "kit/kit_folders.h"
#include "kit/renumbering.h"

constinit int32_t qel_kit_compatability_version = 1;
constinit char amKitVersion[50] = {};
constinit int amKitUpgradeType = 0;

namespace {

constexpr int kIndexFields = 7;

using Path = char[256];
using Line = char[512];

void memberPath(Path &out, const char *directory, const char *member) {
    snprintf(out, sizeof out, "%s/%s", directory, member);
}

// Null unless it is a regular file: opening a pipe would hold the event loop until somebody writes to it.
am::File openMember(const char *path) {
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) return nullptr;
    struct stat status {};
    FILE *file = nullptr;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) file = fdopen(descriptor, "r");
    if (!file) close(descriptor);
    return am::File(file);
}

// As atoi, but defined for every text: 0 when not numeric, the nearest number when there is no such int.
int32_t decimal(const char *text) {
    const long long number = strtoll(text, nullptr, 10);
    if (number > INT32_MAX) return INT32_MAX;
    return number < INT32_MIN ? INT32_MIN : static_cast<int32_t>(number);
}

int32_t levelIn(FILE *file) {
    Line line = {};
    return fgets(line, sizeof line, file) ? decimal(line) : 0;
}

}  // namespace

bool am::readKitLevel(const char *directory, int32_t &level) {
    Path path;
    memberPath(path, directory, "compatibility.txt");
    const File file = openMember(path);
    if (!file) return false;
    level = levelIn(file.get());
    return true;
}

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
    const int32_t level = levelIn(file.get());
    if (level == qel_kit_compatability_version) return 1;
    amLog(AM_LOG_ERROR, "Kit not comaptible %d\n", level);
    return 0;
}

const char *am::parseIndexLine(char *line, AmAppNode &app) {
    const char *name = "";
    char *rest = nullptr;
    int field = 0;
    for (char *token = strtok_r(line, ",", &rest); token && field < kIndexFields;
         token = strtok_r(nullptr, ",", &rest)) {
        field++;
        if (field == 1) {
            app.appId = static_cast<uint16_t>(strtoll(token, nullptr, 10));
        } else if (field == 2) {
            name = token;
            copyText(app.name, token);
        }
    }
    return name;
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

am::KitVersion am::readKitVersion(const char *directory) {
    Path path;
    memberPath(path, directory, "version");
    const File file = openMember(path);
    KitVersion version{};
    if (file && !fgets(version.text, sizeof version.text, file.get())) version.text[0] = '\0';
    version.text[strcspn(version.text, "\r\n")] = '\0';
    return version;
}

int amParseKitVersion() {
    Path path;
    memberPath(path, kKitInstallDir, "version");
    if (!fileExists(path)) {
        amLog(AM_LOG_ERROR, "%s:%d file %s not found\n", __func__, __LINE__, path);
        return 0;
    }
    const int32_t held = decimal(amKitVersion);
    const am::File file = openMember(path);
    if (!file) {
        amLog(AM_LOG_ERROR, "Error opening Version file");
        return 0;
    }
    Line line = {};
    if (fgets(line, sizeof amKitVersion, file.get())) am::copyText(amKitVersion, line);
    amKitUpgradeType = decimal(amKitVersion) == held;
    amKitVersion[strcspn(amKitVersion, "\r\n")] = '\0';
    return 1;
}
