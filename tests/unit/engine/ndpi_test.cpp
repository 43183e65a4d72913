// The classifier on libndpi, over recorded traffic and over what an attacker may send.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <set>

#include "engine_host.h"
#include "packets.h"

namespace {

constexpr uint32_t kTableSize = 65536;
constexpr uint64_t kIdleTime = 120'000;
constexpr uint8_t kTcp = 6, kUdp = 17;

std::vector<Report> classify(EngineHost &engine, const std::vector<CapturedPacket> &packets) {
    for (const CapturedPacket &packet : packets) engine.packet(packet.bytes, packet.time);
    return takeReports();
}

std::vector<CapturedPacket> packetsWithPort(uint16_t port, uint8_t proto, size_t flows) {
    std::vector<CapturedPacket> found;
    std::set<std::pair<uint16_t, uint16_t>> seen;
    for (CapturedPacket &packet : readSample()) {
        engine::Packet parsed;
        if (!engine::parsePacket({packet.bytes.data(), packet.bytes.size() + 4}, parsed)) continue;
        const auto ports = std::minmax(parsed.tuple.srcPort, parsed.tuple.dstPort);
        if (parsed.tuple.proto != proto || ports.first != port) continue;
        if (!seen.contains(ports) && seen.size() == flows) continue;
        seen.insert(ports);
        found.push_back(std::move(packet));
    }
    return found;
}

// The packet between two other hosts: a flow of its own for every number.
Bytes inFlow(Bytes bytes, uint32_t number) {
    const bool v6 = !bytes.empty() && bytes[0] >> 4 == 6;
    for (const size_t address : {v6 ? 8U : 12U, v6 ? 24U : 16U})
        for (size_t i = 0; i < 3 && address + i < bytes.size(); i++)
            bytes[address + i] = static_cast<uint8_t>(bytes[address + i] + (number >> 8 * i));
    return bytes;
}

// "198.51.100.53 17/53": where a flow went.  Passive data connections have a port of their own each time.
std::string target(const Report &report) {
    const uint32_t port = report.dstPort < 1024 ? report.dstPort : 0;
    return report.dst + " " + std::to_string(report.proto) + "/" + std::to_string(port);
}

struct ClosePipe {
    void operator()(FILE *pipe) const { (void)pclose(pipe); }
};

// Names of the kit's index by id.
std::map<uint32_t, std::string> indexNames() {
    std::map<uint32_t, std::string> names;
    const std::unique_ptr<FILE, ClosePipe> pipe(popen("'" ENGINE_FOLDER "/ndpi-index'", "r"));
    char line[512];
    while (pipe && fgets(line, sizeof(line), pipe.get())) {
        const std::string text(line);
        const size_t first = text.find(','), second = text.find(',', first + 1);
        names[static_cast<uint32_t>(strtoul(line, nullptr, 10))] = text.substr(first + 1, second - first - 1);
    }
    return names;
}

}  // namespace

TEST(NdpiEngine, RecognisesRecordedTrafficOncePerFlow) {
    EngineHost engine("ndpi");
    engine.start();
    const std::vector<Report> during = classify(engine, readSample());
    engine.stop();
    EXPECT_TRUE(takeReports().empty()) << "every flow of the sample ends, or is certain, within it";

    using Names = std::multiset<std::string>;
    std::map<std::string, Names> found;
    for (const Report &report : during) {
        found[target(report)].insert(report.appName);
        const bool v6 = report.dst.find(':') != std::string::npos;
        EXPECT_EQ(report.src, v6 ? "2001:db8:1::11" : "192.0.2.11") << "clients speak first";
    }
    const std::map<std::string, Names> expected = {
        {"198.51.100.53 17/53", {"DNS", "DNS"}},
        {"198.51.100.53 6/53", {"DNS"}},
        {"2001:db8:2::53 17/53", {"DNS"}},
        {"198.51.100.80 6/80", {"HTTP", "HTTP"}},
        {"2001:db8:2::80 6/80", {"HTTP"}},
        {"198.51.100.80 6/443", {"TLS", "TLS", "Wikipedia", "NetFlix", "YouTube", "Github"}},
        {"2001:db8:2::80 6/443", {"TLS", "Wikipedia"}},
        {"198.51.100.22 6/22", {"SSH"}},
        {"2001:db8:2::22 6/22", {"SSH"}},
        {"198.51.100.21 6/21", {"FTP_CONTROL"}},
        {"2001:db8:2::21 6/21", {"FTP_CONTROL"}},
        {"198.51.100.21 6/0", {"Unknown"}},  // the bare numbers of a text file
        {"2001:db8:2::21 6/0", {"Unknown"}},
        {"198.51.100.123 17/123", {"NTP", "NTP"}},
        {"2001:db8:2::123 17/123", {"NTP", "NTP"}},
        {"198.51.100.80 1/0", {"ICMP"}},
        {"2001:db8:2::80 58/0", {"ICMPV6"}},
    };
    EXPECT_EQ(found, expected);

    const std::map<uint32_t, std::string> names = indexNames();
    for (const Report &report : during) {
        ASSERT_TRUE(names.contains(report.appId)) << report.appId;
        EXPECT_EQ(names.at(report.appId), report.appName);
    }
}

