#include <functional>

#include "unit/records/records_fixture.h"
#include "unit/records/report_message.h"

namespace {

constexpr char kCountWarning[] =
    "[ERROR]: Warning: The ACTUAL report number is not equals to REPORT_NUM value!\n";

class StatsReport : public RecordsTest {
  protected:
    void SetUp() override {
        RecordsTest::SetUp();
        flow4_ = classified(1, 0, AM_IP_TYPE_IPV4);
        flow6_ = classified(1, 1, AM_IP_TYPE_IPV6);
    }

    // A flow that is in the database since kNoon.
    static capture_flow_info classified(uint32_t n, uint32_t appId, uint32_t family) {
        const capture_flow_info info = flow(n, appId, family);
        family == AM_IP_TYPE_IPV6 ? amUpdateEnfFlowDb6(&info) : amUpdateEnfFlowDb(&info);
        return info;
    }

    static uint16_t agedMark(const capture_flow_info &info) {
        const AmEnfKey4 key{info.src_ip,
                            info.dst_ip,
                            static_cast<uint16_t>(info.src_port),
                            static_cast<uint16_t>(info.dst_port),
                            static_cast<uint8_t>(info.proto),
                            {}};
        const AmGuard guard(amEnfFlowLock);
        const AmEnfFlow4 *const found = amSearchEnfFlowDb(&key);
        return found ? found->aged : 9999;
    }

    static int report(const Attrs &attrs) { return StatsMessage().count(1).report(attrs).deliver(); }

