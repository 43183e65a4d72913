#include "records/record_line.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using am::RecordKind;

const std::string kFlow = "IPv4,192.0.2.11,198.51.100.53,38179,53,TCP,";
const std::string kTimes = "2026-11-23 00:06:53,2026-11-23 00:21:55,2026-11-23 00:06:53,2026-11-23 00:21:55";
const std::string kLine = kFlow + "DNS,web,-,staff,-,-,10,658," + kTimes;

const char *problemOf(RecordKind kind, const std::string &line) {
    am::RecordLine out;
    return am::readRecordLine(kind, line, out);
}

TEST(RecordLine, CommasInNamesAreNamesWhereThatIsClear) {
    am::RecordLine out;  // of views into the line
    const std::string enforcement = kFlow + "DNS,Video, Music,-,staff, all,-,-,1,2," + kTimes;
    const std::string monitoring = kFlow + "DNS,a,b,c,2026-11-23 00:06:53";
    ASSERT_EQ(am::readRecordLine(RecordKind::Enforcement, enforcement, out), nullptr);
    EXPECT_EQ(out.group, "Video, Music");
    EXPECT_EQ(out.profile, "staff, all");
    ASSERT_EQ(am::readRecordLine(RecordKind::Monitoring, monitoring, out), nullptr);
    EXPECT_EQ(out.group, "a,b,c");
    ASSERT_EQ(
        am::readRecordLine(RecordKind::Application, "DNS,a,-,b,2026-11-23 00:00:00,0,0,0,4000000000", out),
        nullptr);
    EXPECT_EQ(out.group, "a,-,b");
    EXPECT_EQ(out.flows, 4'000'000'000U);
    EXPECT_NE(problemOf(RecordKind::Enforcement, kFlow + "DNS,a,-,b,-,c,-,-,1,2," + kTimes), nullptr);
}

// No half of a line passes for one, whatever its last column.
TEST(RecordLine, ALineCutAnywhereIsNone) {
    const std::string monitoring = kFlow + "DNS,-,2026-11-23 00:06:53";
    ASSERT_EQ(problemOf(RecordKind::Enforcement, kLine), nullptr);
    ASSERT_EQ(problemOf(RecordKind::Monitoring, monitoring), nullptr);
    for (size_t length = 0; length < kLine.size(); length++)
        EXPECT_NE(problemOf(RecordKind::Enforcement, kLine.substr(0, length)), nullptr) << length;
    for (size_t length = 0; length < monitoring.size(); length++)
        EXPECT_NE(problemOf(RecordKind::Monitoring, monitoring.substr(0, length)), nullptr) << length;
    EXPECT_NE(problemOf(RecordKind::Monitoring, kLine), nullptr);
    EXPECT_NE(problemOf(RecordKind::Enforcement, monitoring), nullptr);
}

TEST(RecordLine, WhatNoWriterWrites) {
    const auto with = [](const char *from, const std::string &to) {
        std::string line = kLine;
        return line.replace(line.find(from), std::string(from).size(), to);
    };
    const std::string rows[] = {
        with("IPv4", "IPv6"),
        with("IPv4", "ipv4"),
        with("192.0.2.11", "192.0.2.256"),
        with("192.0.2.11", std::string(500, '1')),
        with("38179", "65536"),
        with("38179", "-1"),
        with("38179", "038179"),
        with("TCP", "ICMP"),
        with("10,658", "10,18446744073709551616"),
        with("10,658", "10,6.5"),
        with("10,658", "10,=658"),
        with("-,-,10", "-,x,10"),
        with("2026-11-23 00:06", "2026-02-29 00:06"),
        with("2026-11-23 00:06", "2026-13-23 00:06"),
        with("2026-11-23 00:06", "2026-00-23 00:06"),
        with("2026-11-23 00:06", "2026-11-00 00:06"),
        with("2026-11-23 00:06", "2026-11-23 24:06"),
        with("2026-11-23 00:06", "2026-11-23 00:60"),
        with("2026-11-23 00:06", "2026-11-23T00:06"),
        with("00:21:55,2026", "00:21:54,2026"),  // End is not IntEnd
        with("DNS", ""),
        with("DNS", "D\tS"),
        with("DNS", std::string("D\0S", 3)),
        with("staff", std::string(1024, 's')),
        kLine + ",",
        "",
    };
    for (const std::string &line : rows) EXPECT_NE(problemOf(RecordKind::Enforcement, line), nullptr) << line;
}

}  // namespace
