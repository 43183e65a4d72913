#include "config/file_before.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "config/config_members.h"
#include "config/replace_file.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/text.h"

namespace am {

constinit char configDropped[96] = {};

namespace {

using Json = std::unique_ptr<cJSON, Closer<cJSON_Delete>>;

// Far above what every application of a kit on both lists and in a group takes; parsing needs many times the
// file's size.
constexpr off_t kLargestFile = off_t{32} << 20;

// Reads the whole of a file of that size; fewer bytes when it has shrunk meanwhile.  A zero ends them.
CText readText(int fd, size_t size) {
    CText text(static_cast<char *>(malloc(size + 1)));
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

}  // namespace

CText readConfigFile(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // not to wait for the writer of a pipe
    if (fd < 0) return nullptr;
    struct stat file;
    CText text;
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

namespace {

constexpr const char *kLists[] = {"avDpiAppList", "avAppMonAppList"};
constexpr const char *kListNames[] = {"the enforcement list", "the monitoring list"};

template <class Visit>
void forEachProfile(const cJSON *config, Visit visit) {
    forEachElement(cJSON_GetObjectItem(config, "ApplicationVisbilityProfile"), [&](const cJSON &profile) {
        if (cJSON_IsObject(&profile)) visit(&profile);
    });
}

bool hasGroup(const cJSON *config, const char *name) {
    bool found = false;
    forEachProfile(config, [&](const cJSON *profile) {
        found = found || cJSON_GetObjectItemCaseSensitive(objectMember(profile, "avAppGroup"), name);
    });
    return found;
}

bool hasEntries(const cJSON *config, const char *list) {
    bool found = false;
    forEachProfile(config, [&](const cJSON *profile) {
        for (const char *array : {"appList", "appGroup"})
            found = found || cJSON_GetArraySize(cJSON_GetObjectItem(objectMember(profile, list), array)) > 0;
    });
    return found;
}

unsigned groupsDropped(const cJSON *before, const cJSON *after) {
    unsigned dropped = 0;
    forEachProfile(before, [&](const cJSON *profile) {
        const cJSON *const groups = objectMember(profile, "avAppGroup");
        for (const cJSON *group = groups ? groups->child : nullptr; group; group = group->next)
            dropped += !hasGroup(after, group->string);
    });
    return dropped;
}

using Dropped = char[sizeof configDropped];

// False when nothing is.
bool whatIsDropped(const cJSON *before, const cJSON *after, Dropped &text) {
    int length = 0;
    if (const unsigned groups = groupsDropped(before, after))
        length = snprintf(text, sizeof text, "%u group%s", groups, groups == 1 ? "" : "s");
    for (size_t i = 0; i < std::size(kLists); i++)
        if (hasEntries(before, kLists[i]) && !hasEntries(after, kLists[i]))
            length += snprintf(text + length, sizeof text - static_cast<size_t>(length), "%s%s",
                               length ? ", " : "", kListNames[i]);
    return length != 0;
}

}  // namespace

void keepConfigBefore(const cJSON *newConfig) {
    const CText text = readConfigFile(kConfigPath);
    if (!text || !*text.get()) return;
    const Json before(cJSON_Parse(text.get()));
    Dropped dropped = "what was no configuration";
    if (before && !whatIsDropped(before.get(), newConfig, dropped)) return;
    if (!replaceFile(kConfigBeforePath, text.get())) return;
    copyText(configDropped, dropped);
    amLog(AM_LOG_WARNING, "%s:%d the file before this save is kept as %s: the save leaves out %s\n",
          "amWriteConfigToFile", __LINE__, kConfigBeforePath, configDropped);
}

}  // namespace am
