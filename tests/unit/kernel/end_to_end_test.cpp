// The preload library and dpimod together, driven by a client that knows libmnl only.
#include <gtest/gtest.h>

#include <fstream>

#include "harness.h"
#include "packet_source.h"
#include "wire.h"

using harness::Client;
using harness::Dpimod;
using harness::field;

namespace {

// What the client's `read` answers for packets of these settings, its poll and CPU figures left out.
std::string expected(const std::string &settings, uint64_t copies = 0, uint64_t zero = 0) {
    std::vector<std::string> words;
    for (size_t at = 0; at < settings.size();) {
        const size_t end = std::min(settings.find(' ', at), settings.size());
        words.push_back(settings.substr(at, end - at));
        at = end + 1;
    }
    dpimod::GeneratorSettings generator;
    std::string error;
    EXPECT_TRUE(dpimod::parseGenerator(words, generator, error)) << error;
    dpimod::InputCounters counters;
    const auto source = dpimod::openGenerator(generator);
    uint64_t packets = 0, bytes = 0, sum = 0;
    for (dpimod::ByteView ip; source->next(ip, counters) == dpimod::PacketSource::Next::packet; ++packets) {
        bytes += ip.size();
        for (uint8_t byte : ip) sum = sum * 31 + byte;
    }
    return "packets=" + std::to_string(packets) + " bytes=" + std::to_string(bytes) +
           " copies=" + std::to_string(copies) + " zero=" + std::to_string(zero) +
           " odd=0 sum=" + std::to_string(sum);
}

std::string withoutTimes(const std::string &answer) {
    return answer.substr(0, answer.find(" polls="));
}

const std::string kOk = R"({"ok":true})";

// A daemon with both sockets, mirroring on.
class KernelEndToEnd : public ::testing::Test {
  protected:
    void start(const std::vector<std::string> &options = {}, const char *socket = "ring") {
        module = std::make_unique<Dpimod>(options);
        client = std::make_unique<Client>(module->socketPath());
        ASSERT_EQ(client->ask(std::string("open ") + socket), "ok");
        ASSERT_EQ(client->ask("mirror 1"), "ok");
    }
    // Waits until dpimod has seen something that happens behind its back.
    void until(const std::string &stat, uint64_t value) {
        for (int i = 0; i < 1000 && module->stat(stat) != value; ++i) usleep(2000);
        ASSERT_EQ(module->stat(stat), value);
    }
    std::string readGenerated(const std::string &settings, uint64_t count, const std::string &how = "") {
        client->begin("read " + std::to_string(count));
        EXPECT_EQ(module->ask("generate " + settings + how), kOk);
        return client->end();
    }
    std::unique_ptr<Dpimod> module;
    std::unique_ptr<Client> client;
};

}  // namespace

