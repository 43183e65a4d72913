#include "packet.h"

#include <netinet/in.h>
#include <pcap/dlt.h>

#include <algorithm>

namespace dpimod {
namespace {

constexpr uint16_t kEtherIp4 = 0x0800, kEtherIp6 = 0x86dd;
constexpr uint16_t kEtherMpls = 0x8847, kEtherMplsDownstream = 0x8848, kEtherPppoe = 0x8864;
constexpr uint16_t kPppIp4 = 0x0021, kPppIp6 = 0x0057;
constexpr uint8_t kCiscoUnicast = 0x0f, kCiscoMulticast = 0x8f;
constexpr size_t kIp4Header = 20, kIp6Header = 40;

uint16_t be16(ByteView bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

bool isVlan(uint16_t etherType) {
    return etherType == 0x8100 || etherType == 0x88a8 || etherType == 0x9100;
}

// The ether type at `at`, past any VLAN tags, and where its payload begins; 0 when cut off.
uint16_t etherType(ByteView frame, size_t &at) {
    for (;;) {
        if (frame.size() < at + 2) return 0;
        const uint16_t type = be16(frame, at);
        at += 2;
        if (!isVlan(type)) return type;
        at += 2;  // the tag's priority and VLAN id
    }
}

Strip take(ByteView frame, size_t at, int version, ByteView &ip) {
    if (frame.size() <= at) return Strip::tooShort;
    ip = frame.subspan(at);
    const int found = ip[0] >> 4;
    if (found != 4 && found != 6) return version == 0 ? Strip::notIp : Strip::wrongVersion;
    if (version != 0 && found != version) return Strip::wrongVersion;
    return ip.size() < (found == 4 ? kIp4Header : kIp6Header) ? Strip::tooShort : Strip::ok;
}

// RFC 1661 and 1662: address and control may be there, and a protocol number may be one byte.
Strip takePpp(ByteView frame, size_t at, ByteView &ip) {
    if (frame.size() > at + 1 && frame[at] == 0xff && frame[at + 1] == 0x03) at += 2;
    if (frame.size() < at + 2) return Strip::tooShort;
    const bool oneByte = frame[at] & 1;
    const uint16_t type = oneByte ? frame[at] : be16(frame, at);
    if (type != kPppIp4 && type != kPppIp6) return Strip::notIp;
    return take(frame, at + (oneByte ? 1 : 2), type == kPppIp4 ? 4 : 6, ip);
}

// A stack of labels, RFC 3032; the last one has the lowest bit of its third byte set.
Strip takeMpls(ByteView frame, size_t at, ByteView &ip) {
    for (;; at += 4) {
        if (frame.size() < at + 4) return Strip::tooShort;
        if (frame[at + 2] & 1) return take(frame, at + 4, 0, ip);
    }
}

Strip takeEther(ByteView frame, size_t typeAt, size_t payloadAt, ByteView &ip) {
    if (frame.size() < typeAt + 2) return Strip::tooShort;
    uint16_t type = be16(frame, typeAt);
    if (isVlan(type)) {
        payloadAt += 2;  // past the tag; the inner type follows
        type = etherType(frame, payloadAt);
        if (type == 0) return Strip::tooShort;
    }
    if (type == kEtherMpls || type == kEtherMplsDownstream) return takeMpls(frame, payloadAt, ip);
    if (type == kEtherPppoe) return takePpp(frame, payloadAt + 6, ip);  // RFC 2516
    if (type != kEtherIp4 && type != kEtherIp6) return Strip::notIp;
    return take(frame, payloadAt, type == kEtherIp4 ? 4 : 6, ip);
}

bool hasPorts(uint8_t proto) {
    return proto == IPPROTO_TCP || proto == IPPROTO_UDP || proto == IPPROTO_SCTP || proto == IPPROTO_UDPLITE;
}

std::optional<PacketInfo> withPorts(PacketInfo info, ByteView transport) {
    if (!hasPorts(info.flow.proto)) return info;
    if (transport.size() < 4) return std::nullopt;
    info.flow.first.port = be16(transport, 0);
    info.flow.second.port = be16(transport, 2);
    if (info.flow.proto == IPPROTO_TCP && transport.size() > 13) {
        info.fin = transport[13] & 1;
        info.rst = transport[13] & 4;
    }
    return info;
}

std::optional<PacketInfo> inspect4(ByteView ip) {
    PacketInfo info;
    const size_t header = size_t{ip[0] & 15U} * 4;
    if (header < kIp4Header || ip.size() < header) return std::nullopt;
    info.flow.version = 4;
    info.flow.proto = ip[9];
    std::copy_n(ip.begin() + 12, 4, info.flow.first.address.begin());
    std::copy_n(ip.begin() + 16, 4, info.flow.second.address.begin());
    const bool laterFragment = (be16(ip, 6) & 0x1fff) != 0;
    if (laterFragment && hasPorts(info.flow.proto)) return std::nullopt;
    return withPorts(info, ip.subspan(header));
}

std::optional<PacketInfo> inspect6(ByteView ip) {
    PacketInfo info;
    info.flow.version = 6;
    std::copy_n(ip.begin() + 8, 16, info.flow.first.address.begin());
    std::copy_n(ip.begin() + 24, 16, info.flow.second.address.begin());
    uint8_t next = ip[6];
    size_t at = kIp6Header;
    // Extension headers, RFC 8200 section 4; every round moves forward by at least eight bytes.
    while (next == IPPROTO_HOPOPTS || next == IPPROTO_ROUTING || next == IPPROTO_DSTOPTS ||
           next == IPPROTO_FRAGMENT || next == IPPROTO_AH) {
        if (ip.size() < at + 8) return std::nullopt;
        const uint8_t type = next;
        if (type == IPPROTO_FRAGMENT && (be16(ip, at + 2) & 0xfff8) != 0) return std::nullopt;
        next = ip[at];
        const size_t length = ip[at + 1];
        if (type == IPPROTO_FRAGMENT)
            at += 8;
        else
            at += type == IPPROTO_AH ? (length + 2) * 4 : (length + 1) * 8;
        if (at > ip.size()) return std::nullopt;
    }
    info.flow.proto = next;
    return withPorts(info, ip.subspan(at));
}

}  // namespace

bool linkTypeKnown(int linkType) {
    switch (linkType) {
        case DLT_EN10MB:
        case DLT_RAW:
        case 14:   // DLT_RAW of some systems
        case 101:  // LINKTYPE_RAW
        case DLT_IPV4:
        case DLT_IPV6:
        case DLT_LINUX_SLL:
        case DLT_LINUX_SLL2:
        case DLT_NULL:
        case DLT_LOOP:
        case DLT_PPP:
        case DLT_PPP_SERIAL:
        case DLT_C_HDLC:
            return true;
        default:
            return false;
    }
}

Strip stripLink(int linkType, ByteView frame, ByteView &ip) {
    switch (linkType) {
        case DLT_EN10MB:
            return takeEther(frame, 12, 14, ip);
        case DLT_LINUX_SLL:
            return takeEther(frame, 14, 16, ip);
        case DLT_LINUX_SLL2:
            return takeEther(frame, 0, 20, ip);
        case DLT_RAW:
        case 14:
        case 101:
            return take(frame, 0, 0, ip);
        case DLT_IPV4:
            return take(frame, 0, 4, ip);
        case DLT_IPV6:
            return take(frame, 0, 6, ip);
        case DLT_NULL:
        case DLT_LOOP:
            return take(frame, 4, 0, ip);  // the family's number differs between systems
        case DLT_PPP_SERIAL:
            if (!frame.empty() && (frame[0] == kCiscoUnicast || frame[0] == kCiscoMulticast))
                return takeEther(frame, 2, 4, ip);
            return takePpp(frame, 0, ip);
        case DLT_PPP:
            return takePpp(frame, 0, ip);
        case DLT_C_HDLC:
            return takeEther(frame, 2, 4, ip);
        default:
            return Strip::notIp;
    }
}

std::optional<PacketInfo> inspect(ByteView ip) {
    if (ip.empty()) return std::nullopt;
    if (ip[0] >> 4 == 4 && ip.size() >= kIp4Header) return inspect4(ip);
    if (ip[0] >> 4 == 6 && ip.size() >= kIp6Header) return inspect6(ip);
    return std::nullopt;
}

}  // namespace dpimod
