// The scripted engine and its variants.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "engine_host.h"
#include "packets.h"

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
