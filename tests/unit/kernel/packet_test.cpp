#include "packet.h"

#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include "packet_source.h"

using namespace dpimod;

namespace {

Bytes hex(const std::string &text) {
    return *parseHex(text);
}

// 10.0.0.1:1025 -> 10.0.0.2:53, UDP, two bytes.
const std::string kIp4 = "4500001e00000000401100000a0000010a000002 04010035000a0000 abcd";
// fd00::1 -> fd00::2, TCP 1025 -> 443 with FIN, behind a hop-by-hop header.
const std::string kIp6 =
    "60000000001c0040 fd000000000000000000000000000001 fd000000000000000000000000000002"
    "0600000000000000 040101bb0000000100000000501100000000000 0";
const std::string kMacs = "020000000001020000000002";

struct LinkRow {
    const char *name;
    int linkType;
    std::string head;
    Strip expected = Strip::ok;
};

const std::vector<LinkRow> &linkRows() {
    static const std::vector<LinkRow> rows{
        {"ethernet", DLT_EN10MB, kMacs + "0800"},
        {"one tag", DLT_EN10MB, kMacs + "81000064 0800"},
        {"two tags", DLT_EN10MB, kMacs + "88a80064 81000065 0800"},
        {"ARP", DLT_EN10MB, kMacs + "0806", Strip::notIp},
        {"tagged ARP", DLT_EN10MB, kMacs + "81000064 0806", Strip::notIp},
        {"IPv6 type on IPv4", DLT_EN10MB, kMacs + "86dd", Strip::wrongVersion},
        {"802.3 length", DLT_EN10MB, kMacs + "0026", Strip::notIp},
        {"raw", DLT_RAW, ""},
        {"raw IPv4", DLT_IPV4, ""},
        {"raw IPv6 holding IPv4", DLT_IPV6, "", Strip::wrongVersion},
        {"raw garbage", DLT_RAW, "00", Strip::notIp},
        {"cooked", DLT_LINUX_SLL, "0000000100060200000000010000 0800"},
        {"cooked, tagged", DLT_LINUX_SLL, "0000000100060200000000010000 8100 0064 0800"},
        {"cooked 2", DLT_LINUX_SLL2, "0800 0000 00000002 0001 00 06 0200000000010000"},
        {"cooked 2, ARP", DLT_LINUX_SLL2, "0806 0000 00000002 0001 00 06 0200000000010000", Strip::notIp},
        {"loopback", DLT_NULL, "02000000"},
        {"wireless", DLT_IEEE802_11, "", Strip::notIp},
    };
    return rows;
}

// A capture file of the given link type with the given frames.
void writePcap(const std::string &path, int linkType, const std::vector<Bytes> &frames,
               unsigned wireExtra = 0) {
    pcap_t *dead = pcap_open_dead(linkType, 65535);
    pcap_dumper_t *out = pcap_dump_open(dead, path.c_str());
    ASSERT_NE(out, nullptr);
    for (const Bytes &frame : frames) {
        pcap_pkthdr header{};
        header.caplen = static_cast<bpf_u_int32>(frame.size());
        header.len = header.caplen + wireExtra;
        pcap_dump(reinterpret_cast<u_char *>(out), &header, frame.data());
    }
    pcap_dump_close(out);
    pcap_close(dead);
}

std::vector<Bytes> readAll(PacketSource &source, InputCounters &counters) {
    std::vector<Bytes> packets;
    for (ByteView ip; source.next(ip, counters) == PacketSource::Next::packet;)
        packets.emplace_back(ip.begin(), ip.end());
    return packets;
}

}  // namespace

TEST(KernelPacket, EveryLinkTypeIsStrippedToTheIpHeader) {
    const Bytes packet = hex(kIp4);
    for (const LinkRow &row : linkRows()) {
        SCOPED_TRACE(row.name);
        const Bytes head = hex(row.head);
        Bytes frame = head;
        frame.insert(frame.end(), packet.begin(), packet.end());
        ByteView ip;
        ASSERT_EQ(stripLink(row.linkType, frame, ip), row.expected);
        if (row.expected != Strip::ok) continue;
        EXPECT_EQ(Bytes(ip.begin(), ip.end()), packet);
        // Cut anywhere: too short, until a whole IPv4 header is there.
        for (size_t length = 0; length < frame.size(); ++length) {
            const Bytes cut(frame.begin(), frame.begin() + static_cast<ptrdiff_t>(length));
            EXPECT_EQ(stripLink(row.linkType, cut, ip),
                      length >= head.size() + 20 ? Strip::ok : Strip::tooShort)
                << length;
        }
    }
}

TEST(KernelPacket, FlowOfAPacketIsFoundBehindItsHeaders) {
    const auto udp = inspect(hex(kIp4));
    ASSERT_TRUE(udp);
    EXPECT_EQ(addressText(udp->flow.first, 4), "10.0.0.1");
    EXPECT_EQ(addressText(udp->flow.second, 4), "10.0.0.2");
    EXPECT_EQ(udp->flow.first.port, 1025);
    EXPECT_EQ(udp->flow.second.port, 53);

    Bytes options = hex(kIp4);
    options[0] = 0x46;
    options.insert(options.begin() + 20, {1, 1, 1, 0});
    EXPECT_EQ(inspect(options)->flow, udp->flow);

    Bytes fragment = hex(kIp4);
    fragment[7] = 8;
    EXPECT_FALSE(inspect(fragment));

    const auto tcp = inspect(hex(kIp6));
    ASSERT_TRUE(tcp);
    EXPECT_EQ(tcp->flow.proto, 6);
    EXPECT_EQ(tcp->flow.second.port, 443);
    EXPECT_TRUE(tcp->fin);
    EXPECT_FALSE(tcp->rst);
}

TEST(KernelCapture, FilesAreReadInTurnAndLooped) {
    const std::string folder = testing::TempDir();
    const Bytes packet = hex(kIp4);
    Bytes frame = hex(kMacs + "0800"), arp = hex(kMacs + "0806");
    frame.insert(frame.end(), packet.begin(), packet.end());
    arp.resize(60);
    const Bytes shortened(frame.begin(), frame.begin() + 40), stub(frame.begin(), frame.begin() + 20);
    writePcap(folder + "a", DLT_EN10MB, {frame, arp, stub});
    writePcap(folder + "b", DLT_RAW, {packet});
    writePcap(folder + "c", DLT_EN10MB, {shortened}, 1000);
    std::string error;
    InputCounters counters;
    const auto source = openFiles({folder + "a", folder + "b", folder + "c"}, 2, error);
    ASSERT_TRUE(source) << error;
    const auto packets = readAll(*source, counters);
    ASSERT_EQ(packets.size(), 6U);
    EXPECT_EQ(packets[0], packet);
    EXPECT_EQ(packets[1], packet);
    EXPECT_EQ(packets[5].size(), 26U);
    EXPECT_EQ(counters.frames, 10U);
    EXPECT_EQ(counters.notIp, 2U);
    EXPECT_EQ(counters.tooShort, 2U);
    EXPECT_EQ(counters.cut, 2U);
}
