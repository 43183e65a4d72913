#include "ring_world.h"

#include <netinet/in.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "switch/protocol.h"
#include "world.h"

namespace bench {
namespace {

constexpr size_t kIpHeader = 20, kUdpHeader = 8;

uint32_t flowNumber = 0;
size_t lengthInRing = 0;

char *frameAt(uint32_t index) {
    return static_cast<char *>(mmap_ring.ring) + size_t{index} * mmap_ring.req.nm_frame_size;
}

// An IPv4 UDP packet of `length` bytes whose payload no classifier knows.
void putPacket(char *packet, size_t length, uint32_t flow) {
    memset(packet, 0, kIpHeader + kUdpHeader);
    packet[0] = 0x45;
    packet[2] = static_cast<char>(length >> 8);
    packet[3] = static_cast<char>(length);
    packet[8] = 64;
    packet[9] = IPPROTO_UDP;
    packet[12] = packet[16] = 10;
    memcpy(packet + 13, &flow, 3);
    packet[19] = 1;
    memcpy(packet + kIpHeader, "\x9c\x41\x9d\x42", 4);
    packet[24] = static_cast<char>((length - kIpHeader) >> 8);
    packet[25] = static_cast<char>(length - kIpHeader);
    for (size_t at = kIpHeader + kUdpHeader; at < length; at++)
        packet[at] = static_cast<char>(anyNumber() | 128);
}

}  // namespace

NlMmapHdr *headerAt(uint32_t index) {
    return reinterpret_cast<NlMmapHdr *>(frameAt(index));
}

uint32_t putPacketMessage(char *buffer, size_t length, uint32_t flow) {
    memset(buffer, 0, 64);
    nlmsghdr *message = amNlmsgPutDpiHeader(buffer, 30);
    nlattr *attr = mnl_attr_nest_start(message, DPI_PKT_A_DATA);
    attr->nla_type = DPI_PKT_A_DATA;  // plain, not nested
    putPacket(static_cast<char *>(mnl_nlmsg_get_payload_tail(message)), length, flow);
    message->nlmsg_len += static_cast<uint32_t>(MNL_ALIGN(length));
    attr->nla_len = static_cast<uint16_t>(MNL_ATTR_HDRLEN + length);
    return message->nlmsg_len;
}

// Fills the whole ring, `perFlow` packets of each flow in turn.
void writeRing(size_t length, uint32_t perFlow) {
    lengthInRing = length;
    for (uint32_t i = 0; i < kFrames; i++) {
        if (i % perFlow == 0) flowNumber++;
        headerAt(i)->nm_len = putPacketMessage(frameAt(i) + sizeof(NlMmapHdr), length, flowNumber);
    }
}

size_t ringLength() {
    return lengthInRing;
}

// The kernel's half: hands all frames over, as they are.
void offerRing() {
    mmap_ring.frame_idx = 0;
    for (uint32_t i = 0; i < kFrames; i++) headerAt(i)->nm_status = NL_MMAP_VALID;
}

void mapRing() {
    mmap_ring.req.nm_frame_nr = kFrames;
    const size_t size = size_t{mmap_ring.req.nm_block_size} * mmap_ring.req.nm_block_nr;
    mmap_ring.ring =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (mmap_ring.ring == MAP_FAILED) {
        perror("ring");
        exit(2);
    }
}

}  // namespace bench
