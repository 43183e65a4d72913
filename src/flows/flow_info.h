// What engines report of a flow that they have classified.
#pragma once
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

enum AmIpType : uint8_t { AM_IP_TYPE_IPV4 = 81, AM_IP_TYPE_IPV6 = 82 };

// What an engine hands over, one per classified flow.  The layout is the engine's; integers in host order
// unless stated.
struct capture_flow_info {
    char app_name[256];  // the engine's own name; not used
    in6_addr src_ip6;
    in6_addr dst_ip6;
    uint8_t src_mac[6];  // not used
    uint8_t dst_mac[6];  // not used
    uint32_t vlan;       // not used
    uint32_t ipproto;    // AmIpType
    uint32_t src_ip;     // network order
    uint32_t dst_ip;     // network order
    uint32_t src_port;   // low 16 bits
    uint32_t dst_port;   // low 16 bits
    uint32_t proto;      // low 8 bits
    uint32_t unused;
    uint32_t app_id;      // index into the active application array
    uint32_t flow_state;  // tested for zero only
};
static_assert(sizeof(capture_flow_info) == 340 && offsetof(capture_flow_info, src_ip6) == 256 &&
              offsetof(capture_flow_info, vlan) == 300 && offsetof(capture_flow_info, src_ip) == 308 &&
              offsetof(capture_flow_info, proto) == 324 && offsetof(capture_flow_info, app_id) == 332 &&
              offsetof(capture_flow_info, flow_state) == 336);
