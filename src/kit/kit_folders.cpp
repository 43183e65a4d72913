#include "kit/kit_folders.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "core/log.h"
#include "kit/shell.h"

namespace {
using Command = char[512];
}  // namespace

int fileExists(const char *path) {
    struct stat status {};
    return stat(path, &status) == 0;
}

bool am::makeDirectory(const char *directory, const char *op, int line) {
    Command command;
    if (runCommand(command, sizeof command, "mkdir -p %s", directory) == 0) return true;
    amLog(AM_LOG_ERROR, "%s:%d Unable to create directory %s \n", op, line, command);
    return false;
}

void am::wipe(const char *directory, const char *op, int line) {
    Command command;
    if (runCommand(command, sizeof command, "rm -rf %s", directory) == 0) return;
    printf("%s: %d Unable to delete temp folder %s\n", op, line, command);
    (void)fflush(stdout);
    amLog(AM_LOG_ERROR, "%s: %d Unable to delete temp folder %s\n", op, line, command);
}

void am::dropLinks(const char *directory) {
    constexpr int kOpenFolders = 16;
    const auto drop = [](const char *path, const struct stat *, int type, FTW *) {
        return type == FTW_SL ? unlink(path) : 0;
    };
    (void)nftw(directory, drop, kOpenFolders, FTW_PHYS);
}
