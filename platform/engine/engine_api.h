// What an engine library and the daemon that loads it share.
//   dlopen -> test_capture -> pcap_packet for every packet -> test_capture_exit -> dlclose
// The engine reports each flow by calling the function that the executable's exported pointer
// capture_flow_func holds.  Stated here anew, not taken from the daemon: both sides have to arrive at the
// same bytes.
//
// Threads: pcap_packet is entered by one thread at a time, and never while test_capture or test_capture_exit
// runs. The daemon's callback may be called from any thread, also from within test_capture_exit.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>

#define ENGINE_EXPORT extern "C" __attribute__((visibility("default")))

// A packet as handed over, valid only during the call.  len is the length field of the netlink attribute that
// carried the packet: it counts the attribute's own 4-byte header, so that len - 4 bytes are there to be
// read. An empty packet has data null and len 0.
struct capture_pkt {
    const uint8_t *data;  // the IP header
    uint64_t len;
};
static_assert(sizeof(capture_pkt) == 16 && offsetof(capture_pkt, len) == 8);

enum FlowIpType : uint32_t {
    FLOW_IP_TYPE_IPV4 = 81,
    FLOW_IP_TYPE_IPV6 = 82,
};

// One classified flow.  Addresses in network byte order, everything else in host order; source is the sender
// of the flow's first packet.
struct capture_flow_info {
    char app_name[256];
    uint8_t src_ip6[16], dst_ip6[16];
    uint8_t src_mac[6], dst_mac[6];
    uint32_t vlan;
    uint32_t ipproto;  // FlowIpType
    uint32_t src_ip, dst_ip;
    uint32_t src_port, dst_port;
    uint32_t proto;  // IP protocol number
    uint32_t unused;
    uint32_t app_id;
    uint32_t flow_state;  // the engine's own; the daemon only tells zero from other values
};
static_assert(sizeof(capture_flow_info) == 340);
static_assert(offsetof(capture_flow_info, src_ip6) == 256 && offsetof(capture_flow_info, dst_ip6) == 272);
static_assert(offsetof(capture_flow_info, src_mac) == 288 && offsetof(capture_flow_info, dst_mac) == 294);
static_assert(offsetof(capture_flow_info, vlan) == 300 && offsetof(capture_flow_info, ipproto) == 304);
static_assert(offsetof(capture_flow_info, src_ip) == 308 && offsetof(capture_flow_info, dst_ip) == 312);
static_assert(offsetof(capture_flow_info, src_port) == 316 && offsetof(capture_flow_info, dst_port) == 320);
static_assert(offsetof(capture_flow_info, proto) == 324 && offsetof(capture_flow_info, app_id) == 332);
static_assert(offsetof(capture_flow_info, flow_state) == 336);

ENGINE_EXPORT void test_capture();
ENGINE_EXPORT void pcap_packet(const capture_pkt *pkt, const timeval *ts);
ENGINE_EXPORT void test_capture_exit();
