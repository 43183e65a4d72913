#include "core/sized_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace am {
namespace {

constexpr off_t kLargest = 2'097'151;  // bytes; the next write finds a larger file and starts anew

// Names of peers and applications and, in the request log, configuration: for the daemon's user alone.
constexpr mode_t kOwnerOnly = 0600;

}  // namespace

void openSizedLog(SizedLog &log, const char *path) {
    const bool named = path && *path;
    log.fd = named ? open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, kOwnerOnly) : -1;
    if (log.fd >= 0) return;
    log.fd = STDERR_FILENO;
    if (!named) return;
    printf("%s%s\n", log.openFail, path);
    (void)fflush(stdout);  // a supervisor's pipe is buffered, and not every way out of the process flushes it
}

void closeSizedLog(SizedLog &log) {
    if (log.fd == STDERR_FILENO) return;
    if (log.fd >= 0) (void)close(log.fd);
    log.fd = -1;
}

bool restartAtLimit(SizedLog &log) {
    struct stat file;
    if (stat(log.path, &file) != 0 || file.st_size <= kLargest) return false;
    closeSizedLog(log);
    (void)unlink(log.path);
    return true;
}

}  // namespace am
