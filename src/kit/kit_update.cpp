#include "kit/kit_update.h"

#include <sys/stat.h>
#include <sys/vfs.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "core/handle.h"
#include "core/log.h"
#include "core/paths.h"
#include "kit/engine.h"
#include "kit/kit_contents.h"
#include "kit/kit_folders.h"
#include "kit/kit_state.h"
#include "kit/md5.h"
#include "kit/renumbering.h"
#include "kit/shell.h"
#include "kit/verified_kit.h"

constinit uint8_t CurMd5Sum[16] = {};

namespace {

constexpr char kStagedName[] = "HAppSig.upgrade_kit_new";
constexpr char kFactoryDir[] = "/usr/local/share/system/zor/app_mon";

using Command = char[512];

// Looks a file up for the step that needs it.
bool examine(const char *path, struct stat &status, const char *op, int line) {
    if (stat(path, &status) == 0) return true;
    amLog(AM_LOG_ERROR, "%s:%d file %s not found\n", op, line, path);
    return false;
}

}  // namespace

int amIsUpgradeKitPresent() {
    return fileExists(kKitPath);
}

uint64_t amGetFreeFlashSpace(const char *path) {
    struct statfs space {};
    if (statfs(path, &space) != 0) {
        amLog(AM_LOG_ERROR, "%s:%d Path %s not found\n", __func__, __LINE__, path);
        return 0;
    }
    amLog(AM_LOG_DEBUG, "statfs %s output f_bavail %" PRIu64 " f_bsize %" PRIu64 "\n", path,
          static_cast<uint64_t>(space.f_bavail), static_cast<uint64_t>(space.f_bsize));
    return static_cast<uint64_t>(space.f_bavail) * static_cast<uint64_t>(space.f_bsize);
}

int amCheckFlashSpace(const char *path) {
    struct stat kit {};
    if (!examine(path, kit, __func__, __LINE__)) return 0;
    const uint64_t available = amGetFreeFlashSpace(kKitScratch);
    if (available >= static_cast<uint64_t>(kit.st_size)) return 1;
    amLog(AM_LOG_ERROR, "%s:%d availSpace %" PRIu64 " fileStat.st_size %" PRId64 "\n", __func__, __LINE__,
          available, static_cast<int64_t>(kit.st_size));
    return 0;
}

int amCheckIfKitValid() {
    const char *const kit = am::verifiedKit(kKitPath);
    if (!kit) return 0;
    // Of signed kits nothing lies beside what was signed: what an earlier one left behind is not.
    if (kit != kKitPath) am::wipe(kKitTestDir, __func__, __LINE__);
    if (!am::makeDirectory(kKitTestDir, __func__, __LINE__)) return 0;
    am::dropLinks(kKitTestDir);
    Command command;
    if (am::runCommand(command, sizeof command, "tar -xvzf %s -C  %s ", kit, kKitTestDir) == 0) return 1;
    amLog(AM_LOG_ERROR, "Unable to untar kit %s \n", command);
    return 0;
}

void amCleanUpKitTest() {
    Command command;
    if (am::runCommand(command, sizeof command, "rm -rf %s", kKitTestDir) != 0)
        amLog(AM_LOG_ERROR, "%s: %d Unable to delete temp folder %s\n", __func__, __LINE__, command);
}

int amCopyNewKit() {
    if (!am::makeDirectory(kKitWorkDir, __func__, __LINE__)) return 0;
    Command command;
    if (am::runCommand(command, sizeof command, "rm -rf %s/%s", kKitWorkDir, kStagedName) != 0) {
        amLog(AM_LOG_ERROR, "%s:%d Unable to remove temporary kit %s \n", __func__, __LINE__, command);
        return 0;
    }
    struct stat kit {};
    const char *const source = am::verifiedKit(kKitPath);
    if (!source || !examine(source, kit, __func__, __LINE__)) return 0;
    if (am::runCommand(command, sizeof command, "cp -f %s %s/%s", source, kKitWorkDir, kStagedName) != 0) {
        amLog(AM_LOG_ERROR, "%s:%d Unable to copy kit %s \n", __func__, __LINE__, command);
        return 0;
    }
    return 1;
}

