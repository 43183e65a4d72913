#include "switch/ring.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "core/log.h"
#include "flows/capture.h"
#include "flows/kernel_side.h"
#include "support.h"
#include "switch/protocol.h"
#include "switch/sockets.h"

namespace {

std::vector<Bytes> packets;

void engine(const capture_pkt *pkt, const timeval *) {
    packets.emplace_back(pkt->data, pkt->data + (pkt->data ? pkt->len - 4 : 0));
}

Bytes packetOf(uint8_t mark) {
    return packetMessage({{DPI_PKT_A_DATA, {0x45, mark}}});
}

// The daemon's ring over anonymous memory, with the test in the kernel's place.
class Ring : public testing::Test {
  protected:
    static constexpr uint32_t kFrames = 1024;
    static constexpr size_t kMapped = (kFrames + 1) * kMessageSize;  // behind the ring nothing can be read

    void SetUp() override {
        memory_ = mmap(nullptr, kMapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory_, MAP_FAILED);
        ASSERT_EQ(mprotect(frame(kFrames), kMapped - kFrames * kMessageSize, PROT_NONE), 0);
        mmap_ring.ring = memory_;
        mmap_ring.frame_idx = 0;
        mmap_ring.req.nm_frame_nr = kFrames;
        packet_nls = socket_.near;
        packet_portid = 0x10001;
        const AmGuard gate(amEngineGate);
        process_pktptr = engine;
        packets.clear();
        amPacketCounter = 0;
    }
    void TearDown() override {
        mmap_ring.ring = nullptr;
        packet_nls = nullptr;
        munmap(memory_, kMapped);
        const AmGuard gate(amEngineGate);
        process_pktptr = nullptr;
    }
    NlMmapHdr *frame(uint32_t index) const {
        return reinterpret_cast<NlMmapHdr *>(static_cast<char *>(memory_) + index * kMessageSize);
    }
    void fill(uint32_t index, const Bytes &messages) const {
        std::copy(messages.begin(), messages.end(), reinterpret_cast<uint8_t *>(frame(index) + 1));
        frame(index)->nm_len = static_cast<uint32_t>(messages.size());
        __atomic_store_n(&frame(index)->nm_status, NL_MMAP_VALID, __ATOMIC_RELEASE);
    }
    void copyFrame(uint32_t index) const { frame(index)->nm_status = NL_MMAP_COPY; }
    static am::Drained drain() {
        const AmGuard gate(amEngineGate);
        return am::drainPackets();
    }
    static Bytes marks() {
        Bytes out;
        for (const Bytes &packet : packets) out.push_back(packet.at(1));
        return out;
    }