TEST(NdpiEngine, UndecidedFlowsAreReportedUnknownOnceIdle) {
    EngineHost engine("ndpi");
    engine.start();
    const uint64_t start = 1'000'000;
    engine.packet(ipv4(kUdp, udp(40000, 40001, Bytes(20, 0xa5))), start);
    engine.packet(ipv4(kUdp, udp(1, 1)), start + kIdleTime - 1);
    EXPECT_TRUE(takeReports().empty());
    engine.packet(ipv4(kUdp, udp(1, 1)), start + kIdleTime);
    const Report expected{"10.0.0.1", "10.0.0.2", 40000, 40001, kUdp, 0, 0, "Unknown"};
    EXPECT_EQ(takeReports(), std::vector{expected});
    engine.packet(ipv4(kUdp, udp(2, 2)), 0);  // a clock that is set back expires nothing
    EXPECT_TRUE(takeReports().empty());
}

TEST(NdpiEngine, AFloodPushesOutTheOldestAndExitReportsTheRest) {
    constexpr uint32_t kExtra = 100;
    EngineHost engine("ndpi");
    engine.start();
    Bytes packet = ipv4(kTcp, tcp(1, 9, engine::TCP_SYN));
    for (uint32_t i = 0; i < kTableSize + kExtra; i++) {
        packet[13] = static_cast<uint8_t>(i >> 16);
        putWord(packet, 14, i & 0xffff);
        engine.packet(packet);
    }
    const std::vector<Report> pushedOut = takeReports();
    ASSERT_EQ(pushedOut.size(), kExtra);
    EXPECT_EQ(pushedOut.front().src, "10.0.0.0");
    EXPECT_EQ(pushedOut.back().src, "10.0.0.99");
    engine.stop();
    EXPECT_EQ(takeReports().size(), kTableSize);
}

TEST(NdpiEngine, PacketsCutAnywhereDoNoHarm) {
    EngineHost engine("ndpi");
    engine.start();
    uint32_t flow = 0;
    for (const CapturedPacket &packet : readSample())
        for (size_t cut = 0; cut < packet.bytes.size(); cut += cut < 100 ? 1 : 61) {
            const auto end = packet.bytes.begin() + static_cast<ptrdiff_t>(cut);
            engine.packet(inFlow({packet.bytes.begin(), end}, flow++), packet.time);
        }
    engine.packet(Bytes(65535, 0x45), 1);
    engine.raw(nullptr, 0);
}

TEST(NdpiEngine, StartsAnewAfterItWasStopped) {
    EngineHost engine("ndpi");
    const std::vector<CapturedPacket> packets = packetsWithPort(22, kTcp, 1);
    engine.packet(packets[0].bytes);  // not started: nothing happens
    for (int i = 0; i < 3; i++) {
        engine.start();
        EXPECT_EQ(classify(engine, packets).size(), 1U);
        engine.stop();
    }
    engine.packet(packets[0].bytes);
    EXPECT_FALSE(engine.has("ndpi_init_detection_module")) << "the daemon would see it";
}