TEST_F(KernelEndToEnd, EverySortOfFrameArrivesWholeAndInOrder) {
    const struct {
        const char *name;
        std::vector<std::string> options;
        std::string settings;
        uint64_t copies, zero;
        const char *socket = "ring";
    } rows[] = {
        {"round the ring three times", {}, "flows=7 packets=3500 family=both proto=both", 0, 0},
        {"several messages a frame", {"--batch", "5"}, "flows=7 packets=9001", 0, 0},
        {"as large as a frame takes", {}, "flows=1 packets=2000 payload=4020", 0, 0},
        {"one byte more than a frame takes", {}, "flows=1 packets=2000 payload=4021", 2000, 0},
        {"copies among frames", {"--copy-every", "3"}, "flows=7 packets=3000 payload=1400", 1000, 0},
        {"copies among full frames", {"--copy-every", "4", "--batch", "3"}, "flows=7 packets=4000", 1000, 0},
        {"empty frames among others", {"--zero-every", "2"}, "flows=7 packets=2001", 0, 1000},
        {"no ring", {"--no-ring"}, "flows=7 packets=3000 payload=1400", 0, 0, "plain"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        start(row.options, row.socket);
        const uint64_t count = field(expected(row.settings), "packets");
        EXPECT_EQ(withoutTimes(readGenerated(row.settings, count)),
                  expected(row.settings, row.copies, row.zero));
        EXPECT_EQ(module->stat("mirrored"), count);
        EXPECT_EQ(module->stat("beyond_receive_buffer"), 0U);
    }
}

TEST_F(KernelEndToEnd, ASleepingReaderIsWokenForEveryPacketAndDoesNotSpin) {
    start();
    const std::string woken = readGenerated("flows=3 packets=500", 500, " rate=2000");
    EXPECT_EQ(withoutTimes(woken), expected("flows=3 packets=500"));
    // Usually one wake-up a packet, and never more.
    EXPECT_LE(field(woken, "polls"), 510U);
    const std::string idle = client->ask("idle 300");
    EXPECT_EQ(field(idle, "packets"), 0U);
    EXPECT_EQ(field(idle, "polls"), 1U);
    EXPECT_LT(field(idle, "cpu"), 100U);
}

TEST_F(KernelEndToEnd, AnOverrunIsReportedOnceAndTheRingGoesOn) {
    start();
    ASSERT_EQ(module->ask("generate flows=1 packets=5000 when-full=drop"), kOk);
    until("offered", 5000);
    EXPECT_EQ(module->stat("dropped_ring_full"), 5000U - 1024U);
    EXPECT_EQ(client->ask("error"), "POLLERR ENOBUFS then none");
    EXPECT_EQ(withoutTimes(client->ask("read 1024")), expected("flows=1 packets=1024"));
    EXPECT_EQ(withoutTimes(readGenerated("flows=2 packets=2000", 2000)), expected("flows=2 packets=2000"));
}

TEST_F(KernelEndToEnd, AnOverrunOfTheControlSocketReachesEpoll) {
    start();
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(module->ask("overrun control"), kOk);
        EXPECT_EQ(client->ask("control-error"), "EPOLLERR ENOBUFS then none");
        // Messages pass on the same socket as before.
        ASSERT_EQ(module->ask("inject-control 10000000010000000000000000000000"), kOk);
        EXPECT_EQ(client->ask("reports 2"), "datagrams=2 longest=16 total=32 woken=1");
    }
}

TEST_F(KernelEndToEnd, NothingIsMirroredUntilMirroringIsOn) {
    start();
    ASSERT_EQ(client->ask("mirror 0"), "ok");
    until("configs", 3);
    ASSERT_EQ(module->ask("generate flows=1 packets=100"), kOk);
    EXPECT_EQ(field(client->ask("idle 100"), "packets"), 0U);
    ASSERT_EQ(client->ask("mirror 1"), "ok");
    EXPECT_EQ(withoutTimes(client->ask("read 100")), expected("flows=1 packets=100"));
}

TEST_F(KernelEndToEnd, PortIdsAreUniqueAndFreeAgainOnceTheirHolderEnds) {
    start();
    Client second(module->socketPath());
    const std::string open = "open ring " + std::to_string(client->process().pid());
    EXPECT_EQ(second.ask(open), "error bind: Address already in use");
    client->process().kill();
    until("clients", 1);  // the second's refused socket
    EXPECT_EQ(module->stat("registered"), UINT64_MAX * 0);
    EXPECT_NE(module->ask("stats").find("\"mirror\":false"), std::string::npos);
    Client third(module->socketPath());
    ASSERT_EQ(third.ask(open), "ok");
    ASSERT_EQ(third.ask("mirror 1"), "ok");
    third.begin("read 10");
    ASSERT_EQ(module->ask("generate flows=1 packets=10"), kOk);
    EXPECT_EQ(withoutTimes(third.end()), expected("flows=1 packets=10"));
}

TEST_F(KernelEndToEnd, WithoutAModuleSocketsAreRefusedAndSendsFail) {
    start();
    ASSERT_EQ(module->ask("quit"), kOk);
    EXPECT_EQ(module->process().wait(), 0);
    EXPECT_EQ(client->ask("mirror 1"), "error send: Connection refused");
    Client late(module->socketPath());
    EXPECT_EQ(late.ask("open ring"), "error open: Protocol not supported");
}

TEST_F(KernelEndToEnd, ACurrentKernelRefusesTheRing) {
    module = std::make_unique<Dpimod>(std::vector<std::string>{"--no-ring"});
    client = std::make_unique<Client>(module->socketPath());
    EXPECT_EQ(client->ask("open ring"), "error ring: Protocol not available");
}

