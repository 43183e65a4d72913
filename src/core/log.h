// The daemon's log: one text file, filtered by a process-wide level, restarted empty at 2 MiB.  Standard
// error takes its place when the file cannot be opened.
//
// A line is "<local time> [<level>]: <message>"; callers end their messages with "\n", nothing is added.
// Threads: everything here may be called from any thread; one leaf lock covers the size check, the restart
// and the write of a line, so lines never interleave.  Nothing that fails in logging reaches the caller.
#pragma once
#include <atomic>

enum AmLogLevel : int {
    AM_LOG_NONE = 0,  // written at every level
    AM_LOG_ERROR = 1,
    AM_LOG_WARNING = 2,
    AM_LOG_NOTICE = 3,
    AM_LOG_INFO = 4,
    AM_LOG_DEBUG = 5,
    AM_LOG_FLOW = 6,    // verdict lines, with flow_debug
    AM_LOG_PACKET = 7,  // packet lines, with print_debug
    AM_LOG_STATS = 8,   // report lines, with stats_debug
};

// Written on the event-loop thread, read by all: relaxed, a change takes effect at the next line.
extern std::atomic<int> logLevel;
extern std::atomic<int> print_debug, flow_debug, stats_debug;  // 0 or 1

inline bool amLogWanted(int level) {
    return level <= logLevel.load(std::memory_order_relaxed);
}

// Writes one line, whatever the level: the out-of-line half of amLog.
void amLogLine(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// A filtered-out message costs one compare where it stands; its arguments are not evaluated.
#define amLog(level, ...)                    \
    do {                                     \
        if (amLogWanted(level)) [[unlikely]] \
            amLogLine(level, __VA_ARGS__);   \
    } while (0)

// Sets the level and opens `path` as the log, closing the one held; an empty or null path means standard
// error.
void amLogOpen(const char *path, int level);

// Closes the log unless it is standard error.
void amLogClose();

// Deletes and reopens /var/log/dpi.log once it holds 2 MiB.  Every line sees to that itself.
void check_log_file();

// The level's name; the empty string for any other number.
const char *log_level_str(int level);

// The level of that name, -1 for any other text; NONE has no name that can be asked for.
int logLevelFromName(const char *name);
