#include "kit/kit_members.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/text.h"

constinit int32_t qel_kit_compatability_version = 1;

namespace am {

namespace {

constexpr int kIndexFields = 7;
using Path = MemberPath;
using Line = char[512];

}  // namespace

void memberPath(MemberPath &out, const char *directory, const char *member) {
    snprintf(out, sizeof out, "%s/%s", directory, member);
}

File openMember(const char *path) {
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) return nullptr;
    struct stat status {};
    FILE *file = nullptr;
    if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) file = fdopen(descriptor, "r");
    if (!file) close(descriptor);
    return File(file);
}

int32_t decimal(const char *text) {
    const long long number = strtoll(text, nullptr, 10);
    if (number > INT32_MAX) return INT32_MAX;
    return number < INT32_MIN ? INT32_MIN : static_cast<int32_t>(number);
}

int32_t readLevel(FILE *file) {
    Line line = {};
    return fgets(line, sizeof line, file) ? decimal(line) : 0;
}

bool readKitLevel(const char *directory, int32_t &level) {
    Path path;
    memberPath(path, directory, "compatibility.txt");
    const File file = openMember(path);
    if (!file) return false;
    level = readLevel(file.get());
    return true;
}

const char *parseIndexLine(char *line, AmAppNode &app) {
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

KitVersion readKitVersion(const char *directory) {
    Path path;
    memberPath(path, directory, "version");
    const File file = openMember(path);
    KitVersion version{};
    if (file && !fgets(version.text, sizeof version.text, file.get())) version.text[0] = '\0';
    version.text[strcspn(version.text, "\r\n")] = '\0';
    return version;
}

}  // namespace am
