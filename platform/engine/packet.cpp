#include "packet.h"

#include <arpa/inet.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>

#include <algorithm>
#include <cstring>

// Exported by the daemon.  Weak: an engine loaded by a program without it still loads, and reports to nobody.
extern "C"
    __attribute__((weak, visibility("default"))) int (*capture_flow_func)(const capture_flow_info *info);

namespace engine {
namespace {

constexpr uint64_t kAttributeHeader = 4;
constexpr size_t kIpv4Header = 20, kIpv6Header = 40;
constexpr int kExtensionHeaders = 8;  // more in one packet is an attack or an error
constexpr uint8_t kHopByHop = 0, kMobility = 135;

uint16_t word(const uint8_t *at) {
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

bool hasPorts(uint8_t proto) {
    return proto == IPPROTO_TCP || proto == IPPROTO_UDP || proto == IPPROTO_SCTP || proto == IPPROTO_DCCP ||
           proto == IPPROTO_UDPLITE;
}

// A stated length of 0 is how packets bigger than 64 KiB look (jumbograms, segmentation offload): all that
// was handed over then belongs to the packet.
void cutTo(Packet &packet, size_t stated) {
    if (stated) packet.len = std::min(packet.len, stated);
}

bool isEcho(uint8_t proto, uint8_t type) {
    return (proto == IPPROTO_ICMP && (type == ICMP_ECHO || type == ICMP_ECHOREPLY)) ||
           (proto == IPPROTO_ICMPV6 && (type == ICMP6_ECHO_REQUEST || type == ICMP6_ECHO_REPLY));
}

bool readPorts(Packet &packet, size_t offset) {
    if (packet.len >= offset + 6 && isEcho(packet.tuple.proto, packet.data[offset]))
        packet.tuple.echoId = word(packet.data + offset + 4);
    if (!hasPorts(packet.tuple.proto)) return true;
    if (packet.len < offset + 4) return false;
    packet.tuple.srcPort = word(packet.data + offset);
    packet.tuple.dstPort = word(packet.data + offset + 2);
    if (packet.tuple.proto == IPPROTO_TCP && packet.len > offset + 13)
        packet.tcpFlags = packet.data[offset + 13];
    return true;
}

bool readIpv4(Packet &packet) {
    if (packet.len < kIpv4Header) return false;
    const size_t header = size_t{4} * (packet.data[0] & 0x0fU);
    const size_t total = word(packet.data + 2);
    if (header < kIpv4Header || (total && total < header)) return false;
    cutTo(packet, total);
    if (packet.len < header) return false;
    if (word(packet.data + 6) & 0x1fff) return false;  // a later fragment
    packet.tuple.proto = packet.data[9];
    memcpy(packet.tuple.src, packet.data + 12, 4);
    memcpy(packet.tuple.dst, packet.data + 16, 4);
    return readPorts(packet, header);
}

bool readIpv6(Packet &packet) {
    if (packet.len < kIpv6Header) return false;
    const size_t payload = word(packet.data + 4);
    cutTo(packet, payload ? kIpv6Header + payload : 0);
    memcpy(packet.tuple.src, packet.data + 8, 16);
    memcpy(packet.tuple.dst, packet.data + 24, 16);

    uint8_t next = packet.data[6];
    size_t offset = kIpv6Header;
    for (int i = 0; i < kExtensionHeaders; i++) {
        const bool fragment = next == IPPROTO_FRAGMENT, authentication = next == IPPROTO_AH;
        if (!fragment && !authentication && next != kHopByHop && next != IPPROTO_ROUTING &&
            next != IPPROTO_DSTOPTS && next != kMobility) {
            packet.tuple.proto = next;
            return readPorts(packet, offset);
        }
        if (packet.len < offset + 8) return false;
        const uint8_t *header = packet.data + offset;
        if (fragment && (word(header + 2) & 0xfff8)) return false;  // a later fragment
        next = header[0];
        if (fragment)
            offset += 8;
        else if (authentication)
            offset += size_t{4} * (header[1] + 2U);
        else
            offset += size_t{8} * (header[1] + 1U);
        if (packet.len < offset) return false;
    }
    return false;
}

uint64_t mix(uint64_t a, uint64_t b) {
    const auto product = static_cast<unsigned __int128>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

}  // namespace

bool parsePacket(const capture_pkt &given, Packet &packet) {
    packet = {};
    if (!given.data || given.len <= kAttributeHeader) return false;
    packet.data = given.data;
    packet.len = static_cast<size_t>(given.len - kAttributeHeader);
    packet.tuple.ipVersion = given.data[0] >> 4;
    if (packet.tuple.ipVersion == 4) return readIpv4(packet);
    return packet.tuple.ipVersion == 6 && readIpv6(packet);
}

Tuple reversed(const Tuple &tuple) {
    Tuple other = tuple;
    memcpy(other.src, tuple.dst, sizeof(other.src));
    memcpy(other.dst, tuple.src, sizeof(other.dst));
    other.srcPort = tuple.dstPort;
    other.dstPort = tuple.srcPort;
    return other;
}

Tuple canonical(const Tuple &tuple, bool &swapped) {
    const int order = memcmp(tuple.src, tuple.dst, sizeof(tuple.src));
    swapped = order > 0 || (order == 0 && tuple.srcPort > tuple.dstPort);
    return swapped ? reversed(tuple) : tuple;
}

uint64_t hashTuple(const Tuple &tuple, uint64_t seed) {
    uint64_t words[5];
    static_assert(sizeof(words) == sizeof(tuple));
    memcpy(words, &tuple, sizeof(words));
    uint64_t hash = seed ^ 0x9e3779b97f4a7c15;
    for (const uint64_t w : words) hash = mix(hash ^ w, 0xd6e8feb86659fd93 ^ seed) + 0x2545f4914f6cdd1d;
    return mix(hash, 0xa0761d6478bd642f);
}

void reportFlow(const Tuple &tuple, uint32_t appId, const char *appName, uint32_t flowState) {
    if (!&capture_flow_func || !capture_flow_func) return;
    capture_flow_info info{};
    for (size_t i = 0; i + 1 < sizeof(info.app_name) && appName[i]; i++) info.app_name[i] = appName[i];
    if (tuple.ipVersion == 4) {
        info.ipproto = FLOW_IP_TYPE_IPV4;
        memcpy(&info.src_ip, tuple.src, sizeof(info.src_ip));
        memcpy(&info.dst_ip, tuple.dst, sizeof(info.dst_ip));
    } else {
        info.ipproto = FLOW_IP_TYPE_IPV6;
        memcpy(info.src_ip6, tuple.src, sizeof(info.src_ip6));
        memcpy(info.dst_ip6, tuple.dst, sizeof(info.dst_ip6));
    }
    info.src_port = tuple.srcPort;
    info.dst_port = tuple.dstPort;
    info.proto = tuple.proto;
    info.app_id = appId;
    info.flow_state = flowState;
    capture_flow_func(&info);
}

}  // namespace engine