TEST_F(KernelEndToEnd, VerdictsAreCountedReportedAndAgedPerFlow) {
    start({"--report-interval", "0", "--access-profile", "guest", "--reports-per-message", "40"});
    ASSERT_EQ(client->ask("verdicts 1"), "ok");
    EXPECT_EQ(field(readGenerated("flows=100 packets=1000 family=both", 1000), "packets"), 1000U);
    ASSERT_EQ(module->ask("wait"), kOk);
    EXPECT_EQ(module->stat("results"), 1000U);
    EXPECT_EQ(module->stat("messages_with_problems"), 0U);
    EXPECT_EQ(module->stat("classified_flows"), 100U);
    const std::string verdicts = module->ask("verdicts");
    EXPECT_NE(
        verdicts.find(
            R"("first":"10.0.0.0","second":"198.18.0.0","proto":17,"first_port":32768,"second_port":80,)"
            R"("match":1,"results":10,"app_id":7,"app_name":"Example","group":"Group","packets":10,"bytes":920)"),
        std::string::npos)
        << verdicts;

    ASSERT_EQ(module->ask("report-now"), kOk);
    EXPECT_EQ(field(client->ask("reports 3"), "datagrams"), 3U);
    ASSERT_EQ(module->ask("age-all"), kOk);
    const std::string aged = client->ask("reports 3");
    EXPECT_EQ(field(aged, "datagrams"), 3U);
    EXPECT_LE(field(aged, "longest"), 4096U);
    EXPECT_EQ(module->stat("aged"), 100U);
    EXPECT_EQ(module->stat("flows"), 0U);
    EXPECT_NE(module->events().find(R"("aged":1,"bytes":920,"packets":10,"access_profile":"guest")"),
              std::string::npos);
}

TEST_F(KernelEndToEnd, ReportsWaitForAReaderThatIsBusy) {
    // More than the queue holds.
    start({"--report-interval", "0", "--reports-per-message", "1", "--queue-bytes", "8192"});
    ASSERT_EQ(client->ask("verdicts 1"), "ok");
    readGenerated("flows=2000 packets=2000", 2000);
    ASSERT_EQ(module->ask("wait"), kOk);
    ASSERT_EQ(module->ask("report-now"), kOk);
    EXPECT_EQ(field(client->ask("reports 2000"), "datagrams"), 2000U);
}

TEST_F(KernelEndToEnd, InjectedBytesArriveAsTheyAre) {
    start();
    const std::string packet = "1c0000001700000000000000000000000200000008000100 45aabbcc";
    ASSERT_EQ(module->ask("inject-hex " + packet), kOk);
    ASSERT_EQ(module->ask("inject-zero"), kOk);
    ASSERT_EQ(module->ask("inject-copy " + packet), kOk);
    EXPECT_EQ(withoutTimes(client->ask("read 2")).find("packets=2 bytes=8 copies=1 zero=1 odd=0"), 0U);
    // A COPY frame before its message: the reader keeps looking at it, and finds the message of the next.
    ASSERT_EQ(module->ask("inject-copy-empty"), kOk);
    EXPECT_EQ(field(client->ask("idle 20"), "packets"), 0U);
    ASSERT_EQ(module->ask("inject-copy " + packet), kOk);
    EXPECT_EQ(field(client->ask("read 1"), "copies"), 1U);
    for (const char *bad :
         {"inject-hex 0g", "inject-hex 123", "fault packet nonsense", "set colour red", "play", "fly"})
        EXPECT_EQ(module->ask(bad).find(R"({"ok":false,"error":)"), 0U) << bad;
}

TEST_F(KernelEndToEnd, AFileIsReplayedToItsEndAndTheModuleLeaves) {
    const harness::Scratch scratch;
    // The smallest pcapng: section, raw IP interface, one packet of 20 bytes.
    const char *kFile =
        "0a0d0d0a 1c000000 4d3c2b1a 01000000 ffffffffffffffff 1c000000"
        "01000000 14000000 65000000 00000000 14000000"
        "06000000 34000000 00000000 00000000 00000000 14000000 14000000"
        "45000014000000004001000 00a0000010a000002 34000000";
    const auto bytes = dpimod::parseHex(kFile);
    ASSERT_TRUE(bytes);
    std::ofstream(scratch.path("file"))
        .write(reinterpret_cast<const char *>(bytes->data()), static_cast<std::streamsize>(bytes->size()));
    start({"--loop", "50", "--exit-when-done", scratch.path("file")});
    EXPECT_EQ(field(client->ask("read 50"), "bytes"), 1000U);
    EXPECT_EQ(module->process().wait(), 0);
    EXPECT_NE(module->events().find(R"("event":"totals","totals":{"registered":true)"), std::string::npos);
    EXPECT_EQ(field(module->events(), "mirrored"), 50U);
}
