#include "switch/result.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "core/log.h"
#include "flows/enf_flow_db.h"
#include "flows/kernel_side.h"
#include "flows/mirroring.h"
#include "records/mon_records.h"
#include "records/verdict.h"
#include "support.h"
#include "switch/protocol.h"
#include "switch/side_counts.h"
#include "switch/sockets.h"

namespace {

Bytes text(const char *characters) {
    return {characters, characters + strlen(characters)};
}

// The wire form of an attribute: length, type, payload, padding.
Bytes attr(uint16_t type, const Bytes &payload) {
    const size_t length = 4 + payload.size();
    Bytes out = {static_cast<uint8_t>(length), 0, static_cast<uint8_t>(type), 0};
    out = out + payload;
    out.resize((length + 3) / 4 * 4);
    return out;
}

Bytes resultMessage(uint8_t family, const Bytes &attributes) {
    const size_t length = 20 + attributes.size();
    return Bytes{
               static_cast<uint8_t>(length), 0, 0, 0, 22, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, family, 0, 0, 0} +
           attributes;
}

// 10.0.0.1 port 4660 to 10.0.0.2 port 443, TCP.
const Bytes kTuple4 = attr(1, {81}) + attr(2, {10, 0, 0, 1}) + attr(4, {10, 0, 0, 2}) + attr(6, {6}) +
                      attr(7, {0x12, 0x34}) + attr(8, {0x01, 0xbb});
const Bytes kTuple6 = attr(1, {82}) + attr(3, {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}) +
                      attr(5, {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}) + attr(6, {6}) +
                      attr(7, {0x12, 0x34}) + attr(8, {0x01, 0xbb});

class VerdictTest : public NetlinkTest {
  protected:
    static capture_flow_info v4(uint32_t appId) { return flow4("10.0.0.1", 0x1234, "10.0.0.2", 443, appId); }
    static capture_flow_info v6(uint32_t appId) {
        return flow6("2001:db8::1", 0x1234, "2001:db8::2", 443, appId);
    }
    static unsigned records() {
        const AmGuard guard(amEnfFlowLock);
        return rbtCount(&amEnfFlowDb) + rbtCount(&amEnfFlowDb6);
    }
    static std::pair<uint32_t, uint32_t> monitored() {
        const AmGuard guard(amMonQueueLock);
        return {amMonFlowCounter, amMonFlow6Counter};
    }
};

TEST_F(VerdictTest, MessageForEveryCase) {
    app(2).isMonitoring = 0;
    enforce(3, "netflix");
    enforce(4, "voip", "calls");
    enforce(kApps - 1, "abcdefghijklmnopqrstuvwxyz012345", "0123456789012345678901234567890123456789");
    const char *name32 = "abcdefghijklmnopqrstuvwxyz012345";
    const char *group40 = "0123456789012345678901234567890123456789";
    struct {
        const char *what;
        uint32_t appId;
        uint32_t flowState;
        Bytes rest;  // after the tuple
    } const rows[] = {
        {"not enforced", 2, 0, attr(9, {0})},
        {"enforced alone", 3, 0,
         attr(9, {1}) + attr(11, {3, 0, 0, 0}) + attr(12, text("netflix")) + attr(10, {1})},
        {"flow state set", 3, 5,
         attr(9, {1}) + attr(11, {3, 0, 0, 0}) + attr(12, text("netflix")) + attr(10, {0})},
        {"in a group", 4, 0,
         attr(9, {1}) + attr(11, {4, 0, 0, 0}) + attr(12, text("voip")) + attr(10, {1}) +
             attr(14, text("calls"))},
        {"names of full width, the last id", kApps - 1, 0,
         attr(9, {1}) + attr(11, {kApps - 1, 0, 0, 0}) + attr(12, text(name32)) + attr(10, {1}) +
             attr(14, text(group40))},
    };
    for (const auto &row : rows) {
        capture_flow_info info = v4(row.appId);
        info.flow_state = row.flowState;
        EXPECT_EQ(am_capture_flow_func(&info), 0);
        EXPECT_EQ(takeSent(), std::vector<Bytes>{resultMessage(2, kTuple4 + row.rest)}) << row.what;

        info = v6(row.appId);
        info.flow_state = row.flowState;
        EXPECT_EQ(am_capture_flow_func(&info), 0);
        EXPECT_EQ(takeSent(), std::vector<Bytes>{resultMessage(10, kTuple6 + row.rest)})
            << row.what << ", IPv6";
    }
    EXPECT_EQ(records(), 2U);  // each family's enforced cases are one flow
    EXPECT_EQ(app(3).monFlowCount, 0U) << "not monitored";
}

TEST_F(VerdictTest, IgnoredReportsLeaveNoTrace) {
    enforce(3, "netflix");
    monitor(3, "netflix");
    const auto before = monitored();
    const TestLog log(AM_LOG_ERROR);

    capture_flow_info info = v4(3);
    info.ipproto = 0;
    EXPECT_EQ(am_capture_flow_func(&info), 0);
    EXPECT_EQ(am_capture_flow_func(nullptr), 0);
    amAdminState = 0;
    info = v4(3);
    EXPECT_EQ(am_capture_flow_func(&info), 0);
    amAdminState = 1;
    EXPECT_TRUE(log.lines().empty());

    info = v4(kApps);
    EXPECT_EQ(am_capture_flow_func(&info), 0);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with("[ERROR]: am_capture_flow_func:"));
    EXPECT_TRUE(log.lines()[0].ends_with(" Out of appid:8"));

