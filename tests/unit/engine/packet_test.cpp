// Header reading, and the flow table that both of its users stand on.
#include "packet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <memory>
#include <random>

#include "flow_table.h"
#include "packets.h"

using namespace engine;

namespace {

// In memory of its own, so that a sanitizer sees a read past the end.
struct Parsed {
    std::unique_ptr<uint8_t[]> memory;
    bool ok;
    Packet packet;
};

Parsed parse(const Bytes &bytes) {
    Parsed result{std::make_unique<uint8_t[]>(bytes.size()), false, {}};
    std::copy(bytes.begin(), bytes.end(), result.memory.get());
    result.ok = parsePacket({result.memory.get(), bytes.size() + 4}, result.packet);
    return result;
}

Bytes changed(Bytes bytes, size_t at, uint8_t value) {
    bytes[at] = value;
    return bytes;
}

Bytes extension(uint8_t next, uint8_t length, size_t bytes, const Bytes &payload) {
    Bytes header(bytes);
    header[0] = next;
    header[1] = length;
    return joined(header, payload);
}

struct PacketCase {
    const char *name;
    Bytes bytes;
    bool ok;
    uint16_t srcPort, dstPort;
    uint8_t proto;
    size_t len;  // 0: all
};

Bytes chain(int headers) {
    Bytes bytes = udp(1, 2);
    for (int i = 0; i < headers; i++) bytes = extension(i ? 60 : 17, 0, 8, bytes);
    return ipv6(60, bytes);
}

const PacketCase kPackets[] = {
    {"IPv4 UDP", ipv4(17, udp(1234, 53)), true, 1234, 53, 17, 0},
    {"IPv4 with options", ipv4(6, tcp(40000, 80, TCP_SYN), Bytes(12)), true, 40000, 80, 6, 0},
    {"IPv4 without ports", ipv4(1, Bytes(8, 0xff)), true, 0, 0, 1, 0},
    {"padded by the link", joined(ipv4(17, udp(5, 6)), Bytes(18)), true, 5, 6, 17, 28},
    {"total length of 0", changed(changed(ipv4(17, udp(5, 6)), 2, 0), 3, 0), true, 5, 6, 17, 28},
    {"total length below the header's", changed(changed(ipv4(17, udp(5, 6)), 2, 0), 3, 19), false, 0, 0, 0,
     0},
    {"total length that leaves the ports out", changed(ipv4(17, udp(5, 6)), 3, 23), false, 0, 0, 0, 0},
    {"header length below 20", changed(ipv4(17, udp(5, 6)), 0, 0x44), false, 0, 0, 0, 0},
    {"header length beyond the packet", changed(ipv4(17, udp(5, 6)), 0, 0x4f), false, 0, 0, 0, 0},
    {"first fragment", changed(ipv4(17, udp(5, 6)), 6, 0x20), true, 5, 6, 17, 0},
    {"later fragment", changed(ipv4(17, udp(5, 6)), 7, 1), false, 0, 0, 0, 0},
    {"neither version", changed(ipv4(17, udp(5, 6)), 0, 0x55), false, 0, 0, 0, 0},
    {"IPv6 UDP", ipv6(17, udp(1234, 53)), true, 1234, 53, 17, 0},
    {"IPv6 payload length of 0", changed(ipv6(17, udp(1, 2)), 5, 0), true, 1, 2, 17, 0},
    {"hop-by-hop, options, routing",
     ipv6(0, extension(60, 0, 8, extension(43, 1, 16, extension(6, 0, 8, tcp(9, 22, TCP_ACK))))), true, 9, 22,
     6, 0},
    {"authentication header", ipv6(51, extension(17, 4, 24, udp(7, 8))), true, 7, 8, 17, 0},
    {"first fragment of IPv6", ipv6(44, extension(17, 0, 8, udp(7, 8))), true, 7, 8, 17, 0},
    {"later fragment of IPv6", ipv6(44, changed(extension(17, 0, 8, udp(7, 8)), 3, 8)), false, 0, 0, 0, 0},
    {"encrypted", ipv6(50, Bytes(16)), true, 0, 0, 50, 0},
    {"extension beyond the packet", ipv6(60, extension(17, 9, 8, udp(7, 8))), false, 0, 0, 0, 0},
    {"seven extensions", chain(7), true, 1, 2, 17, 0},
    {"eight extensions and no end", chain(8), false, 0, 0, 0, 0},
};

Tuple tupleOf(uint32_t number) {
    Tuple tuple{};
    tuple.ipVersion = 4;
    tuple.proto = 17;
    tuple.src[0] = 10;
    tuple.dst[0] = 11;
    tuple.srcPort = static_cast<uint16_t>(number);
    return tuple;
}

}  // namespace

TEST(Packet, HeadersAreReadOrRefused) {
    for (const PacketCase &row : kPackets) {
        SCOPED_TRACE(row.name);
        const Parsed parsed = parse(row.bytes);
        ASSERT_EQ(parsed.ok, row.ok);
        if (!row.ok) continue;
        EXPECT_EQ(parsed.packet.tuple.srcPort, row.srcPort);
        EXPECT_EQ(parsed.packet.tuple.dstPort, row.dstPort);
        EXPECT_EQ(parsed.packet.tuple.proto, row.proto);
        EXPECT_EQ(parsed.packet.len, row.len ? row.len : row.bytes.size());
    }
}

TEST(Packet, CutAnywhereItIsStillReadWithinItsBounds) {
    for (const PacketCase &row : kPackets)
        for (size_t length = 0; length < row.bytes.size(); length++) {
            const Parsed parsed =
                parse({row.bytes.begin(), row.bytes.begin() + static_cast<ptrdiff_t>(length)});
            EXPECT_LE(parsed.ok ? parsed.packet.len : 0, length) << row.name;
        }
}

// Against a list in order of age, after every random step.
TEST(FlowTable, FindsAndAgesAsAListWould) {
    constexpr uint32_t kCapacity = 64;
    FlowTable table{};
    ASSERT_TRUE(flowTableInit(table, kCapacity, 42));
    std::list<uint32_t> model;  // oldest first
    std::mt19937 random(1);
    for (uint64_t step = 0; step < 20000; step++) {
        const auto number = static_cast<uint32_t>(random() % 100);
        const auto known = std::find(model.begin(), model.end(), number);
        Flow *flow = flowFind(table, tupleOf(number));
        ASSERT_EQ(flow != nullptr, known != model.end());
        if (!flow) {
            flow = flowAdd(table, tupleOf(number));
            ASSERT_EQ(flow != nullptr, model.size() < kCapacity);
            if (flow) model.push_back(number);
        } else if (random() % 3) {
            flowTouch(table, *flow, step);
            model.splice(model.end(), model, known);
        } else {
            flowRemove(table, *flow);
            model.erase(known);
        }
        const Flow *oldest = flowOldest(table);
        ASSERT_EQ(oldest != nullptr, !model.empty());
        if (oldest) {
            ASSERT_EQ(oldest->key.srcPort, model.front());
        }
    }
    flowTableFree(table);
}
