// A kit with a few applications, flows of them, and the record files: what every test of the records needs.
#pragma once
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "flows/enf_flow_db.h"
#include "flows/flow_info.h"
#include "records/app_records.h"
#include "records/enf_records.h"
#include "records/mon_records.h"
#include "records/stats_report.h"
#include "unit/appmodel/model_fixture.h"
#include "unit/records/test_clock.h"
#include "unit/sandbox.h"

using Lines = std::vector<std::string>;

inline constexpr char kEnfHeader[] =
    "IpAddrType,IpA,IpB,L4portA,L4portB,Proto,Application,Application-Group,MacA,KolNameA,MacB,KolNameB,"
    "pktCount,byteCount,Start,End,IntStart,IntEnd";
inline constexpr char kMonHeader[] =
    "IpAddrType,IpA,IpB,L4portA,L4portB,Proto,Application,Application-Group,Time";
inline constexpr char kAppHeader[] =
    "Application,Application-Group,Utcinterval,MaFlowMin,MaFlowMax,MaFlowAvg,MaFlowTotal";

inline std::string fileText(const char *path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

inline Lines fileLines(const char *path) {
    Lines lines;
    std::istringstream text(fileText(path));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

inline void putFile(const char *path, const std::string &text) {
    std::ofstream(path) << text;
}

// A file of so many lines, header included, long enough for a limit on the size of files to leave the log
// alone.
inline std::string filler(const std::string &header, size_t lines) {
    std::string text = header + "\n";
    for (size_t i = 1; i < lines; i++) text += std::string(80, 'x') + "\n";
    return text;
}

// Files of this process stop growing at so many bytes while the object lives: a disk that is full to the
// byte.
class FullDisk {
  public:
    explicit FullDisk(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit limit = before_;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() { setrlimit(RLIMIT_FSIZE, &before_); }
    FullDisk(const FullDisk &) = delete;
    FullDisk &operator=(const FullDisk &) = delete;

  private:
    rlimit before_{};
};

// The record files' time form, as the C library has it.
inline std::string utc(time_t time) {
    tm broken{};
    gmtime_r(&time, &broken);
    char text[64];
    snprintf(text, sizeof text, "%i-%02i-%02i %02i:%02i:%02i", broken.tm_year + 1900, broken.tm_mon + 1,
             broken.tm_mday, broken.tm_hour, broken.tm_min, broken.tm_sec);
    return text;
}

inline std::string addressText(const void *address, int family) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address, text, sizeof text);
    return text;
}
inline std::string addressText(uint32_t address) {
    return addressText(&address, AF_INET);
}
inline std::string addressText(const in6_addr &address) {
    return addressText(&address, AF_INET6);
}

inline in6_addr ipv6(const char *text) {
    in6_addr address{};
    inet_pton(AF_INET6, text, &address);
    return address;
}

inline constexpr time_t kNoon = 1709636649;  // 2024-03-05 11:04:09

class RecordsTest : public ModelTest {
  protected:
    void SetUp() override {
        ModelTest::SetUp();
        testNow = kNoon;
        clearAll();
        static const bool treesReady = [] {
            amInitEnfFlowDb();
            return true;
        }();
        ASSERT_TRUE(treesReady);
        installKit({{"dns", 0}, {"mail", 1}, {"video", 2}, {"a-name-that-fills-its-field-full", 3}});
        amAddAppToGrp("office", "mail");
        amAddAppToAppList("dns", nullptr, AM_LIST_ENFORCEMENT);
        amAddGrpToAppList("office", AM_LIST_ENFORCEMENT);
        amAddAppToAppList("dns", nullptr, AM_LIST_MONITORING);
        amAddGrpToAppList("office", AM_LIST_MONITORING);
        log_.forget();
    }
    void TearDown() override {
        clearAll();
        amCleanAllEnfFlowDb();
        amCleanAllEnfFlowDb6();
        testNow = 0;
        ModelTest::TearDown();
    }

    static void clearAll() {
        emptyFolder("/flash");
        linesInEnfRecordFile = linesInMonRecordFile = linesInAppRecordFile = appMon24HrRecord = 0;
        std::fill_n(amnFt4Queue, kReportQueueSize, AmFt4QueueEntry{});
        std::fill_n(amnFt6Queue, kReportQueueSize, AmFt6QueueEntry{});
        ft4CommonIndex = ft6CommonIndex = 0;
        const AmGuard guard(amMonQueueLock);
        amMonFlowCounter = amMonFlow6Counter = amMonFlowMiss = amMonFlow6Miss = 0;
    }

    // The n-th flow of an application, as the engine reports it.
    static capture_flow_info flow(uint32_t n, uint32_t appId, uint32_t family = AM_IP_TYPE_IPV4) {
        capture_flow_info info{};
        info.ipproto = family;
        info.src_ip = htonl(0x0a000000 + n);
        info.dst_ip = htonl(0xc0a80001);
        info.src_ip6 = ipv6("2001:db8::1");
        info.src_ip6.s6_addr[14] = static_cast<uint8_t>(n >> 8);
        info.src_ip6.s6_addr[15] = static_cast<uint8_t>(n);
        info.dst_ip6 = ipv6("2001:db8:0:1::53");
        info.src_port = 40000 + n;
        info.dst_port = 443;
        info.proto = IPPROTO_TCP;
        info.app_id = appId;
        return info;
    }

    size_t logCount(const std::string &part) const {
        const std::string text = log_.text();
        size_t count = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) count++;
        return count;
    }
};