    // Between the steps of a kit update there is a bound, but no array.
    AmActiveApp *array = amActData;
    amActData = nullptr;
    info = v4(3);
    EXPECT_EQ(am_capture_flow_func(&info), 0);
    amActData = array;

    EXPECT_TRUE(takeSent().empty());
    EXPECT_EQ(records(), 0U);
    EXPECT_EQ(monitored(), before);
    EXPECT_EQ(app(3).monFlowCount, 0U);
}

TEST_F(VerdictTest, FailedSendStillRecordsAndMonitors) {
    enforce(3, "netflix");
    monitor(3, "netflix");
    failSends(ENOBUFS);
    const uint64_t notSent = am::sideCounts.verdictsNotSent;
    testing::internal::CaptureStderr();
    const capture_flow_info four = v4(3), six = v6(3);
    am_capture_flow_func(&four);
    am_capture_flow_func(&six);
    const std::string line = std::string("packet_cb: send result message: ") + strerror(ENOBUFS) + "\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line + line);
    EXPECT_EQ(records(), 2U);
    EXPECT_EQ(app(3).monFlowCount, 2U);
    EXPECT_EQ(am::sideCounts.verdictsNotSent, notSent + 2);
    AmEnfFlow4 record4;
    AmEnfFlow6 record6;
    ASSERT_TRUE(am::nextEnfFlow(nullptr, record4) && am::nextEnfFlow(nullptr, record6));
    EXPECT_TRUE(record4.untold && record6.untold) << "so that people can be told";
}

// A thread that has begun and got as far as it can.
std::thread begun(const std::function<void()> &run) {
    std::atomic<bool> running{false};
    std::thread thread([&running, run] {
        running = true;
        run();
    });
    while (!running) std::this_thread::yield();
    for (int looks = 0; looks < 5000; looks++) std::this_thread::yield();
    return thread;
}

TEST_F(VerdictTest, WaitsForAChangeOfTheModel) {
    enforce(3, "netflix");
    amModelLock.lock();
    std::thread engine = begun([] {
        const capture_flow_info info = v4(3);
        am_capture_flow_func(&info);
    });
    EXPECT_TRUE(takeSent().empty());
    amModelLock.unlock();
    engine.join();
    EXPECT_EQ(takeSent().size(), 1U);
}

TEST_F(VerdictTest, HoldsUpTheClosingOfItsSocket) {
    control_nls = mnl_socket_open(NETLINK_ROUTE);
    amModelLock.lockShared();
    std::thread closing = begun(amCloseNetLinkSockets);
    EXPECT_TRUE(control_nls);
    amModelLock.unlockShared();
    closing.join();
    EXPECT_FALSE(control_nls);
}

// An engine may report from threads of its own while the lists change and mirroring is switched off.
TEST_F(VerdictTest, NothingIsRecordedAfterMirroringIsOff) {
    enforce(3, "netflix");
    std::atomic<bool> done{false};
    std::thread engine([&] {
        for (unsigned port = 0; !done; port++) {
            const capture_flow_info info = flow4("10.1.0.1", port & 0xffff, "10.1.0.2", port >> 16, 3);
            am_capture_flow_func(&info);
        }
    });
    for (int round = 0; round < 20; round++) {
        while (records() < 50) std::this_thread::yield();
        amNetLinkMirrorState(0);
        EXPECT_EQ(records(), 0U);
        amNetLinkMirrorState(1);
    }
    done = true;
    engine.join();
}

}  // namespace
