// config check: what the daemon would make of a configuration file, without the daemon.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <cjson/cJSON.h>

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "config/config_file.h"
#include "config/config_members.h"
#include "core/handle.h"
#include "core/log.h"
#include "core/paths.h"
#include "ctl/commands.h"
#include "ctl/findings.h"
#include "ctl/kit_check.h"
#include "ctl/screen.h"
#include "show/nearest.h"

namespace ctl {

namespace {

using Json = std::unique_ptr<cJSON, am::Closer<cJSON_Delete>>;
constexpr long kLargestFile = 32L << 20;  // as the daemon has it

// A text with its places: JSON values do not remember theirs.
struct Text {
    am::CText text;

    uint32_t lineOf(const char *at) const {
        uint32_t line = 1;
        for (const char *from = text.get(); from < at; from++) line += *from == '\n';
        return line;
    }
    uint32_t columnOf(const char *at) const {
        uint32_t column = 1;
        for (; at > text.get() && at[-1] != '\n'; at--) column++;
        return column;
    }
    // Where this text first stands in quotes; 0 if nowhere, as with one that needs escapes.
    uint32_t lineOfQuoted(const char *word) const {
        const size_t length = strlen(word);
        for (const char *at = text.get(); (at = strstr(at, word)) != nullptr && *at; at++)
            if (at > text.get() && at[-1] == '"' && at[length] == '"') return lineOf(at);
        return 0;
    }
};

bool readText(const char *path, Text &text) {
    const am::File file(fopen(path, "re"));
    if (!file) return false;
    text.text.reset(static_cast<char *>(calloc(static_cast<size_t>(kLargestFile) + 2, 1)));
    if (!text.text) return false;
    const size_t length = fread(text.text.get(), 1, static_cast<size_t>(kLargestFile) + 1, file.get());
    if (length > static_cast<size_t>(kLargestFile)) errno = EFBIG;
    return ferror(file.get()) == 0 && length <= static_cast<size_t>(kLargestFile);
}

struct Check {
    const Text &text;
    Findings &findings;
    bool namesKnown;  // the pool is that of a kit
    const cJSON *groups = nullptr;

    uint32_t line(const cJSON *member) const {
        return member->string ? text.lineOfQuoted(member->string) : 0;
    }

    // Members that the daemon does not look at.
    void members(const cJSON *object, std::initializer_list<const char *> known) const {
        if (!cJSON_IsObject(object)) return;
        for (const cJSON *member = object->child; member; member = member->next) {
            bool found = false;
            for (const char *name : known) found = found || strcasecmp(name, member->string) == 0;
            if (!found)
                findings.fault(nullptr, line(member), "unknown key \"%s\": nothing reads it", member->string);
        }
    }

    const cJSON *object(const cJSON *of, const char *key) const {
        const cJSON *const member = cJSON_GetObjectItem(of, key);
        if (member && !cJSON_IsObject(member))
            findings.fault(nullptr, line(member), "\"%s\" is no object: it counts as missing", key);
        return cJSON_IsObject(member) ? member : nullptr;
    }

    void textOf(const cJSON *of, const char *key) const {
        const cJSON *const member = cJSON_GetObjectItem(of, key);
        if (member && !cJSON_IsString(member) && !cJSON_IsNull(member))
            findings.fault(nullptr, line(member), "\"%s\" is no text", key);
    }

    void application(const cJSON &entry) const {
        if (!cJSON_IsObject(&entry)) {
            findings.fault(nullptr, 0, "an application that is no object is passed over");
            return;
        }
        members(&entry, {"appName", "appId"});
        const char *const name = am::textMember(&entry, "appName");
        if (!name)
            findings.fault(nullptr, 0, "an application without \"appName\" is passed over");
        else if (namesKnown && !amIsAppNameValid(name))
            unknownName(name);
    }

