#include "kit/engine.h"

#include <pthread.h>
#include <unistd.h>

#include <climits>
#include <thread>

#include "appmodel/app_pool.h"
#include "kit/kit_update.h"
#include "kit_world.h"

// What the engines report.
namespace {
std::atomic<int> started, stopped;
std::atomic<uint64_t> packets, strays;  // calls, and those of them that found the engine not started
std::atomic<bool> gateHeldAtStart, gateHeldAtExit, entryOpenAtStart, entryOpenAtExit;

// Whether the calling thread left the gate free: an engine reports flows from here, on a lock further down.
bool gateHeld() NO_THREAD_SAFETY_ANALYSIS {
    if (!amEngineGate.tryLock()) return true;
    amEngineGate.unlock();
    return false;
}
}  // namespace

extern "C" {
__attribute__((visibility("default"))) void testEngineStarted(int *alive);
__attribute__((visibility("default"))) void testEnginePacket(const int *alive);
__attribute__((visibility("default"))) void testEngineStopped(int *alive);

void testEngineStarted(int *) {
    started++;
    entryOpenAtStart = amEngineLoaded();
    if (packets == 0) gateHeldAtStart = gateHeld();
}

void testEnginePacket(const int *alive) {
    packets++;
    if (*alive != 1) strays++;
}

void testEngineStopped(int *) {
    stopped++;
    entryOpenAtExit = amEngineLoaded();
    if (packets == 0) gateHeldAtExit = gateHeld();
}
}

