// The scripted engine and its variants.
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
