#include "kit/kit_libraries.h"

#include <dlfcn.h>
#include <glob.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "kit/kit_folders.h"
#include "kit/shell.h"

namespace {

constexpr char kKitLibraryDir[] = "lib/ni";

// How many libraries were loaded before the first kit's: the daemon's own, which come first in the loader's
// list and are never unloaded.
constinit size_t ownLibraries = 0;

// The installation extraction's libraries, as the shell finds them.
struct KitLibraries {
    glob_t found{};
    KitLibraries() {
        char pattern[256];
        snprintf(pattern, sizeof pattern, "%s/%s/*.so*", kKitInstallDir, kKitLibraryDir);
        if (glob(pattern, 0, nullptr, &found) != 0) found.gl_pathc = 0;
    }
    ~KitLibraries() { globfree(&found); }
    KitLibraries(const KitLibraries &) = delete;
    KitLibraries &operator=(const KitLibraries &) = delete;

    char **begin() const { return found.gl_pathv; }
    char **end() const { return found.gl_pathv + found.gl_pathc; }
};

const char *nameOf(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// Removes from /lib what a copy would be written into: the file itself, or a link.  What cp will not copy, a
// folder or a link to nothing, takes nothing away; and what cannot be removed is left for it to complain of.
void makeWay(const KitLibraries &libraries) {
    for (const char *source : libraries) {
        char target[512];
        struct stat from {};
        struct stat to {};
        snprintf(target, sizeof target, "%s/%s", kLibraryDir, nameOf(source));
        if (stat(source, &from) != 0 || !S_ISREG(from.st_mode)) continue;
        const bool itself = stat(target, &to) == 0 && to.st_dev == from.st_dev && to.st_ino == from.st_ino;
        if (!itself) (void)unlink(target);
    }
}

size_t countLoaded() {
    size_t count = 0;
    const auto add = [](dl_phdr_info *, size_t, void *argument) {
        ++*static_cast<size_t *>(argument);
        return 0;
    };
    dl_iterate_phdr(add, &count);
    return count;
}

// Whether a library of this file name is loaded that is not the daemon's own.
bool isLoaded(const char *name) {
    struct Search {
        const char *name;
        size_t left;  // of the daemon's own
    } search{name, ownLibraries};
    const auto compare = [](dl_phdr_info *library, size_t, void *argument) {
        auto &wanted = *static_cast<Search *>(argument);
        if (wanted.left == 0) return strcmp(nameOf(library->dlpi_name), wanted.name) == 0 ? 1 : 0;
        wanted.left--;
        return 0;
    };
    return dl_iterate_phdr(compare, &search) != 0;
}

// One line for a kit, however many there are.
void tellKept(const KitLibraries &libraries) {
    if (ownLibraries == 0) ownLibraries = countLoaded();
    char kept[512] = {};
    size_t length = 0;
    for (const char *library : libraries) {
        if (!isLoaded(nameOf(library))) continue;
        const int added = snprintf(kept + length, sizeof kept - length, " %s", nameOf(library));
        if (added < 0 || static_cast<size_t>(added) >= sizeof kept - length) break;
        length += static_cast<size_t>(added);
    }
    if (length == 0) return;
    amLog(
        AM_LOG_WARNING,
        "still loaded from an earlier kit:%s; their code may run in place of the new kit's, and their memory "
        "stays taken, until the daemon is restarted\n",
        kept);
}

}  // namespace

int amCopyLibsSo() {
    const KitLibraries libraries;
    makeWay(libraries);
    tellKept(libraries);
    char command[512];
    if (am::runCommand(command, sizeof command, "cp -f %s/%s/*.so*  %s", kKitInstallDir, kKitLibraryDir,
                       kLibraryDir) == 0)
        return 1;
    amLog(AM_LOG_ERROR, "%s:%d Unable to copy libraries %s \n", __func__, __LINE__, command);
    return 0;
}

// glibc takes a path that it has opened before for the library that it then got, without a look at the file.
// By another spelling of the path it comes to the file; musl always does.
void *am::openLibrary(const char *path, int mode) {
    char spelling[512];
    snprintf(spelling, sizeof spelling, "%s", path);
    while (strlen(spelling) + 1 < sizeof spelling) {
        void *const known = dlopen(spelling, RTLD_LAZY | RTLD_NOLOAD);
        if (!known) break;
        (void)dlclose(known);
        char *const slash = strrchr(spelling, '/');
        memmove(slash + 1, slash, strlen(slash) + 1);
    }
    return dlopen(spelling, mode);
}
