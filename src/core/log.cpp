#include "core/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/append.h"
#include "core/lock.h"
#include "core/log_time.h"
#include "core/paths.h"
#include "core/sized_log.h"
#include "core/write_fully.h"

constinit std::atomic<int> logLevel{AM_LOG_ERROR};
constinit std::atomic<int> print_debug{0}, flow_debug{0}, stats_debug{0};

namespace {

// Bytes of a line that needs no memory.
constexpr size_t kUsualLine = 1024;

constinit AmMutex logLock;
constinit am::SizedLog logFile GUARDED_BY(logLock){kLogPath, "Error open log file: "};

constexpr const char *kLevelNames[] = {"NONE",  "ERROR", "WARNING", "NOTICE", "INFO",
                                       "DEBUG", "FLOW",  "PACKET",  "STATS"};
static_assert(sizeof kLevelNames / sizeof *kLevelNames == AM_LOG_STATS + 1);

void checkSize() REQUIRES(logLock) {
    if (am::restartAtLimit(logFile)) am::openSizedLog(logFile, kLogPath);
}

constinit am::LogClock lineClock GUARDED_BY(logLock){};

}  // namespace

const char *log_level_str(int level) {
    return level >= AM_LOG_NONE && level <= AM_LOG_STATS ? kLevelNames[level] : "";
}

int logLevelFromName(const char *name) {
    for (int level = AM_LOG_ERROR; level <= AM_LOG_STATS; level++)
        if (strcmp(name, kLevelNames[level]) == 0) return level;
    return -1;
}

void check_log_file() {
    const AmGuard guard(logLock);
    checkSize();
}

void amLogLine(int level, const char *format, ...) {
    const AmGuard guard(logLock);
    checkSize();
    if (logFile.fd < 0) return;

    // The caller's format becomes part of the line's, so that the line is one formatted write.
    char lineFormat[4096];
    char *head = am::append(am::append(lineFormat, lineClock.text()), " [");
    head = am::append(am::append(head, log_level_str(level)), "]: ");
    const size_t length = strnlen(format, static_cast<size_t>(lineFormat + sizeof lineFormat - 1 - head));
    *am::append(head, {format, length}) = '\0';

    char line[kUsualLine];
    va_list arguments, again;
    va_start(arguments, format);
    va_copy(again, arguments);
    const int size = vsnprintf(line, sizeof line, lineFormat, arguments);
    char *longer = nullptr;
    if (size >= 0 && static_cast<size_t>(size) < sizeof line)
        (void)am::writeFully(logFile.fd, {line, static_cast<size_t>(size)});
    else if (size >= 0 && vasprintf(&longer, lineFormat, again) == size)
        (void)am::writeFully(logFile.fd, {longer, static_cast<size_t>(size)});
    else if (size >= 0)  // no memory: what there is room for
        (void)am::writeFully(logFile.fd, {line, sizeof line - 1});
    free(longer);
    va_end(again);
    va_end(arguments);
}

void amLogOpen(const char *path, int level) {
    const AmGuard guard(logLock);
    logLevel.store(level, std::memory_order_relaxed);
    am::closeSizedLog(logFile);
    am::openSizedLog(logFile, path);
}

void amLogClose() {
    const AmGuard guard(logLock);
    am::closeSizedLog(logFile);
}
