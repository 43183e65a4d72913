// A line of the log, and one that the level filters out.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "core/log.h"
#include "core/paths.h"
#include "rows.h"

namespace bench {
namespace {

constexpr size_t kLines = 64;
constexpr size_t kFiltered = 50'000;
constexpr char kReady[] = "2024-03-05 11:04:09 [ERROR]: am_capture_flow_func:162 Out of appid:70000\n";

__attribute__((noinline, cold)) void wanted(size_t line) {
    keep(line);
}

void emptyLog() {
    struct stat file {};
    if (stat(kLogPath, &file) == 0 && file.st_size > 1 << 20) keep(truncate(kLogPath, 0));
}

int bareLog() {
    static const int fd = open(kLogPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    return fd;
}

}  // namespace

void addLogRows(Table &table) {
    table.add(Row{.what = "log line",
                  .reference = "stat + write of the ready line",
                  .limits = {.goal = 1.15, .gate = 1.25},
                  .bare = {emptyLog,
                           [] {
                               struct stat file;
                               for (size_t i = 0; i < kLines; i++) {
                                   keep(stat(kLogPath, &file));
                                   keep(write(bareLog(), kReady, sizeof kReady - 1));
                               }
                               return kLines;
                           }},
                  .ours = {emptyLog, [] {
                               for (size_t i = 0; i < kLines; i++)
                                   amLog(AM_LOG_ERROR, "%s:%d Out of appid:%d\n", "am_capture_flow_func", 162,
                                         70000);
                               return kLines;
                           }}});
    // Eight places in a row, so that the loop around them does not count.
    table.add(Row{.what = "log line that is filtered out",
                  .reference = "one compare",
                  .limits = {.goal = 1.05},
                  .bare = {nullptr,
                           [] {
                               const auto place = [](size_t i) {
                                   if (logLevel.load(std::memory_order_relaxed) >= AM_LOG_DEBUG) [[unlikely]]
                                       wanted(i);
                               };
                               for (size_t i = 0; i < kFiltered; i += 8) {
                                   place(i), place(i), place(i), place(i);
                                   place(i), place(i), place(i), place(i);
                               }
                               return kFiltered;
                           }},
                  .ours = {nullptr, [] {
                               const auto place = [](size_t i) {
                                   amLog(AM_LOG_DEBUG, "Out of appid:%zu\n", i);
                               };
                               for (size_t i = 0; i < kFiltered; i += 8) {
                                   place(i), place(i), place(i), place(i);
                                   place(i), place(i), place(i), place(i);
                               }
                               return kFiltered;
                           }}});
}

}  // namespace bench
