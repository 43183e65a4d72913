// The preload library and dpimod together, driven by a client that knows libmnl only.
#include <gtest/gtest.h>

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
        const std::string got = withoutTimes(readGenerated(row.settings, count));
        const uint64_t zero =
            field(got, "zero");  // a ring that is full just then goes without its empty frame
        EXPECT_LE(zero, row.zero);
        EXPECT_GE(zero, row.zero * 9 / 10);
        EXPECT_EQ(got, expected(row.settings, row.copies, zero));
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