namespace {

// The name in the log is the operation's.
int validateKit() {
    constexpr char op[] = "dpiValidateKit";
    if (!amIsUpgradeKitPresent()) {
        amLog(AM_LOG_ERROR, "%s():%d: app Signature kit not present in /flash\n", op, __LINE__);
        am::noteKitRefused("there is no kit in /flash");
        return 0;
    }
    if (!am::makeDirectory(kKitScratch, op, __LINE__)) {
        am::noteKitRefused("/var/flash cannot be made");
        return 0;
    }
    if (!amCheckFlashSpace(kKitPath)) {
        amLog(AM_LOG_ERROR, "%s():%d:Insufficient flash space\n", op, __LINE__);
        am::noteKitRefused("not enough space to unpack the kit");
        return 0;
    }
    if (!am::verifyKit(kKitPath)) return 0;
    if (!amCheckIfKitValid()) {
        amLog(AM_LOG_ERROR, "%s():%d: app Signature kit from /flash is malformed\n", op, __LINE__);
        am::noteKitRefused("the file is no kit: tar cannot unpack it");
        return 0;
    }
    if (!amParseKitCompatibality()) {
        amLog(AM_LOG_ERROR, "%s():%d: app Signature kit is not compitable with QEL \n", op, __LINE__);
        am::noteKitRefused("the kit is of another compatibility level, or names none");
        return 0;
    }
    amCleanUpKitTest();
    if (!amCopyNewKit()) {
        amLog(AM_LOG_ERROR, "%s():%d: Unable to copy KIT to appMon folder\n", op, __LINE__);
        am::noteKitRefused("the kit cannot be copied to /var/flash");
        return 0;
    }
    return 1;
}

}  // namespace

int dpiValidateKit() {
    am::noteKitRequest();
    am::dropVerifiedKit();
    if (validateKit() == 1) return 1;
    am::dropVerifiedKit();
    return 0;
}

// A byte below 16 shows a leading blank, not a zero: the line is compared with those of older logs.
void dumpMd5String(const uint8_t *digest) {
    char text[2 * sizeof CurMd5Sum + 1] = {};
    for (size_t i = 0; i < sizeof CurMd5Sum; i++) snprintf(text + 2 * i, 3, "%2x", digest[i]);
    amLog(AM_LOG_ERROR, "md5sum: %s\n", text);
}

int amcMd5SigKitDigest(const char *path, uint8_t *digest) {
    const am::File kit(fopen(path, "rbe"));
    if (!kit) {
        amLog(AM_LOG_ERROR, "%s DPI: %s Cannot be opened.\n", __func__, path);
        return -1;
    }
    am::Md5 md5;
    am::md5Begin(md5);
    uint8_t chunk[1024];
    for (size_t length; (length = fread(chunk, 1, sizeof chunk, kit.get())) > 0;)
        am::md5Add(md5, chunk, length);
    const am::Md5Digest result = am::md5End(md5);
    static_assert(sizeof result.bytes == sizeof CurMd5Sum);
    memcpy(digest, result.bytes, sizeof result.bytes);
    dumpMd5String(digest);
    return 0;
}

namespace {

// The kit that is to be installed; where it has to be verified and is not, no kit is.
const char *kitToInstall() {
    const char *const kit = am::verifiedKit(kKitPath);
    return kit ? kit : kKitPath;
}

}  // namespace

int amcCompareKit(uint8_t *digest) {
    return amcMd5SigKitDigest(kitToInstall(), digest);
}

int amcGetKitMd5sum() {
    memset(CurMd5Sum, 0, sizeof CurMd5Sum);
    return amcMd5SigKitDigest(kitToInstall(), CurMd5Sum);
}