    void unknownName(const char *name) const {
        am::NearestNames nearest(name);
        for (const AmAppNode *app = amGetNextAppNode(nullptr); app; app = amGetNextAppNode(app))
            nearest.offer(app->name);
        findings.fault(nullptr, text.lineOfQuoted(name), "the kit knows no application '%s'%s%s%s", name,
                       nearest.count() ? ": " : "", nearest.count() ? nearest[0] : "",
                       nearest.count() ? "?" : "");
    }

    void array(const cJSON *of, const char *key) const {
        const cJSON *const member = cJSON_GetObjectItem(of, key);
        if (member && !cJSON_IsArray(member))
            findings.fault(nullptr, line(member), "\"%s\" is no array: it counts as empty", key);
    }

    void list(const cJSON *profile, const char *key) const {
        const cJSON *const list = object(profile, key);
        if (!list) return;
        members(list, {"appList", "appGroup"});
        array(list, "appList");
        array(list, "appGroup");
        am::forEachElement(cJSON_GetObjectItem(list, "appList"),
                           [&](const cJSON &entry) { application(entry); });
        am::forEachElement(cJSON_GetObjectItem(list, "appGroup"), [&](const cJSON &entry) {
            const char *const name = cJSON_GetStringValue(&entry);
            if (!name)
                findings.fault(nullptr, 0, "a group in \"%s\" that is no text is passed over", key);
            else if (!groupNamed(name))
                findings.fault(nullptr, text.lineOfQuoted(name), "there is no group '%s'", name);
        });
    }

    bool groupNamed(const char *name) const {
        for (const cJSON *group = groups ? groups->child : nullptr; group; group = group->next)
            if (strcmp(group->string, name) == 0) return true;
        return false;
    }

