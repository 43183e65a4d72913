#include "flows/enf_flow_db.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <thread>

#include "core/log.h"
#include "flows/kernel_side.h"
#include "flows/mirroring.h"
#include "unit/switch/support.h"

namespace {

class EnfFlowDb : public NetlinkTest {
  protected:
    static void classify(const char *source, unsigned sourcePort, const char *destination,
                         unsigned destinationPort, uint32_t appId) {
        const capture_flow_info info = flow4(source, sourcePort, destination, destinationPort, appId);
        EXPECT_EQ(amUpdateEnfFlowDb(&info), 1);
    }
    static void classify6(const char *source, const char *destination, uint32_t appId) {
        const capture_flow_info info = flow6(source, 1000, destination, 80, appId);
        EXPECT_EQ(amUpdateEnfFlowDb6(&info), 1);
    }
    static AmEnfKey4 key(const char *source, unsigned sourcePort, const char *destination,
                         unsigned destinationPort) {
        return {ip4(source),
                ip4(destination),
                static_cast<uint16_t>(sourcePort),
                static_cast<uint16_t>(destinationPort),
                IPPROTO_TCP,
                {}};
    }
    static AmEnfKey6 key6(const char *source, const char *destination) {
        return {ip6(source), ip6(destination), 1000, 80, IPPROTO_TCP, {}};
    }
    // The calls of the statistics reports.
    static AmEnfFlow4 *find(const AmEnfKey4 &key) {
        const AmGuard guard(amEnfFlowLock);
        return amSearchEnfFlowDb(&key);
    }
    static AmEnfFlow6 *find(const AmEnfKey6 &key) {
        const AmGuard guard(amEnfFlowLock);
        return amSearchEnfFlowDb6(&key);
    }
    static void report(auto *flow, uint16_t aged) {
        const AmGuard guard(amEnfFlowLock);
        flow->aged = aged;
    }
    static unsigned count() {
        const AmGuard guard(amEnfFlowLock);
        return rbtCount(&amEnfFlowDb);
    }
    static unsigned count6() {
        const AmGuard guard(amEnfFlowLock);
        return rbtCount(&amEnfFlowDb6);
    }
};

TEST_F(EnfFlowDb, AgedFlowIsRenewedOrSwept) {
    classify("10.0.0.1", 1, "10.0.0.2", 80, 3);
    classify("10.0.0.1", 2, "10.0.0.2", 80, 3);
    classify6("2001:db8::1", "2001:db8::2", 3);
    classify6("2001:db8::1", "2001:db8::3", 3);
    AmEnfFlow4 *renewed = find(key("10.0.0.1", 1, "10.0.0.2", 80));
    AmEnfFlow6 *renewed6 = find(key6("2001:db8::1", "2001:db8::2"));
    report(renewed, 1);
    report(find(key("10.0.0.1", 2, "10.0.0.2", 80)), 255);
    report(renewed6, 2);
    report(find(key6("2001:db8::1", "2001:db8::3")), 1);
    renewed->startTime = renewed6->startTime = 100;

    classify("10.0.0.1", 1, "10.0.0.2", 80, 65537);
    classify6("2001:db8::1", "2001:db8::2", 7);
    amProcessEnfFlowDbTimer(&amEnfFlowDbTimer);

    EXPECT_EQ(find(key("10.0.0.1", 1, "10.0.0.2", 80)), renewed);
    EXPECT_EQ(renewed->appId, 1);
    EXPECT_EQ(renewed->aged, 0);
    EXPECT_GT(renewed->startTime, 100);
    EXPECT_EQ(renewed6->appId, 7);
    EXPECT_GT(renewed6->startTime, 100);
    EXPECT_FALSE(find(key("10.0.0.1", 2, "10.0.0.2", 80)));
    EXPECT_FALSE(find(key6("2001:db8::1", "2001:db8::3")));
    EXPECT_EQ(count() + count6(), 2U);
    EXPECT_EQ(amFlowCounter + amFlowCounter6, 4U);
}

TEST_F(EnfFlowDb, SweepsOnlyWhileMirroringIsOn) {
    classify("10.0.0.1", 1, "10.0.0.2", 80, 3);
    report(find(key("10.0.0.1", 1, "10.0.0.2", 80)), 1);
    const TestLog log(AM_LOG_DEBUG);
    for (const int state : {0, 1}) {
        amAdminState = state;
        amProcessEnfFlowDbTimer(&amEnfFlowDbTimer);
        EXPECT_EQ(count(), state == 1 ? 0U : 1U);
        EXPECT_EQ(log.lines().size(), static_cast<size_t>(state) + 1);  // counters at every expiry
    }
    EXPECT_TRUE(log.lines()[0].starts_with("[DEBUG]: Packet Counter ["));
    EXPECT_NE(log.lines()[0].find("] : Flow4 Counter [1] : Flow6 Counter [0] : Stats Counter ["),
              std::string::npos);
}

TEST_F(EnfFlowDb, EveryFieldTellsFlowsApart) {
    const capture_flow_info base = flow4("10.0.0.1", 1, "10.0.0.2", 2, 0);
    capture_flow_info udp = base, wide = base;
    udp.proto = IPPROTO_UDP;
    wide.src_port |= 0x10000;  // the same flow: 16 bits of the word are the port
    wide.proto |= 0x100;
    const capture_flow_info flows[] = {base,
                                       flow4("10.0.0.3", 1, "10.0.0.2", 2, 1),
                                       flow4("10.0.0.1", 1, "10.0.0.3", 2, 2),
                                       flow4("10.0.0.1", 3, "10.0.0.2", 2, 3),
                                       flow4("10.0.0.1", 1, "10.0.0.2", 3, 4),
                                       flow4("10.0.0.2", 2, "10.0.0.1", 1, 5),  // the reverse
                                       udp,
                                       wide};
    for (const capture_flow_info &info : flows) amUpdateEnfFlowDb(&info);
    EXPECT_EQ(count(), 7U);
    EXPECT_EQ(find(key("10.0.0.2", 2, "10.0.0.1", 1))->appId, 5);
    EXPECT_EQ(find(key("10.0.0.1", 1, "10.0.0.3", 2))->appId, 2);

    classify6("2001:db8::1", "2001:db8::2", 1);
    classify6("2001:db8::1", "2001:db8::3", 2);
    classify6("2001:db8::2", "2001:db8::1", 3);
    EXPECT_EQ(count6(), 3U);
    EXPECT_EQ(find(key6("2001:db8::1", "2001:db8::2"))->appId, 1);
    EXPECT_EQ(find(key6("2001:db8::1", "2001:db8::3"))->appId, 2);
}

TEST_F(EnfFlowDb, SearchReadsTheFiveFieldsOnly) {
    classify("10.0.0.1", 1, "10.0.0.2", 80, 3);
    classify6("2001:db8::1", "2001:db8::2", 3);
    AmEnfKey4 four = key("10.0.0.1", 1, "10.0.0.2", 80);
    AmEnfKey6 six = key6("2001:db8::1", "2001:db8::2");
    memset(four.zero, 'q', sizeof four.zero);  // a queue entry's rule name begins here
    memset(six.zero, 'q', sizeof six.zero);
    EXPECT_TRUE(find(four));
    EXPECT_TRUE(find(six));

    const TestLog log(AM_LOG_ERROR);
    const AmGuard guard(amEnfFlowLock);
    EXPECT_FALSE(amSearchEnfFlowDb(nullptr));
    EXPECT_FALSE(amSearchEnfFlowDb6(nullptr));
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_TRUE(log.lines()[0].ends_with(" k4 null !!"));
    EXPECT_TRUE(log.lines()[1].ends_with(" k6 null !!"));
}

// The order is part of what a dump shows: addresses numerically, ports as they lie in memory.
template <class Flow>
void expectBytewiseOrder(int (*compare)(const RbtNode *, const RbtNode *)) {
    std::mt19937 random(1);
    constexpr size_t kFields = offsetof(decltype(Flow::key), zero);
    for (int i = 0; i < 20'000; i++) {
        Flow one{}, other{};
        auto *a = reinterpret_cast<uint8_t *>(&one.key), *b = reinterpret_cast<uint8_t *>(&other.key);
        for (size_t at = 0; at < kFields; at++) a[at] = b[at] = static_cast<uint8_t>(random());
        if (i % 16 != 0) b[random() % kFields] = static_cast<uint8_t>(random());
        if (i % 2 != 0) b[random() % kFields] ^= 0x80;
        const int expected = memcmp(a, b, sizeof one.key);
        const int got = compare(&one.node, &other.node);
        ASSERT_EQ(got < 0, expected < 0);
        ASSERT_EQ(got > 0, expected > 0);
    }
}

TEST_F(EnfFlowDb, KeysCompareAsBytes) {
    expectBytewiseOrder<AmEnfFlow4>(amEnf_key4_compare);
    expectBytewiseOrder<AmEnfFlow6>(amEnf_key6_compare);
}

std::vector<uint16_t> visited;

TEST_F(EnfFlowDb, VisitsInKeyOrderWithoutTheLock) {
    classify("10.0.0.9", 1, "10.0.0.2", 80, 3);
    classify("9.255.0.1", 1, "10.0.0.2", 80, 1);
    classify("10.0.0.1", 1, "10.0.0.2", 80, 2);
    find(key("10.0.0.9", 1, "10.0.0.2", 80))->startTime += 3600;  // the clock has been set back since
    visited.clear();
    forEachEnfFlow4([](const AmEnfFlow4 &flow) {
        visited.push_back(flow.appId);
        if (flow.appId == 2) classify("10.0.0.5", 1, "10.0.0.2", 80, 7);  // the lock is free meanwhile
    });
    EXPECT_EQ(visited, (std::vector<uint16_t>{1, 2, 7, 3}));
}

// Against a model: random classifications, aged reports and sweeps.
TEST_F(EnfFlowDb, FollowsItsModel) {
    struct Flow {
        uint16_t appId;
        bool aged;
    };
    std::map<unsigned, Flow> model;
    std::mt19937 random(2);
    uint64_t inserted = 0;
    for (int step = 0; step < 40'000; step++) {
        const auto port = static_cast<unsigned>(random() % 3000);
        const auto appId = static_cast<uint16_t>(random() % kApps);
        switch (random() % 4) {
            case 0: {
                AmEnfFlow4 *flow = find(key("10.0.0.1", port, "10.0.0.2", 80));
                const auto known = model.find(port);
                ASSERT_EQ(flow != nullptr, known != model.end());
                if (!flow) break;
                ASSERT_EQ(flow->appId, known->second.appId);
                report(flow, 1);
                known->second.aged = true;
                break;
            }
            default: {
                classify("10.0.0.1", port, "10.0.0.2", 80, appId);
                const auto [known, added] = model.try_emplace(port, Flow{appId, false});
                if (added) inserted++;
                if (known->second.aged) known->second = {appId, false};
            }
        }
        if (step % 5000 == 4999) {
            amCleanAgedEnfFlowDb();
            std::erase_if(model, [](const auto &entry) { return entry.second.aged; });
        }
        ASSERT_EQ(count(), model.size());
        ASSERT_EQ(amFlowCounter, inserted);
    }
}

// Two engine threads classify while the event-loop thread searches, marks, sweeps, visits and empties.
TEST_F(EnfFlowDb, WalksAndClassificationsMix) {
    std::atomic<bool> done{false};
    std::vector<std::thread> engines;
    for (const char *source : {"10.0.0.1", "10.0.0.7"})
        engines.emplace_back([source, &done] {
            const uint32_t from = ip4(source);
            std::mt19937 random(from);
            capture_flow_info info = flow4("10.0.0.1", 0, "10.0.0.2", 80, 3);
            capture_flow_info info6 = flow6("2001:db8::1", 0, "2001:db8::2", 80, 3);
            info.src_ip = from;
            while (!done) {
                info.src_port = info6.src_port = static_cast<unsigned>(random() % 512);
                amUpdateEnfFlowDb(&info);
                amUpdateEnfFlowDb6(&info6);
            }
        });
    for (unsigned round = 0; round < 60; round++) {
        while (count() < 200) std::this_thread::yield();
        for (unsigned port = 0; port < 512; port += 3) {
            const AmEnfKey4 probe = key("10.0.0.1", port, "10.0.0.2", 80);
            const AmGuard guard(amEnfFlowLock);
            if (AmEnfFlow4 *flow = amSearchEnfFlowDb(&probe)) flow->aged = 1;
        }
        amCleanAgedEnfFlowDb();
        amCleanAgedEnfFlowDb6();
        forEachEnfFlow4([](const AmEnfFlow4 &flow) { ASSERT_EQ(flow.appId, 3); });
        if (round % 4 == 3) {
            amCleanAllEnfFlowDb();
            amCleanAllEnfFlowDb6();
        }
    }
    done = true;
    for (std::thread &engine : engines) engine.join();
    amCleanAllEnfFlowDb();
    EXPECT_EQ(count(), 0U);
}

}  // namespace
