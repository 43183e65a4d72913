#include <cstring>

#include "core/log.h"
#include "netlink/capture.h"
#include "netlink/protocol.h"
#include "support.h"

namespace {

// Ends at the last byte of its allocation, so that the address sanitizer sees a read beyond it.
std::vector<std::string> debugLines(const Bytes &packet) {
    const TestLog log(AM_LOG_PACKET);
    print_debug = 1;
    const Bytes message = packetMessage({{DPI_PKT_A_DATA, packet}});
    const std::unique_ptr<char[]> exact(new char[message.size()]);
    memcpy(exact.get(), message.data(), message.size());
    {
        const AmGuard gate(amEngineGate);
        EXPECT_EQ(packet_cb(reinterpret_cast<nlmsghdr *>(exact.get()), nullptr), MNL_CB_OK);
    }
    print_debug = 0;
    return log.lines();
}

// 10.0.0.1 port 1234 to 10.0.0.2 port 80.
Bytes ipv4(uint8_t protocol, uint8_t words) {
    Bytes packet(words * 4U, 0);
    packet[0] = static_cast<uint8_t>(0x40 | words);
    packet[9] = protocol;
    const uint8_t addresses[] = {10, 0, 0, 1, 10, 0, 0, 2};
    memcpy(&packet[12], addresses, sizeof addresses);
    return packet + Bytes{0x04, 0xd2, 0, 80};
}

Bytes ipv6(uint8_t protocol) {
    Bytes packet(40, 0);
    packet[0] = 0x60;
    packet[6] = protocol;
    packet[8] = packet[24] = 0xfe;
    packet[9] = packet[25] = 0x80;
    packet[23] = 1;
    packet[39] = 2;
    return packet + Bytes{0x04, 0xd2, 0, 80};
}

TEST(PacketDump, ShortPacketsGetNoLine) {
    for (const Bytes &whole : {ipv4(6, 5), ipv4(17, 15), ipv4(99, 5), ipv6(6), ipv6(17), ipv6(99)}) {
        // Addresses and protocol are all that the line for an unknown one shows.
        const bool unknown = whole[whole[0] == 0x60 ? 6 : 9] == 99;
        const size_t needed = unknown ? whole.size() - 4 : whole.size();
        for (size_t length = 0; length <= whole.size(); length++) {
            const Bytes packet(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
            EXPECT_EQ(debugLines(packet).size(), length == 0 ? 0U : length < needed ? 1U : 2U) << length;
        }
    }
}

}  // namespace