    void *memory_ = nullptr;
    SocketPair socket_;
};

TEST_F(Ring, FramesAreReadInPlaceAndHandedBack) {
    fill(0, packetOf(1));
    fill(1, {});  // nothing in it
    fill(2, packetOf(2) + packetOf(3));
    frame(3)->nm_status = NL_MMAP_SKIP;
    EXPECT_EQ(drain(), am::Drained::empty);
    EXPECT_EQ(marks(), (Bytes{1, 2, 3}));
    EXPECT_EQ(mmap_ring.frame_idx, 3U);
    for (uint32_t i = 0; i < 3; i++) EXPECT_EQ(frame(i)->nm_status, NL_MMAP_UNUSED);
    EXPECT_EQ(frame(3)->nm_status, NL_MMAP_SKIP);
}

TEST_F(Ring, ForeignAttributeStopsItsFrameOnly) {
    fill(0, packetOf(1) + packetMessage({{DPI_PKT_A_DATA, {0x45, 9}}, {2, {}}}) + packetOf(2));
    fill(1, packetOf(3));
    EXPECT_EQ(drain(), am::Drained::empty);
    EXPECT_EQ(marks(), (Bytes{1, 3}));
    EXPECT_EQ(amPacketCounter, 2U);
    EXPECT_EQ(frame(0)->nm_status, NL_MMAP_UNUSED);
}

TEST_F(Ring, CopyFrameWaitsForItsMessage) {
    fill(0, packetOf(1));
    copyFrame(1);
    fill(2, packetOf(3));
    EXPECT_EQ(drain(), am::Drained::waiting);
    EXPECT_EQ(mmap_ring.frame_idx, 1U);
    EXPECT_EQ(frame(1)->nm_status, NL_MMAP_COPY);

    socket_.send(packetOf(2));
    EXPECT_EQ(drain(), am::Drained::empty);
    EXPECT_EQ(marks(), (Bytes{1, 2, 3}));
    EXPECT_EQ(frame(1)->nm_status, NL_MMAP_UNUSED);
}

TEST_F(Ring, MessagesThatDoNotFitAreSkipped) {
    const Bytes large = packetMessage({{DPI_PKT_A_DATA, Bytes(4200, 0x45)}});
    copyFrame(0);
    socket_.send(large);  // cut to 4,096 bytes by the receive call
    fill(1, packetOf(1));
    frame(1)->nm_len = 0xffffffff;  // beyond the frame: the message in it is whole all the same
    memcpy(frame(2) + 1, large.data(), 4072);
    frame(2)->nm_len = 4096;  // into the next frame's header
    frame(2)->nm_status = NL_MMAP_VALID;
    EXPECT_EQ(drain(), am::Drained::empty);
    EXPECT_EQ(marks(), Bytes{1});
    EXPECT_EQ(mmap_ring.frame_idx, 3U);
}

TEST_F(Ring, LengthBeyondTheLastFrameIsCutToIt) {
    mmap_ring.frame_idx = kFrames - 1;
    const size_t room = kMessageSize - sizeof(NlMmapHdr);
    const Bytes whole =
        packetMessage({{DPI_PKT_A_DATA, Bytes(room - packetMessage({{DPI_PKT_A_DATA, {}}}).size(), 7)}});
    ASSERT_EQ(whole.size(), room);
    fill(kFrames - 1, whole);
    frame(kFrames - 1)->nm_len = kMessageSize * 2;
    EXPECT_EQ(drain(), am::Drained::empty);
    EXPECT_EQ(marks(), Bytes{7});
}

TEST_F(Ring, FirstFrameFollowsTheLast) {
    for (uint32_t i = 0; i < kFrames; i++) fill(i, packetOf(static_cast<uint8_t>(i)));
    EXPECT_EQ(drain(), am::Drained::empty);
    EXPECT_EQ(amPacketCounter, kFrames);
    EXPECT_EQ(mmap_ring.frame_idx, 0U);
    fill(0, packetOf(7));
    EXPECT_EQ(drain(), am::Drained::empty);
    EXPECT_EQ(amPacketCounter, kFrames + 1);
}

using RingDeathTest = Ring;

TEST_F(RingDeathTest, NetlinkErrorsEndTheProcess) {
    Bytes foreign = packetMessage({{DPI_PKT_A_DATA, {0x45}}}, 77);  // neither the kernel's nor this port id
    Bytes error(36, 0);
    error[0] = 36;
    error[4] = NLMSG_ERROR;
    error[16] = 0xff;                  // error code not 0
    amLogOpen(nullptr, AM_LOG_ERROR);  // to standard error, which is what can be seen of a dead child
    for (const Bytes &message : {foreign, error}) {
        fill(0, message);
        EXPECT_EXIT(drain(), testing::ExitedWithCode(1), "mnl_cb_run error!!!");
    }
    mmap_ring.ring = nullptr;
    EXPECT_EXIT(drain(), testing::ExitedWithCode(1), "hdr is NULL");
}

// The thread as main runs it: frames are taken while it polls, the event-loop thread gets the gate in
// between, and it ends when asked although packets keep coming.
TEST_F(RingDeathTest, ThreadCapturesLetsInAndStops) {
    EXPECT_EXIT(
        {
            amPktCaptureThread();
            std::atomic<bool> done{false};
            std::thread kernel([&] {
                for (uint32_t i = 0; !done; i = (i + 1) % kFrames) {
                    while (frameStatus(frame(i)) != NL_MMAP_UNUSED && !done) std::this_thread::yield();
                    fill(i, packetOf(1));
                    if (i == 0) socket_.send({0});  // poll sees the socket readable from now on
                }
            });
            for (int round = 0; round < 50; round++) {
                while (amPacketCounter.load() < static_cast<uint64_t>(round) * 100) std::this_thread::yield();
                (void)amUnLoadQsKit();  // takes the gate to clear the entry
            }
            const bool ended = amStopCaptureThread();
            const uint64_t stopped = amPacketCounter;
            done = true;
            kernel.join();
            _exit(ended && stopped == amPacketCounter ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

}  // namespace
