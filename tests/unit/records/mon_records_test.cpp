#include <atomic>
#include <thread>

#include "unit/records/records_fixture.h"

namespace {

class MonRecords : public RecordsTest {
  protected:
    static void store(uint32_t n, uint32_t appId, uint32_t family) {
        const capture_flow_info info = flow(n, appId, family);
        EXPECT_EQ(family == AM_IP_TYPE_IPV6 ? amUpdateMonFlow6(&info) : amUpdateMonFlow(&info), 1);
    }
    static void drain() { amProcessMonFlowDbLogging(nullptr); }

    struct Misses {
        uint32_t ipv4, ipv6;
        bool operator==(const Misses &) const = default;
    };
    static Misses misses() {
        const AmGuard guard(amMonQueueLock);
        return {amMonFlowMiss, amMonFlow6Miss};
    }
};

TEST_F(MonRecords, EngineValuesAreCutToTheirWidth) {
    capture_flow_info info = flow(1, 0);
    info.src_port = 0x12340050;
    info.proto = 0x111;
    amUpdateMonFlow(&info);
    drain();
    EXPECT_EQ(fileLines(kMonRecords).at(1), "IPv4,10.0.0.1,192.168.0.1,80,443,UDP,dns,-,2024-03-05 11:04:09");
}

TEST_F(MonRecords, FullQueueCountsWhatItMisses) {
    for (uint32_t n = 0; n < 250; n++) store(n, 0, AM_IP_TYPE_IPV4);
    for (uint32_t n = 0; n < 201; n++) store(n, 0, AM_IP_TYPE_IPV6);
    EXPECT_TRUE(log_.has("amUpdateMonFlow6 counter an: 200  miss: 1\n"));
    EXPECT_EQ(
        logCount("amUpdateMonFlow6 src-ip 2001:db8::c7 dst-ip 2001:db8:0:1::53 src_port 40199 dst_port 443 "
                 "l4_proto 6\n"),
        2U)
        << "of the flow stored last, also when there is no room";
    drain();
    EXPECT_EQ(fileLines(kMonRecords).size(), 1U + 200 + 200);
    EXPECT_EQ(misses(), (Misses{50, 1}));

    store(7, 0, AM_IP_TYPE_IPV4);
    drain();
    EXPECT_EQ(fileLines(kMonRecords).size(), 1U + 200 + 200 + 1);
    EXPECT_EQ(misses(), (Misses{50, 1})) << "never reset";
}

// Each flow comes out once or counts as missed once, wherever the drains fall.
TEST_F(MonRecords, DrainsLoseNothingThatIsStoredMeanwhile) {
    constexpr uint32_t kFlows = 20'000;
    logLevel = AM_LOG_NONE - 1;  // IPv6 lines would go to the log as well
    amMonLoggingThreshold = INT32_MAX;
    std::atomic<int> running{2};
    const auto storeAll = [&running](uint32_t family) {
        for (uint32_t n = 0; n < kFlows; n++) store(n, 0, family);
        running--;
    };
    std::thread ipv4(storeAll, AM_IP_TYPE_IPV4);
    std::thread ipv6(storeAll, AM_IP_TYPE_IPV6);
    while (running > 0) drain();
    ipv4.join();
    ipv6.join();
    drain();
    amMonLoggingThreshold = 1000;
    const Misses missed = misses();
    EXPECT_EQ(fileLines(kMonRecords).size() - 1 + missed.ipv4 + missed.ipv6, 2 * kFlows);
}

}  // namespace
