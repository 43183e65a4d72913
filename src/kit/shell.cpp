#include "kit/shell.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// system(), but for one thing: that ignores SIGINT in the whole process while the command runs, so that a
// request to end the daemon would be lost whenever it came during an installation.
int shell(char *command) {
    char name[] = "sh";
    char option[] = "-c";
    char *const arguments[] = {name, option, command, nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, environ) != 0) return -1;
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return status;
}

}  // namespace

int decodeSystemResult(int status) {
    return (status & 0x7f) == 0 ? (status >> 8) & 0xff : -1;
}

int am::runCommand(char *command, size_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(command, size, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<size_t>(length) >= size) return -1;
    return decodeSystemResult(shell(command));
}
