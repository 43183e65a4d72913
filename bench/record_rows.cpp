// Lines of the enforcement records file, and a flush of both full queues.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "appmodel/app_lists.h"
#include "records/enf_records.h"
#include "records/stats_report.h"
#include "rows.h"
#include "switch/protocol.h"
#include "world.h"

namespace bench {
namespace {

constexpr char kBareFile[] = "/flash/bare.csv";
constexpr off_t kLargestFile = 1 << 20;

void fillQueues() {
    const time_t now = time(nullptr);
    for (int i = 0; i < kReportQueueSize; i++) {
        const capture_flow_info info = freshFlow6(kEnforcedApp);
        const AmEnfKey4 key = keyOf(info);
        AmFt4QueueEntry &four = amnFt4Queue[i];
        four = {};
        four.fst_ip = key.fst_ip;
        four.secnd_ip = key.secnd_ip;
        AmFt6QueueEntry &six = amnFt6Queue[i];
        six = {};
        six.fst_ip = info.src_ip6;
        six.secnd_ip = info.dst_ip6;
        const auto rest = [&](auto &entry) {
            entry.fstPort = key.fstPort;
            entry.scndPort = key.scndPort;
            entry.proto = key.proto;
            strcpy(entry.access_profile, "default-profile");
            entry.byteCnt = key.fst_ip;
            entry.pktCnt = key.fstPort;
            entry.appId = kEnforcedApp;
            entry.startTime = now - 300;
        };
        rest(four);
        rest(six);
    }
    ft4CommonIndex = ft6CommonIndex = kReportQueueSize;
}

void bareTime(char (&text)[80], time_t time) {
    tm broken{};
    gmtime_r(&time, &broken);
    snprintf(text, sizeof text, "%i-%02i-%02i %02i:%02i:%02i", broken.tm_year + 1900, broken.tm_mon + 1,
             broken.tm_mday, broken.tm_hour, broken.tm_min, broken.tm_sec);
}

// The line as printf writes it.
void bareLine(AmFt4QueueEntry &entry, char *line) {
    char source[INET6_ADDRSTRLEN], destination[INET6_ADDRSTRLEN], app[33] = {}, group[41] = {};
    char start[80], end[80], intervalStart[80], intervalEnd[80];
    inet_ntop(AF_INET, &entry.fst_ip, source, sizeof source);
    inet_ntop(AF_INET, &entry.secnd_ip, destination, sizeof destination);
    getAppAndGroupNameFromAppId(entry.appId, app, group, AM_LIST_ENFORCEMENT);
    const time_t now = time(nullptr);
    bareTime(start, entry.startTime);
    bareTime(end, now);
    bareTime(intervalStart, entry.intStartTime != 0 ? entry.intStartTime : entry.startTime);
    bareTime(intervalEnd, now);
    entry.intStartTime = now;
    snprintf(line, kRecordLineSize,
             "IPv4,%s,%s,%u,%u,%s,%s,%s,-,%s,-,-,%" PRIu64 ",%" PRIu64 ",%s,%s,%s,%s\n", source, destination,
             entry.fstPort, entry.scndPort, getProtoStr(entry.proto), app, group,
             *entry.access_profile ? entry.access_profile : "-", entry.pktCnt, entry.byteCnt, start,
             entry.aged != 0 ? end : "-", intervalStart, intervalEnd);
}

Row line() {
    static char text[kRecordLineSize];
    return {.what = "record line",
            .reference = "snprintf of the line",
            .limits = {.goal = 0.20},
            .bare = {fillQueues,
                     [] {
                         for (AmFt4QueueEntry &entry : amnFt4Queue) bareLine(entry, text);
                         return size_t{kReportQueueSize};
                     }},
            .ours = {fillQueues, [] {
                         for (int i = 0; i < kReportQueueSize; i++) amLogFlowRecord(i, text);
                         return size_t{kReportQueueSize};
                     }}};
}

// Files grow as the daemon's do between two rotations, and no further.
void keepSmall(const char *path) {
    struct stat file {};
    if (stat(path, &file) == 0 && file.st_size > kLargestFile) (void)unlink(path);
}

Row flush() {
    static std::string text;
    amEnfLoggingThreshold = INT32_MAX;  // a rotation is no part of this row
    return {.what = "flush of 400 lines",
            .reference = "open + write + close",
            .limits = {.goal = 3.5},
            .bare = {[] {
                         keepSmall(kBareFile);
                         if (!text.empty()) return;
                         (void)unlink(kEnfRecords);
                         linesInEnfRecordFile = 0;
                         fillQueues();
                         keep(amWriteEnfFlowRecordToFile());
                         std::ostringstream all;
                         all << std::ifstream(kEnfRecords).rdbuf();
                         text = all.str();
                     },
                     [] {
                         const int fd = open(kBareFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
                         keep(write(fd, text.data(), text.size()));
                         close(fd);
                         return size_t{1};
                     }},
            .ours = {[] {
                         keepSmall(kEnfRecords);
                         if (access(kEnfRecords, F_OK) != 0) linesInEnfRecordFile = 0;
                         fillQueues();
                     },
                     [] {
                         keep(amWriteEnfFlowRecordToFile());
                         return size_t{1};
                     }}};
}

}  // namespace

void addRecordRows(Table &table) {
    table.add(line());
    table.add(flush());
}

}  // namespace bench