    void profile(const cJSON *profile) {
        members(profile, {"avSignatureProfile", "appMonUpdateSignatureFile", "reloadSignFile", "avAppGroup",
                          "avAppMonAppList", "avDpiAppList", "appMonAdminState"});
        const cJSON *const kit = object(profile, "avSignatureProfile");
        members(kit, {"username", "password", "filePath", "fileCheckSum"});
        for (const char *key : {"username", "password", "filePath"}) {
            textOf(kit, key);
            if (kit && !am::textMember(kit, key))
                findings.fault(nullptr, line(kit), "\"avSignatureProfile\" has no \"%s\": no kit is fetched",
                               key);
        }
        members(object(profile, "appMonUpdateSignatureFile"), {"reloadSignFile"});
        members(object(profile, "appMonAdminState"), {"adminState"});
        groups = object(profile, "avAppGroup");
        for (const cJSON *group = groups ? groups->child : nullptr; group; group = group->next) {
            if (!cJSON_IsArray(group))
                findings.fault(nullptr, line(group), "group \"%s\" is no array: it has no members",
                               group->string);
            if (strlen(group->string) > kGroupNameSize)
                findings.fault(nullptr, line(group), "the group's name is cut to %.40s", group->string);
            am::forEachElement(group, [&](const cJSON &entry) { application(entry); });
        }
        list(profile, "avAppMonAppList");
        list(profile, "avDpiAppList");
    }
};

unsigned onList(uint8_t AmActiveApp::*list) {
    unsigned count = 0;
    amModelLock.soleWriterReads();
    for (uint32_t id = 0; const AmActiveApp *app = amActiveApp(id); id++) count += app->*list;
    return count;
}

// What the daemon's own functions make of the profile, in their order.  True: mirroring goes on.
bool apply(const cJSON *profile, bool namesKnown, bool &mirroring) {
    unsigned step = 0;
    const char *const url = am::textMember(am::objectMember(profile, "avSignatureProfile"), "filePath");
    if (url) printf("%u. fetch the kit from %s\n", ++step, shown(url).text);
    const cJSON *const state =
        cJSON_GetObjectItem(am::objectMember(profile, "appMonAdminState"), "adminState");
    const char *const stateText = cJSON_GetStringValue(state);
    if (state && !(stateText && strcmp(stateText, "enable") == 0)) {
        printf("%u. stop: \"adminState\" is not \"enable\", so nothing that follows is applied\n", ++step);
        return false;
    }
    mirroring = mirroring || state;
    const cJSON *const update = am::objectMember(profile, "appMonUpdateSignatureFile");
    const char *const reload = am::textMember(update ? update : profile, "reloadSignFile");
    if (reload && strcmp(reload, "force") == 0) printf("%u. install the kit on flash\n", ++step);
    if (!namesKnown) {
        printf(
            "%u. groups, monitoring list, enforcement list (without a kit nobody can tell which names it "
            "knows)\n",
            ++step);
    } else {
        amCleanAppGroup();
        amParseGroupConfig(profile);
        amParseAppListConfig(am::objectMember(profile, "avAppMonAppList"), AM_LIST_MONITORING);
        amParseAppListConfig(am::objectMember(profile, "avDpiAppList"), AM_LIST_ENFORCEMENT);
        printf("%u. groups: %u\n", ++step, rbtCount(&amAppGrpTree));
        amModelLock.soleWriterReads();
        printf("%u. monitoring list: %u applications\n", ++step, onList(&AmActiveApp::isMonitoring));
        printf("%u. enforcement list: %u applications\n", ++step, onList(&AmActiveApp::isEnforcement));
    }
    printf("%u. mirroring %s\n", ++step, mirroring ? "on" : "off");
    return true;
}

// The names of a kit; false when there is none to be had.
bool readNames(const char *kit, const char *given) {
    rbtInit(&amAppPoolTree, amAppPoolNameCompare);
    rbtInit(&amAppGrpTree, amAppGrpNameCompare);
    if (!given && access(kit, R_OK) != 0) return false;
    const UnpackedKit unpacked(kit);
    if (!unpacked.unpacked() || !readIndex(unpacked.folder(), nullptr)) {
        fprintf(stderr, "korvidctl: %s cannot be unpacked, or has no index: names are not checked\n", kit);
        return false;
    }
    amRebuildActiveAppArray("config check", __LINE__);
    return true;
}

int checkConfig(const char *file, const char *kit) {
    Findings findings(file);
    Text text;
    if (!readText(file, text)) {
        fprintf(stderr, "korvidctl: %s: %s\n", file, strerror(errno));
        return kFailed;
    }
    const char *end = nullptr;
    const Json root(cJSON_ParseWithOpts(text.text.get(), &end, 0));
    if (!root) {
        findings.fault(nullptr, text.lineOf(end), "no JSON from about column %u on", text.columnOf(end));
        return kFailed;
    }
    logLevel.store(AM_LOG_NONE, std::memory_order_relaxed);  // what the daemon would log is told as findings
    Check check{text, findings, readNames(kit ? kit : kKitPath, kit)};
    check.members(root.get(), {"ApplicationVisbilityProfile"});
    const cJSON *const profiles = cJSON_GetObjectItem(root.get(), "ApplicationVisbilityProfile");
    if (!cJSON_IsArray(profiles))
        findings.fault(nullptr, 1, "there is no array \"ApplicationVisbilityProfile\"");
    bool mirroring = false, more = true;
    am::forEachElement(profiles, [&](const cJSON &profile) {
        if (!cJSON_IsObject(&profile)) return;
        check.profile(&profile);
        if (more) more = apply(&profile, check.namesKnown, mirroring);
    });
    printf("%s: %u faults\n", file, findings.faults());
    return findings.faults() ? kFailed : kDone;
}

}  // namespace

int configCommand(const CommandLine &line) {
    if (strcmp(line.word(1), "check") == 0 && line.wordCount == 3) return checkConfig(line.word(2), line.kit);
    fprintf(stderr, "usage: korvidctl config check [--kit FILE] FILE\n");
    return kUsage;
}

}  // namespace ctl
