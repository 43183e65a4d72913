#include "netfilter/pace.h"

#include <gtest/gtest.h>

namespace {

struct Flow {
    am::NflogPace pace;
    int64_t now = 1'000'000;
    int changes = 0;

    // The kernel hands over what came in each millisecond.
    uint32_t after(int milliseconds, uint32_t packetsEach) {
        changes = 0;
        for (int i = 0; i < milliseconds; i++) changes += pace.see(packetsEach, ++now) ? 1 : 0;
        return pace.batch().packets;
    }
};

TEST(NflogPace, ABatchIsWhatComesInAFewMilliseconds) {
    Flow flow;
    EXPECT_EQ(flow.after(25, 0), 1U);
    EXPECT_EQ(flow.changes, 0);
    EXPECT_EQ(flow.after(40, 8), 32U);
    EXPECT_EQ(flow.after(8, 60), 128U) << "a burst";
    EXPECT_EQ(flow.pace.batch().bytes, 65536U - 512);
    // A rate that only wavers changes nothing.
    flow.after(400, 30);
    for (const uint32_t packets : {25U, 35U, 22U, 40U}) {
        flow.after(100, packets);
        EXPECT_EQ(flow.changes, 0) << packets;
    }
}

TEST(NflogPace, TheFirstPacketAfterAFloodAsksForSingleOnes) {
    Flow flow;
    flow.after(100, 1000);
    flow.now += 60'000;
    EXPECT_TRUE(flow.pace.see(1, flow.now));
    EXPECT_EQ(flow.pace.batch().packets, 1U);
}

}  // namespace
