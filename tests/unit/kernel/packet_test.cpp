#include "packet.h"

#include <gtest/gtest.h>
#include <pcap/pcap.h>

using namespace dpimod;

namespace {

Bytes hex(const std::string &text) {
    return *parseHex(text);
}

// 10.0.0.1:1025 -> 10.0.0.2:53, UDP, two bytes.
const std::string kIp4 = "4500001e00000000401100000a0000010a000002 04010035000a0000 abcd";
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
        {"MPLS, two labels", DLT_EN10MB, kMacs + "8847 00010040 00011140"},
        {"PPPoE", DLT_EN10MB, kMacs + "8864 1100 0001 0020 0021"},
        {"PPP", DLT_PPP, "0021"},
        {"PPP, framed, short number", DLT_PPP, "ff03 21"},
        {"PPP, link control", DLT_PPP, "c021", Strip::notIp},
        {"PPP or Cisco, Cisco", DLT_PPP_SERIAL, "0f00 0800"},
        {"Cisco", DLT_C_HDLC, "0f00 0800"},
        {"wireless", DLT_IEEE802_11, "", Strip::notIp},
    };
    return rows;
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
