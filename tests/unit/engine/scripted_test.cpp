// The scripted engine and its variants.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <thread>

#include "engine_host.h"
#include "packets.h"
#include "rules.h"

namespace {

std::vector<uint32_t> appIds(const std::vector<Report> &reports) {
    std::vector<uint32_t> ids;
    for (const Report &report : reports) ids.push_back(report.appId);
    return ids;
}

// Some applications without a rule file: ids 1, 0 and 55535, and a port that is not reported.
void someFlows(EngineHost &engine) {
    for (const uint16_t port : std::initializer_list<uint16_t>{10001, 10000, 65535, 443}) {
        engine.packet(ipv4(17, udp(5, port)));
        engine.packet(answer(ipv4(17, udp(5, port))));
    }
}

}  // namespace

TEST(ScriptedEngine, ThePortIsTheApplication) {
    EngineHost engine("scripted");
    engine.start();
    someFlows(engine);
    EXPECT_EQ(appIds(takeReports()), (std::vector<uint32_t>{1, 0, 55535}));
    engine.packet(ipv6(6, tcp(1234, 10091, engine::TCP_SYN)));
    const Report expected{"fd00::1", "fd00::2", 1234, 10091, 6, 91, 0, ""};
    EXPECT_EQ(takeReports(), std::vector{expected});
}

TEST(ScriptedEngine, RemembersEveryFlowOfManyAndForgetsThemAtTheEnd) {
    constexpr uint32_t kFlows = 200'000;
    EngineHost engine("scripted");
    Bytes packet = ipv4(17, udp(1, 10007));
    for (const uint32_t expected : {kFlows, 0U, kFlows}) {
        if (expected) engine.start();
        for (uint32_t i = 0; i < kFlows; i++) {
            packet[13] = static_cast<uint8_t>(i >> 16);
            putWord(packet, 14, i & 0xffff);
            engine.packet(packet);
        }
        EXPECT_EQ(takeReports().size(), expected);
        if (!expected) engine.stop();
    }
}

TEST(ScriptedEngine, RuleFilesChangeTheAnswers) {
    using engine::kNotReported;
    const std::string path = testing::TempDir() + "engine.rules." + std::to_string(getpid());
    std::ofstream(path)
        << "# answers\nport 443 91\n\n  proto 1 81   # ping\nport 10007 7\nstate 5\nflows 10\n"
           "report packet\nport 70000 1\nport 1\nproto 256 1\nport 1 2 3\nfoo 1\nflows 0\n"
           "default x\nstate -1\nreport all\n";
    const auto rules = std::make_unique<engine::Rules>();
    engine::defaultRules(*rules, 100);
    testing::internal::CaptureStderr();
    engine::readRules(*rules, path.c_str());
    const std::string complaints = testing::internal::GetCapturedStderr();
    unlink(path.c_str());
    for (int line = 9; line <= 17; line++)
        EXPECT_NE(complaints.find(":" + std::to_string(line) + ": not a rule"), std::string::npos) << line;
    EXPECT_EQ(std::count(complaints.begin(), complaints.end(), '\n'), 9);

    engine::Tuple tuple{};
    const auto answer = [&](uint8_t proto, uint16_t port) {
        tuple.proto = proto;
        tuple.dstPort = port;
        return applicationOf(*rules, tuple);
    };
    EXPECT_EQ(answer(6, 443), 91U);
    EXPECT_EQ(answer(1, 0), 81U);
    EXPECT_EQ(answer(6, 10007), 7U);
    EXPECT_EQ(answer(6, 10008), 108U);
    EXPECT_EQ(answer(6, 80), kNotReported);
    EXPECT_EQ(rules->flowState, 5U);
    EXPECT_EQ(rules->maxFlows, 10U);
    EXPECT_TRUE(rules->everyPacket);
}

TEST(EngineVariants, OfferTheEntriesThatTheirNameSays) {
    const struct {
        const char *name;
        bool start, packet, exit;
    } rows[] = {
        {"scripted", true, true, true},  {"no_start", false, true, true}, {"no_packet", true, false, true},
        {"no_exit", true, true, false},  {"noop", true, true, true},      {"threads", true, true, true},
        {"handover", true, true, true},  {"ndpi", true, true, true},      {"exit_reports", true, true, true},
        {"other_ids", true, true, true}, {"blocking", true, true, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const EngineHost engine(row.name);
        EXPECT_EQ(engine.has("test_capture"), row.start);
        EXPECT_EQ(engine.has("pcap_packet"), row.packet);
        EXPECT_EQ(engine.has("test_capture_exit"), row.exit);
    }
    EXPECT_EQ(dlopen(EngineHost::path("unresolved").c_str(), RTLD_NOW | RTLD_GLOBAL), nullptr);
}

TEST(EngineVariants, AnswerAsTheirNameSays) {
    const struct {
        const char *name;
        std::vector<uint32_t> running, stopping;
    } rows[] = {
        {"no_start", {1, 0, 55535}, {}},
        {"other_ids", {501, 500, 56035}, {}},
        {"exit_reports", {}, {1, 0, 55535}},
        {"noop", {}, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EngineHost engine(row.name);
        engine.start();
        someFlows(engine);
        EXPECT_EQ(appIds(takeReports()), row.running);
        engine.stop();
        EXPECT_EQ(appIds(takeReports()), row.stopping);
    }
}

TEST(EngineVariants, OwnThreadsReportUntilTheEngineIsStopped) {
    EngineHost engine("threads");
    engine.start();
    bool first = false, second = false;
    for (int i = 0; i < 5000 && !(first && second); i++) {
        for (const Report &report : takeReports()) {
            first |= report.src == "198.18.0.1";
            second |= report.src == "198.18.0.2";
            EXPECT_EQ(report.appId, 1U);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(first && second);
    engine.stop();
    takeReports();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(takeReports().empty());
}

TEST(EngineVariants, HandoverBreachesAreTold) {
    if (access("/flash", F_OK) == 0) GTEST_SKIP() << "the engine would write to /flash";
    EngineHost engine("handover");
    const Bytes packet = ipv4(17, udp(5, 10001));
    const auto breach = [&] {
        testing::internal::CaptureStderr();
        engine.packet(packet);
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(breach(), "pcap_packet entered before test_capture returned\n");
    engine.start();
    EXPECT_EQ(breach(), "");
    engine.stop();
    EXPECT_EQ(breach(), "pcap_packet entered during or after test_capture_exit\n");
}
