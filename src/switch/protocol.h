// Wire format between the daemon and the DPI kernel module: netlink(7) protocol 26, its message types and
// attributes, and the builders of the daemon's configuration messages.
//
// Every message: netlink header, family header of 4 bytes (family, 0, 2 bytes of padding), attributes.
// Integers are in host order, but for addresses and ports of the result and statistics messages, which are in
// network order. A string attribute carries no terminating NUL.  The family header of incoming messages is
// not examined, nor is their type: what comes on the packet socket is a packet, what comes on the control
// socket a statistics report.
#pragma once
#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>

#include "flows/flow_info.h"

inline constexpr int AM_NETLINK_PROTO = 26;
inline constexpr size_t kMessageSize = 4096;      // bytes: every buffer, in and out, and every ring frame
inline constexpr unsigned kFamilyHeaderSize = 4;  // bytes between the netlink header and the attributes

enum DpiMsg : uint16_t {
    DPI_MSG_CONFIG = 21,  // registration of the packet socket, or the mirror settings
    DPI_MSG_RESULT = 22,  // verdict of one flow
};

// DPI_MSG_CONFIG.  Mirror settings carry 2, 3, 5, 6, 4, in this order.
enum DpiCfgAttr : uint16_t {
    DPI_CFG_A_PKT_PORTID = 1,    // u32, alone in its message: port id of the packet socket
    DPI_CFG_A_MIRROR_STATE = 2,  // u8: 1 = mirror packets, 0 = stop
    DPI_CFG_A_PARAM3 = 3,        // u16, always 16
    DPI_CFG_A_PARAM4 = 4,        // u8, always 1
    DPI_CFG_A_PARAM5 = 5,        // u8, always 1
    DPI_CFG_A_PARAM6 = 6,        // u16, always 30
};

// DPI_MSG_RESULT.  Sent in the order 1, addresses, 6 to 9 and, with a match, 11, 12, 10, 14; 13 is never
// sent.
enum DpiResultAttr : uint16_t {
    DPI_RS_A_IP_TYPE = 1,       // u8, AmIpType
    DPI_RS_A_FIRST_IPV4 = 2,    // u32, network order: the source as the engine reports it
    DPI_RS_A_FIRST_IPV6 = 3,    // 16 bytes
    DPI_RS_A_SECOND_IPV4 = 4,   // u32, network order
    DPI_RS_A_SECOND_IPV6 = 5,   // 16 bytes
    DPI_RS_A_PROTO = 6,         // u8
    DPI_RS_A_FIRST_PORT = 7,    // u16, network order
    DPI_RS_A_SECOND_PORT = 8,   // u16, network order
    DPI_RS_A_MATCH = 9,         // u8: 1 = the application is on the enforcement list
    DPI_RS_A_STATE_CLEAR = 10,  // u8: 1 = the engine's flow_state word is 0
    DPI_RS_A_APP_ID = 11,       // u32
    DPI_RS_A_APP_NAME = 12,     // string of up to 32 characters
    DPI_RS_A_GROUP_NAME = 14,   // string of up to 40 characters, for an application that is part of a group
};

// Packet message: this attribute and no other.
enum DpiPktAttr : uint16_t { DPI_PKT_A_DATA = 1 };  // the packet, from its IP header on

// Statistics report, top level: the count first, then any number of reports.
enum DpiStaAttr : uint16_t {
    DPI_STA_A_REPORT_NUM = 1,  // u16
    DPI_STA_A_REPORT = 2,      // nested DpiStaReportAttr
};

// One report.  Required: 1, 6 to 11, and the addresses of its family.
enum DpiStaReportAttr : uint16_t {
    DPI_STA_R_A_IP_TYPE = 1,           // u8: 82 = IPv6, any other value IPv4
    DPI_STA_R_A_FIRST_IPV4 = 2,        // u32, network order
    DPI_STA_R_A_FIRST_IPV6 = 3,        // 16 bytes
    DPI_STA_R_A_SECOND_IPV4 = 4,       // u32, network order
    DPI_STA_R_A_SECOND_IPV6 = 5,       // 16 bytes
    DPI_STA_R_A_PROTO = 6,             // u8
    DPI_STA_R_A_FIRST_PORT = 7,        // u16, network order
    DPI_STA_R_A_SECOND_PORT = 8,       // u16, network order
    DPI_STA_R_A_AGED = 9,              // u8: not 0 = the kernel has aged the flow out
    DPI_STA_R_A_BYTE_CNT = 10,         // u32, host order
    DPI_STA_R_A_PKT_CNT = 11,          // u32, host order
    DPI_STA_R_A_ACCESS_PROFILE = 12,   // string, optional
    DPI_STA_R_A_QOS_POLICY_RULE = 13,  // string, optional
};

// Starts a message in a zero-filled buffer of kMessageSize bytes: type, NLM_F_REQUEST, and the family header,
// IPv4 unless another family is named.
nlmsghdr *amNlmsgPutDpiHeader(void *buffer, uint16_t type);
nlmsghdr *amNlmsgPutDpiHeader(void *buffer, uint16_t type, uint8_t family);

namespace am {

// The two forms of DPI_MSG_CONFIG, built at the start of a zero-filled buffer of kMessageSize bytes.
const nlmsghdr *buildPktPortId(void *buffer, uint32_t portid);
const nlmsghdr *buildMirrorConfig(void *buffer, int state);

// mnl_cb_run with sequence number 0 over what one receive gave.  Cuts the buffer before the first message
// that does not fit into it: libmnl up to 1.0.4 compares lengths as signed numbers and walks out of the
// buffer with one of 2 GiB or more.
inline int runMessages(const void *data, size_t length, uint32_t portid, mnl_cb_t callback) {
    size_t whole = 0;
    while (length - whole >= sizeof(nlmsghdr)) {
        const auto *message = reinterpret_cast<const nlmsghdr *>(static_cast<const char *>(data) + whole);
        if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > length - whole) break;
        whole += MNL_ALIGN(message->nlmsg_len);
        if (whole >= length) return mnl_cb_run(data, length, 0, portid, callback, nullptr);
    }
    return mnl_cb_run(data, whole, 0, portid, callback, nullptr);
}

// One datagram to the kernel: what the send returned, bytes or negative; a null socket is a bad descriptor.
ssize_t sendMessage(const mnl_socket *socket, const nlmsghdr *message);

}  // namespace am

// Build and send a DPI_MSG_CONFIG to the kernel: what the send returned, bytes or negative.  Any thread.
ssize_t amSendPktPortId(const mnl_socket *socket, uint32_t portid);
ssize_t amSendMirrorConfig(const mnl_socket *socket, int state);