namespace kit_test {

constexpr char kEngine[] = "/lib/libcapture.so";

class KitEngine : public KitTest {
  protected:
    void SetUp() override {
        KitTest::SetUp();
        started = stopped = 0;
        packets = strays = 0;
        gateHeldAtStart = gateHeldAtExit = entryOpenAtStart = entryOpenAtExit = false;
    }
    void TearDown() override {
        amQsCleanUp();
        amUnLoadQsKit();
        KitTest::TearDown();
    }
    static std::string built(const std::string &engine) {
        return std::string(KIT_TEST_ENGINES "/") + engine + ".so";
    }
    static int load(const std::string &engine) {
        shell("cp " + built(engine) + " " + kEngine);
        return amLoadQsKit();
    }
    // One packet, as the capture thread hands it over.
    static void packet() {
        const capture_pkt pkt{};
        const timeval now{};
        amEngineEnter();
        amEngineYield();
        if (process_pktptr) process_pktptr(&pkt, &now);
        amEngineLeave();
    }
};

struct EngineCase {
    const char *library;
    int fail, started, packets, stopped;
};

class KitEngineEntries : public KitEngine, public ::testing::WithParamInterface<EngineCase> {};

TEST_P(KitEngineEntries, AreUsedAsFarAsTheyExist) {
    const EngineCase &expected = GetParam();
    ASSERT_EQ(0, load(expected.library));
    EXPECT_EQ(expected.fail, fail);
    expectLog("LOAD QSKIT FAIL VALUE = " + std::to_string(expected.fail) + "\n");
    EXPECT_FALSE(exists(kEngine));
    EXPECT_EQ(expected.fail > 0 ? 1U : 0U, world.slept);
    packet();
    EXPECT_EQ(1, amQsCleanUp());
    EXPECT_FALSE(amEngineLoaded());
    packet();
    EXPECT_EQ(1, amUnLoadQsKit());
    EXPECT_EQ(expected.started, started);
    EXPECT_EQ(static_cast<uint64_t>(expected.packets), packets);
    EXPECT_EQ(expected.stopped, stopped);
}
INSTANTIATE_TEST_SUITE_P(
    Libraries, KitEngineEntries,
    ::testing::Values(EngineCase{"whole", 3, 1, 1, 1}, EngineCase{"no_start", 3, 0, 1, 1},
                      EngineCase{"no_packet", 2, 1, 0, 1}, EngineCase{"no_exit", 3, 1, 1, 0},
                      EngineCase{"no_entries", 1, 0, 0, 0}, EngineCase{"unresolved", 0, 0, 0, 0}),
    [](const auto &row) { return std::string(row.param.library); });

TEST_F(KitEngine, LibraryThatCannotBeOpenedIsNamedWithTheLoadersReason) {
    ASSERT_EQ(0, load("unresolved"));
    expectLog("dl open Failure (/lib/libcapture.so: undefined symbol: noSuchSymbolAnywhere) cmdbuff " +
              std::string(kEngine));
    writeFile(kEngine, "no library");
    ASSERT_EQ(0, amLoadQsKit());
    EXPECT_FALSE(exists(kEngine));
    EXPECT_FALSE(amEngineLoaded());
}

TEST_F(KitEngine, EngineCodeRunsOnTheMainThreadWithoutTheGateAndOutOfReachOfPackets) {
    ASSERT_EQ(0, load("whole"));
    amQsCleanUp();
    EXPECT_EQ(1, started);
    EXPECT_EQ(1, stopped);
    EXPECT_FALSE(gateHeldAtStart);
    EXPECT_FALSE(gateHeldAtExit);
    EXPECT_FALSE(entryOpenAtStart);
    EXPECT_FALSE(entryOpenAtExit);
}

TEST_F(KitEngine, UpdateReplacesTheEngineAndTheArray) {
    shell("mkdir -p /var/flash/switch/zor/app_mon/.tmp_/lib/ni && cp " + built("whole") +
          " /var/flash/switch/zor/app_mon/.tmp_/lib/ni/libcapture.so");
    amAppPoolShmSigCnt = 41;
    dpiQsKitUpdate();
    EXPECT_EQ(0, stopped);
    EXPECT_EQ(1, started);
    EXPECT_TRUE(amEngineLoaded());
    EXPECT_EQ(42U, amMaxAppIdCount);
    EXPECT_NE(nullptr, amActiveApp(41));
    amAppPoolShmSigCnt = 0;
    dpiQsKitUpdate();
    EXPECT_EQ(1, stopped);
    EXPECT_EQ(2, started);
    EXPECT_EQ(1U, amMaxAppIdCount);
}

// A thread as busy as the capture thread can be: packets never stop coming, so that nothing but the wish of
// the event-loop thread gets it off the gate.  A burst without an end tests stepping aside between
// packets, bursts of one the letting go before a wait.
class KitEngineGate : public KitEngine, public ::testing::WithParamInterface<int> {};

TEST_P(KitEngineGate, NoPacketReachesAnEngineThatIsNotStarted) {
    constexpr int kReloads = 1000;
    shell("cp " + built("whole") + " /lib/engine.kept");
    std::atomic<bool> over{false};
    std::thread capture([&over, burst = GetParam()] {
        const capture_pkt pkt{};
        const timeval now{};
        while (!over) {
            amEngineEnter();
            for (int i = 0; i < burst && !over; i++) {
                amEngineYield();
                if (process_pktptr) process_pktptr(&pkt, &now);
            }
            amEngineLeave();
        }
    });
    for (int i = 0; i < kReloads; i++) {
        ASSERT_EQ(0, link("/lib/engine.kept", kEngine));
        ASSERT_EQ(0, amLoadQsKit());
        if (i % 10 == 0) {
            const uint64_t before = packets;
            while (packets == before) std::this_thread::yield();
        }
        amQsCleanUp();
        amUnLoadQsKit();
    }
    over = true;
    capture.join();
    EXPECT_EQ(kReloads, started);
    EXPECT_EQ(kReloads, stopped);
    EXPECT_GE(packets, static_cast<uint64_t>(kReloads / 10));
    EXPECT_EQ(0U, strays);
}
INSTANTIATE_TEST_SUITE_P(Bursts, KitEngineGate, ::testing::Values(1, INT_MAX));

}  // namespace kit_test