    capture_flow_info flow4_, flow6_;
};

TEST_F(StatsReport, CountIsComparedWithTheReports) {
    const Attrs report = reportOf(flow4_);
    const struct {
        const char *name;
        StatsMessage message;
        bool warns;
    } kCases[] = {
        {"as many", StatsMessage().count(3).report(report).report(report).report(report), false},
        {"one too few", StatsMessage().count(3).report(report).report(report), true},
        {"one too many", StatsMessage().count(1).report(report).report(report), true},
        {"no count", StatsMessage().report(report), true},
        {"nothing", StatsMessage(), false},
        {"count behind, 0", StatsMessage().report(report).count(0), false},
        {"count behind, as many", StatsMessage().report(report).count(1), true},
        {"an incomplete one counts", StatsMessage().count(1).report(without(report, DPI_STA_R_A_AGED)),
         false},
    };
    for (const auto &row : kCases) {
        log_.forget();
        EXPECT_EQ(row.message.deliver(), 1) << row.name;
        EXPECT_EQ(log_.has(kCountWarning), row.warns) << row.name;
    }
}

TEST_F(StatsReport, MatchedReportIsQueuedWithItsFlowsApplicationAndStart) {
    testNow = kNoon + 60;
    Attrs attrs =
        with(reportOf(flow4_, 7, 4'000'000'000, 123), DPI_STA_R_A_ACCESS_PROFILE, std::string(40, 'p'));
    attrs = with(attrs, DPI_STA_R_A_QOS_POLICY_RULE, "gold");
    EXPECT_EQ(report(attrs), 1);
    EXPECT_EQ(report(reportOf(flow6_, 0, 5, 6)), 1);

    ASSERT_EQ(ft4CommonIndex, 1);
    const AmFt4QueueEntry &entry = amnFt4Queue[0];
    EXPECT_EQ(entry.fst_ip, flow4_.src_ip);
    EXPECT_EQ(entry.secnd_ip, flow4_.dst_ip);
    EXPECT_EQ(entry.fstPort, 40001);
    EXPECT_EQ(entry.scndPort, 443);
    EXPECT_EQ(entry.proto, IPPROTO_TCP);
    EXPECT_EQ(entry.aged, 7U);
    EXPECT_EQ(entry.byteCnt, 4'000'000'000U);
    EXPECT_EQ(entry.pktCnt, 123U);
    EXPECT_EQ(entry.appId, 0U);
    EXPECT_EQ(entry.startTime, kNoon);
    EXPECT_EQ(entry.intStartTime, 0);
    EXPECT_EQ(std::string(entry.access_profile), std::string(31, 'p'));
    EXPECT_EQ(std::string(entry.qos_policy_rule), "gold");
    EXPECT_EQ(agedMark(flow4_), 7);

    ASSERT_EQ(ft6CommonIndex, 1);
    EXPECT_EQ(memcmp(&amnFt6Queue[0].fst_ip, &flow6_.src_ip6, 16), 0);
    EXPECT_EQ(memcmp(&amnFt6Queue[0].secnd_ip, &flow6_.dst_ip6, 16), 0);
    EXPECT_EQ(amnFt6Queue[0].appId, 1U);
    EXPECT_EQ(amnFt6Queue[0].byteCnt, 5U);
    EXPECT_EQ(std::string(amnFt6Queue[0].access_profile), "");
}

// A report without one of its attributes is passed over and the next one of the message handled; without its
// type it ends the message.
TEST_F(StatsReport, MissingAttributeCostsItsReportOnly) {
    for (const capture_flow_info &flow : {flow4_, flow6_})
        for (const Attr &missing : reportOf(flow)) {
            const bool type = missing.number == DPI_STA_R_A_IP_TYPE;
            clearAll();
            StatsMessage message = StatsMessage().count(2).report(without(reportOf(flow), missing.number));
            EXPECT_EQ(message.report(reportOf(flow)).deliver(), type ? 0 : 1) << missing.number;
            EXPECT_EQ(ft4CommonIndex + ft6CommonIndex, type ? 0 : 1) << missing.number;
        }
}

TEST_F(StatsReport, WrongLengthIsAnErrorOrAsGoodAsMissing) {
    for (const capture_flow_info &flow : {flow4_, flow6_})
        for (const Attr &attr : reportOf(flow)) {
            const bool address6 =
                attr.number == DPI_STA_R_A_FIRST_IPV6 || attr.number == DPI_STA_R_A_SECOND_IPV6;
            const bool counter = attr.number == DPI_STA_R_A_BYTE_CNT || attr.number == DPI_STA_R_A_PKT_CNT;
            for (size_t length = 0; length <= attr.payload.size() + 3; length++) {
                const bool whole = length == attr.payload.size();
                std::string payload = attr.payload;
                payload.resize(length);
                const bool fails = counter ? false : address6 ? length == 0 : !whole;
                const bool queued = whole || (!fails && length > attr.payload.size());
                clearAll();
                EXPECT_EQ(report(with(reportOf(flow), attr.number, payload)), fails ? -1 : 1)
                    << attr.number << " of " << length;
                EXPECT_EQ(ft4CommonIndex + ft6CommonIndex, queued ? 1 : 0) << attr.number << " of " << length;
            }
        }
    for (const uint16_t name : {DPI_STA_R_A_ACCESS_PROFILE, DPI_STA_R_A_QOS_POLICY_RULE})
        EXPECT_EQ(report(with(reportOf(flow4_), name, "")), -1) << name;
    for (const size_t length : {0U, 1U, 3U, 4U})
        EXPECT_EQ(StatsMessage().attr(DPI_STA_A_REPORT_NUM, std::string(length, '\0')).deliver(), -1)
            << length;
    for (const size_t length : {1U, 2U, 3U})
        EXPECT_EQ(StatsMessage().attr(DPI_STA_A_REPORT, std::string(length, '\0')).deliver(), -1) << length;
}

TEST_F(StatsReport, UnknownNumbersAreSteppedOver) {
    const Attrs report = with(reportOf(flow4_), 14, "future");
    StatsMessage message;
    message.attr(0, "zero")
        .attr(7, "seven")
        .attr(13, "")
        .attr(14, "above")
        .count(1)
        .report(with(report, 0, ""));
    logLevel = AM_LOG_NONE;
    EXPECT_EQ(message.deliver(), 1);
    EXPECT_EQ(ft4CommonIndex, 1);
    EXPECT_EQ(logCount("stats_report_cb \n"), 1U) << "for the attribute above 13, at every level";
}

TEST_F(StatsReport, ReportThatFindsAFullQueueFlushesFirst) {
    for (int i = 0; i < kReportQueueSize; i++) report(reportOf(flow4_));
    EXPECT_EQ(report(reportOf(flow6_)), 1);
    EXPECT_FALSE(std::filesystem::exists(kEnfRecords)) << "a full queue, but nothing to store in it yet";

    EXPECT_EQ(report(reportOf(flow4_, 0, 77)), 1);
    EXPECT_EQ(fileLines(kEnfRecords).size(), 1U + kReportQueueSize + 1);
    ASSERT_EQ(ft4CommonIndex, 1);
    EXPECT_EQ(ft6CommonIndex, 0);
    EXPECT_EQ(amnFt4Queue[0].byteCnt, 77U);
    EXPECT_EQ(amnFt4Queue[1].fst_ip, 0U);
}

TEST_F(StatsReport, FullQueueThatCannotBeFlushedDropsAndCounts) {
    for (int i = 0; i < kReportQueueSize; i++) report(reportOf(flow4_));
    std::filesystem::create_directory(kEnfRecords);
    const uint64_t droppedBefore = amReportsDropped;
    logLevel = AM_LOG_ERROR;
    log_.forget();

    EXPECT_EQ(report(reportOf(flow4_, 1)), 1);
    EXPECT_EQ(report(reportOf(flow4_, 2)), 1);
    EXPECT_EQ(ft4CommonIndex, kReportQueueSize);
    EXPECT_EQ(amReportsDropped - droppedBefore, 2U);
    EXPECT_EQ(logCount("\n"), 2U) << "one line for each failed flush";
    EXPECT_EQ(logCount("Failed to open AM_FLOW_RECORD file\n"), 2U);
    EXPECT_EQ(agedMark(flow4_), 2) << "the kernel does not say so again";
    EXPECT_EQ(report(reportOf(flow(99, 0))), 1);
    EXPECT_EQ(amReportsDropped - droppedBefore, 2U) << "of an unknown flow there is nothing to drop";

    std::filesystem::remove(kEnfRecords);
    log_.forget();
    EXPECT_EQ(report(reportOf(flow4_)), 1);
    EXPECT_EQ(report(reportOf(flow4_)), 1);
    EXPECT_EQ(ft4CommonIndex, 2);
    EXPECT_EQ(fileLines(kEnfRecords).size(), 1U + kReportQueueSize);
    EXPECT_EQ(logCount(" 2 reports dropped while records could not be written\n"), 1U);
}

}  // namespace
