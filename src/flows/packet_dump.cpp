#include "flows/packet_dump.h"

#include <arpa/inet.h>

#include <cstring>

#include "core/log.h"
#include "core/text.h"

namespace {

constexpr size_t kIpv4HeaderSize = 20;  // RFC 791, without options
constexpr size_t kIpv6HeaderSize = 40;  // RFC 8200, without extension headers
constexpr size_t kPortsSize = 4;        // source and destination port begin the headers of TCP and UDP

size_t bytesOf(const capture_pkt &pkt) {
    return pkt.data && pkt.len > kPacketLengthExtra ? pkt.len - kPacketLengthExtra : 0;
}

template <class Field>
Field fieldAt(const capture_pkt &pkt, size_t offset) {
    Field field;
    memcpy(&field, pkt.data + offset, sizeof field);
    return field;
}

unsigned portAt(const capture_pkt &pkt, size_t offset) {
    return ntohs(fieldAt<uint16_t>(pkt, offset));
}

}  // namespace

void dump_ipv4(const capture_pkt *pkt) {
    const size_t bytes = bytesOf(*pkt);
    if (bytes < kIpv4HeaderSize) return;
    const am::AddressText source = am::addressText(fieldAt<uint32_t>(*pkt, 12));
    const am::AddressText destination = am::addressText(fieldAt<uint32_t>(*pkt, 16));
    const unsigned protocol = pkt->data[9];
    if (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) {
        amLog(AM_LOG_PACKET, "iphdr.saddr %s, .daddr %s, unknow protocol %u\n", source.text, destination.text,
              protocol);
        return;
    }
    const size_t ports = size_t{pkt->data[0] & 0x0fU} * 4;
    if (bytes < ports + kPortsSize) return;
    if (protocol == IPPROTO_TCP)
        amLog(AM_LOG_PACKET, "iphdr.saddr %s, .daddr %s, TCP.source %u, dest %u\n", source.text,
              destination.text, portAt(*pkt, ports), portAt(*pkt, ports + 2));
    else
        amLog(AM_LOG_PACKET, "iphdr.saddr %s, .daddr %s, UDP.source %u, dest %u\n", source.text,
              destination.text, portAt(*pkt, ports), portAt(*pkt, ports + 2));
}

void dump_ipv6(const capture_pkt *pkt) {
    const size_t bytes = bytesOf(*pkt);
    if (bytes < kIpv6HeaderSize) return;
    const am::AddressText source = am::addressText(fieldAt<in6_addr>(*pkt, 8));
    const am::AddressText destination = am::addressText(fieldAt<in6_addr>(*pkt, 24));
    const unsigned protocol = pkt->data[6];
    if (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) {
        amLog(AM_LOG_PACKET, "iphdr.saddr %s, .daddr %s, unknow protocol %u\n", source.text, destination.text,
              protocol);
        return;
    }
    if (bytes < kIpv6HeaderSize + kPortsSize) return;
    const int length = static_cast<int>(pkt->len);
    if (protocol == IPPROTO_TCP)
        amLog(AM_LOG_PACKET, "iphdr.saddr %s, .daddr %s, TCP.source %u, dest %u, pay_len: %d\n", source.text,
              destination.text, portAt(*pkt, kIpv6HeaderSize), portAt(*pkt, kIpv6HeaderSize + 2), length);
    else
        amLog(AM_LOG_PACKET, "iphdr.saddr %s, .daddr %s, UDP.source %u, dest %u, pay_len: %d\n", source.text,
              destination.text, portAt(*pkt, kIpv6HeaderSize), portAt(*pkt, kIpv6HeaderSize + 2), length);
}

namespace am {

void logPacket(const capture_pkt &pkt) {
    if (bytesOf(pkt) == 0) return;
    const unsigned version = pkt.data[0] & 0xf0U;
    amLog(AM_LOG_PACKET, "Ip version %x %x\n", version, pkt.data[0]);
    switch (version) {
        case 0x60:
            dump_ipv6(&pkt);
            break;
        case 0x40:
            dump_ipv4(&pkt);
            break;
        default:
            amLog(AM_LOG_PACKET, "Wrong ip version\n");
    }
}

}  // namespace am
