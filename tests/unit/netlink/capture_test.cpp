#include "netlink/capture.h"

#include <cstring>

#include "core/log.h"
#include "netlink/protocol.h"
#include "support.h"

namespace {

struct Handed {
    Bytes data;
    uint64_t len;
};
std::vector<Handed> handed;

void engine(const capture_pkt *pkt, const timeval *when) {
    EXPECT_GT(when->tv_sec, 1'600'000'000);
    if (pkt->data)
        handed.push_back({{pkt->data, pkt->data + (pkt->len - 4)}, pkt->len});
    else
        handed.push_back({{}, pkt->len});
}

class PacketCallback : public testing::Test {
  protected:
    void SetUp() override {
        const AmGuard gate(amEngineGate);
        process_pktptr = engine;
        handed.clear();
        amPacketCounter = 0;
    }
    void TearDown() override {
        const AmGuard gate(amEngineGate);
        process_pktptr = nullptr;
    }
    static int run(const Bytes &message) {
        alignas(nlmsghdr) char buffer[4096];
        memcpy(buffer, message.data(), message.size());
        const AmGuard gate(amEngineGate);
        return packet_cb(reinterpret_cast<nlmsghdr *>(buffer), nullptr);
    }
};

TEST_F(PacketCallback, MessageWithoutAttributesIsAnEmptyPacket) {
    print_debug = 1;  // has no first byte to show
    EXPECT_EQ(run(packetMessage({})), MNL_CB_OK);
    print_debug = 0;
    ASSERT_EQ(handed.size(), 1U);
    EXPECT_TRUE(handed[0].data.empty());
    EXPECT_EQ(handed[0].len, 0U);
    EXPECT_EQ(amPacketCounter, 1U);
}

// Lengths come from outside: a message cut short, its attribute claiming more than there is.
TEST_F(PacketCallback, NothingBeyondTheMessageIsHandedOn) {
    const Bytes whole = packetMessage({{DPI_PKT_A_DATA, Bytes(60, 0x45)}});
    for (size_t length = sizeof(nlmsghdr); length < whole.size(); length += MNL_ALIGNTO) {
        const std::unique_ptr<char[]> exact(new char[length]);
        memcpy(exact.get(), whole.data(), length);
        reinterpret_cast<nlmsghdr *>(exact.get())->nlmsg_len = static_cast<uint32_t>(length);
        const AmGuard gate(amEngineGate);
        packet_cb(reinterpret_cast<nlmsghdr *>(exact.get()), nullptr);
        ASSERT_TRUE(handed.back().data.empty()) << length;
    }
}

}  // namespace
