#include "core/sized_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace am {
namespace {

constexpr off_t kLargest = 2'097'151;  // bytes; the next write finds a larger file and starts anew

// Names of peers and applications and, in the request log, configuration: for the daemon's user alone.
constexpr mode_t kOwnerOnly = 0600;

FILE *openForAppending(const char *path) {
    const int fd = open(path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, kOwnerOnly);
    if (fd < 0) return nullptr;
    FILE *stream = fdopen(fd, "a+");
    if (!stream) (void)close(fd);
    return stream;
}

}  // namespace

void openSizedLog(SizedLog &log, const char *path) {
    const bool named = path && *path;
    log.stream = named ? openForAppending(path) : nullptr;
    if (log.stream) return;
    log.stream = stderr;
    if (!named) return;
    printf("%s%s\n", log.openFail, path);
    (void)fflush(stdout);  // a supervisor's pipe is buffered, and not every way out of the process flushes it
}

void closeSizedLog(SizedLog &log) {
    if (log.stream && log.stream != stderr) (void)fclose(log.stream);
    if (log.stream != stderr) log.stream = nullptr;
}

bool restartAtLimit(SizedLog &log) {
    struct stat file;
    if (stat(log.path, &file) != 0 || file.st_size <= kLargest) return false;
    closeSizedLog(log);
    (void)unlink(log.path);
    return true;
}

}  // namespace am
