#include "core/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/append.h"
#include "core/lock.h"
#include "core/paths.h"
#include "core/sized_log.h"

constinit std::atomic<int> logLevel{AM_LOG_ERROR};
constinit std::atomic<int> print_debug{0}, flow_debug{0}, stats_debug{0};

namespace {

constinit AmMutex logLock;
constinit am::SizedLog logFile GUARDED_BY(logLock)
{kLogPath, "Error open log file: "};

constexpr const char *kLevelNames[] = {"NONE",  "ERROR", "WARNING", "NOTICE", "INFO",
                                       "DEBUG", "FLOW",  "PACKET",  "STATS"};
static_assert(sizeof kLevelNames / sizeof *kLevelNames == AM_LOG_STATS + 1);

void checkSize() REQUIRES(logLock)
{
    if (am::restartAtLimit(logFile)) am::openSizedLog(logFile, kLogPath);
}

// The last second that a line was written in, and its text: lines come in bursts, and the conversion to local
// time costs as much as the rest of a line.
constinit time_t shownSecond GUARDED_BY(logLock)
= -1;
constinit LogTime shown GUARDED_BY(logLock)
{};

const char *timeOfLine() REQUIRES(logLock)
{
    const time_t now = time(nullptr);
    if (now != shownSecond) {
        (void)log_time(shown);
        shownSecond = now;
    }
    return shown.text;
}

}  // namespace

const char *log_level_str(int level) {
    return level >= AM_LOG_NONE && level <= AM_LOG_STATS ? kLevelNames[level] : "";
}

int logLevelFromName(const char *name) {
    for (int level = AM_LOG_ERROR; level <= AM_LOG_STATS; level++)
        if (strcmp(name, kLevelNames[level]) == 0) return level;
    return -1;
}

const char *log_time(LogTime &out) {
    const time_t now = time(nullptr);
    tm broken{};
    localtime_r(&now, &broken);
    if (strftime(out.text, sizeof out.text, "%F %T", &broken) == 0) out.text[0] = '\0';
    return out.text;
}

void check_log_file() {
    const AmGuard guard(logLock);
    checkSize();
}

void amLogLine(int level, const char *format, ...) {
    const AmGuard guard(logLock);
    checkSize();
    if (!logFile.stream) return;

    // The caller's format becomes part of the line's, so that the line is one formatted write.
    char line[4096];
    char *head = am::append(am::append(line, timeOfLine()), " [");
    head = am::append(am::append(head, log_level_str(level)), "]: ");
    const size_t length = strnlen(format, static_cast<size_t>(line + sizeof line - 1 - head));
    *am::append(head, {format, length}) = '\0';
    va_list arguments;
    va_start(arguments, format);
    (void)vfprintf(logFile.stream, line, arguments);
    va_end(arguments);
    (void)fflush(logFile.stream);
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
