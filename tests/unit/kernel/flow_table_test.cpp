#include "flow_table.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "ring_writer.h"

using namespace dpimod;

namespace {

FiveTuple tuple(uint8_t host, bool reply = false) {
    FiveTuple flow;
    flow.proto = 6;
    flow.first = {{10, 0, 0, host}, 40000};
    flow.second = {{10, 0, 1, 1}, 443};
    if (reply) std::swap(flow.first, flow.second);
    return flow;
}

class KernelFlowTable : public ::testing::Test {
  protected:
    void packet(uint8_t host, size_t bytes = 100, bool reply = false) {
        table.count({tuple(host, reply), false, false}, bytes, now);
    }
    void closing(uint8_t host, bool reply, bool rst) {
        table.count({tuple(host, reply), !rst, rst}, 40, now);
    }
    void verdict(uint8_t host, uint8_t match = 1, bool reply = false) {
        Result result;
        result.flow = tuple(host, reply);
        result.match = match;
        result.appName = "App";
        table.record(result, now);
    }
    // Hosts of the flows that age at `when`, in order.
    std::vector<int> ageAt(uint64_t when) {
        std::vector<int> hosts;
        now = when;
        table.age(now, false, [&](const Flow &flow) {
            hosts.push_back(std::max(flow.tuple.first.address[3], flow.tuple.second.address[3]));
        });
        return hosts;
    }
    using Hosts = std::vector<int>;
    uint64_t now = 1000;
    FlowTable table{{.idle = 10000, .closed = 500, .flows = 4}};
};

}  // namespace

TEST_F(KernelFlowTable, BothDirectionsCountForOneFlowFromItsFirstPacket) {
    packet(2, 100);
    packet(2, 1000, true);
    verdict(2, 1, true);
    packet(2, 10);
    const Flow *flow = table.find(tuple(2));
    ASSERT_TRUE(flow);
    EXPECT_EQ(flow->packets, 3U);
    EXPECT_EQ(flow->bytes, 1110U);
    EXPECT_EQ(flow->tuple, tuple(2, true));  // the order of the verdict, which reports must repeat
    EXPECT_EQ(table.size(), 1U);
}

TEST_F(KernelFlowTable, ClosedConnectionsAgeSoonWhateverComesLate) {
    verdict(2);
    verdict(3);
    verdict(4);
    closing(2, false, false);
    closing(3, false, true);
    closing(4, false, false);
    EXPECT_EQ(ageAt(1499), Hosts{});
    EXPECT_EQ(ageAt(1500), Hosts{3});  // RST; the other two are half closed
    closing(2, true, false);
    closing(4, false, false);  // the same FIN again closes nothing
    EXPECT_EQ(ageAt(2100), Hosts{2});
    EXPECT_EQ(ageAt(11600), Hosts{4});
}

TEST_F(KernelFlowTable, ClassifiedFlowsAreKeptBeyondTheLimit) {
    for (uint8_t host = 2; host < 10; ++host) packet(host);
    EXPECT_EQ(table.size(), 4U);
    EXPECT_EQ(table.untracked(), 4U);
    verdict(9);
    packet(9, 70);
    ASSERT_TRUE(table.find(tuple(9)));
    EXPECT_EQ(table.find(tuple(9))->bytes, 70U);
}

TEST_F(KernelFlowTable, AgreesWithAPlainMapOverARandomRun) {
    struct Model {
        uint64_t packets = 0, seen = 0;
        bool fin[2] = {false, false}, closed = false;
    };
    std::map<int, Model> model;
    table.limits().flows = 1000;
    std::mt19937 random(7);
    for (int step = 0; step < 20000; ++step) {
        now += random() % 40;
        const auto host = static_cast<uint8_t>(1 + random() % 200);
        const bool reply = random() % 2;
        const bool fin = random() % 10 == 0;
        if (fin)
            closing(host, reply, false);
        else
            packet(host, 1, reply);
        Model &entry = model[host];
        ++entry.packets;
        if (!entry.closed) entry.seen = now;
        entry.fin[reply] = entry.fin[reply] || fin;
        entry.closed = entry.fin[0] && entry.fin[1];
        for (int aged : ageAt(now)) {
            ASSERT_TRUE(model.contains(aged));
            EXPECT_GE(now - model[aged].seen, model[aged].closed ? 500U : 10000U);
            model.erase(aged);
        }
        ASSERT_EQ(table.size(), model.size());
        for (const auto &[left, state] : model) {
            ASSERT_LT(now - state.seen, state.closed ? 500U : 10000U) << left << " should have aged";
        }
        if (!model.contains(host)) continue;  // a late packet of a flow that aged just now
        const Flow *flow = table.find(tuple(host));
        ASSERT_TRUE(flow);
        EXPECT_EQ(flow->packets, model[host].packets);
    }
}

namespace {

class KernelRing : public ::testing::Test {
  protected:
    static constexpr RingRequest kRequest{4096, 2, 1024, 8};
    FrameHeader *frame(uint32_t index) { return reinterpret_cast<FrameHeader *>(&memory[index * 1024]); }
    alignas(64) uint8_t memory[8192]{};
    ControlPage control{};
    RingWriter ring{memory, kRequest, &control};
};

}  // namespace

TEST_F(KernelRing, FillsFramesInOrderAndNeverOneThatTheReaderHas) {
    for (uint32_t i = 0; i < 8; ++i) {
        ASSERT_EQ(ring.nextFrame(), &memory[i * 1024 + 24]);
        ring.publish(i % 2 ? kFrameCopy : kFrameValid, 100 + i);
        EXPECT_EQ(frame(i)->status, i % 2 ? kFrameCopy : kFrameValid);
        EXPECT_EQ(frame(i)->length, 100 + i);
    }
    EXPECT_EQ(control.head, 0U);
    EXPECT_EQ(ring.nextFrame(), nullptr);
    frame(1)->status = kFrameUnused;  // out of turn: frame 0 is next
    EXPECT_EQ(ring.nextFrame(), nullptr);
    frame(0)->status = kFrameUnused;
    EXPECT_EQ(ring.nextFrame(), &memory[24]);
    EXPECT_FALSE(ring.drained());
    for (uint32_t i = 0; i < 8; ++i) frame(i)->status = kFrameUnused;
    EXPECT_TRUE(ring.drained());
}