int amcCheckKit() {
    if (!amEngineLoaded()) {
        amLog(AM_LOG_ERROR, "%s:%d GET md5sum\n", __func__, __LINE__);
        (void)amcGetKitMd5sum();
        return 1;
    }
    amLog(AM_LOG_ERROR, "%s:%d compare md5sum\n", __func__, __LINE__);
    uint8_t digest[sizeof CurMd5Sum] = {};
    (void)amcCompareKit(digest);
    if (memcmp(digest, CurMd5Sum, sizeof digest) == 0) {
        amLog(AM_LOG_ERROR, "%s:%d md5sum same\n", __func__, __LINE__);
        return 0;
    }
    amLog(AM_LOG_ERROR, "%s:%d md5sum diffrent\n", __func__, __LINE__);
    memcpy(CurMd5Sum, digest, sizeof digest);
    return 1;
}

int amUnzipKit(int source) {
    if (!am::makeDirectory(kKitInstallDir, __func__, __LINE__)) return 0;
    Command command;
    if (source == kKitFromFactory && am::runCommand(command, sizeof command, "cp %s/%s %s/%s", kFactoryDir,
                                                    kKitName, kKitWorkDir, kStagedName) != 0) {
        amLog(AM_LOG_ERROR, "%s:%d Unable to copy kit %s \n", __func__, __LINE__, command);
        return 0;
    }
    char staged[sizeof kKitWorkDir + sizeof kStagedName];
    snprintf(staged, sizeof staged, "%s/%s", kKitWorkDir, kStagedName);
    struct stat kit {};
    if (source == kKitFromFactory) {
        char factory[sizeof kFactoryDir + sizeof kKitName];
        snprintf(factory, sizeof factory, "%s/%s", kFactoryDir, kKitName);
        if (!am::verifyKit(factory)) return 0;
    }
    const char *const archive = am::verifiedKit(staged);
    if (!archive || !examine(archive, kit, __func__, __LINE__)) return 0;
    if (archive != staged) {
        am::wipe(kKitInstallDir, __func__, __LINE__);
        if (!am::makeDirectory(kKitInstallDir, __func__, __LINE__)) return 0;
    }
    am::dropLinks(kKitInstallDir);
    char extraction[1024];
    if (am::runCommand(extraction, sizeof extraction, "tar -xvzf %s -C  %s", archive, kKitInstallDir) != 0) {
        amLog(AM_LOG_ERROR, "Unable to untar kit %s \n", extraction);
        return 0;
    }
    return 1;
}

namespace {

void installStagedKit() {
    constexpr char op[] = "amUpdateKit";
    if (!amUnzipKit(kKitStaged)) {
        amLog(AM_LOG_ERROR, "  %s():%d: Unable to Unzip KIT to appMon folder, KIT file corrupted\n", op,
              __LINE__);
        am::noteKitRefused("the copy of the kit cannot be unpacked");
        return;
    }
    amAppPoolMarkObsolete();
    if (!amParseAppPoolCsv()) {
        amLog(AM_LOG_ERROR, "  %s():%d: Unable to Create app-pool for new kit\n", op, __LINE__);
        am::noteKitRefused("the kit has no application index");
        return;
    }
    amCleanAppPool();
    am::beforeRenumbering();
    amCleanAppData();
    am::whileRenumbering();
    dpiQsKitUpdate();
    am::afterRenumbering();
    am::noteKitInstalled();
    if (!amEngineLoaded()) am::noteKitRefused("the kit's engine cannot be loaded: see the log");
    amCleanUpdateKit();
    amLog(AM_LOG_DEBUG, "Kit update complete Spawning Thread\n");
}

}  // namespace

void amUpdateKit() {
    installStagedKit();
    am::dropVerifiedKit();
}

void amCleanUpdateKit() {
    am::dropVerifiedKit();
    am::wipe(kKitScratch, __func__, __LINE__);
    am::wipe("/tmp/flash", __func__, __LINE__);
}
