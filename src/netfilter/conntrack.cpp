#include "netfilter/conntrack.h"

#include <arpa/inet.h>
#include <endian.h>
#include <linux/filter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "netfilter/attributes.h"
#include "netfilter/requests.h"

namespace am {

namespace {

// All that differs between the families.
struct FamilyAttrs {
    uint16_t source, destination;
    uint16_t addressSize;
    uint16_t icmpId, icmpType, icmpCode;
    uint8_t icmp;  // protocol number
};
constexpr FamilyAttrs kIpv4{CTA_IP_V4_SRC,       CTA_IP_V4_DST,       4,           CTA_PROTO_ICMP_ID,
                            CTA_PROTO_ICMP_TYPE, CTA_PROTO_ICMP_CODE, IPPROTO_ICMP};
constexpr FamilyAttrs kIpv6{CTA_IP_V6_SRC,       CTA_IP_V6_DST,         16,
                            CTA_PROTO_ICMPV6_ID, CTA_PROTO_ICMPV6_TYPE, CTA_PROTO_ICMPV6_CODE,
                            IPPROTO_ICMPV6};

const FamilyAttrs &attrsOf(uint8_t family) {
    return family == AF_INET6 ? kIpv6 : kIpv4;
}

bool isIcmp(const ConnTuple &tuple) {
    return tuple.proto == attrsOf(tuple.family).icmp;
}

// The name of the direction means nothing here: the kernel finds a connection by either of its tuples.
void putTuple(nlmsghdr *request, const ConnTuple &tuple) {
    const FamilyAttrs &attrs = attrsOf(tuple.family);
    nlattr *whole = mnl_attr_nest_start(request, CTA_TUPLE_ORIG);
    nlattr *part = mnl_attr_nest_start(request, CTA_TUPLE_IP);
    mnl_attr_put(request, attrs.source, attrs.addressSize, tuple.source);
    mnl_attr_put(request, attrs.destination, attrs.addressSize, tuple.destination);
    mnl_attr_nest_end(request, part);
    part = mnl_attr_nest_start(request, CTA_TUPLE_PROTO);
    mnl_attr_put_u8(request, CTA_PROTO_NUM, tuple.proto);
    if (isIcmp(tuple)) {
        mnl_attr_put_u16(request, attrs.icmpId, htons(tuple.icmpId));
        mnl_attr_put_u8(request, attrs.icmpType, tuple.icmpType);
        mnl_attr_put_u8(request, attrs.icmpCode, tuple.icmpCode);
    } else {
        mnl_attr_put_u16(request, CTA_PROTO_SRC_PORT, htons(tuple.sourcePort));
        mnl_attr_put_u16(request, CTA_PROTO_DST_PORT, htons(tuple.destinationPort));
    }
    mnl_attr_nest_end(request, part);
    mnl_attr_nest_end(request, whole);
}

void putMark(nlmsghdr *request, MarkBits bits) {
    mnl_attr_put_u32(request, CTA_MARK, htonl(bits.value));
    mnl_attr_put_u32(request, CTA_MARK_MASK, htonl(bits.mask));
}

template <uint16_t Max>
uint16_t readWord(const Attributes<Max> &attributes, uint16_t number) {
    uint16_t value = 0;
    return attributes.read(number, value) ? ntohs(value) : uint16_t{0};
}

template <uint16_t Max>
uint32_t readLong(const Attributes<Max> &attributes, uint16_t number) {
    uint32_t value = 0;
    return attributes.read(number, value) ? ntohl(value) : 0;
}

template <uint16_t Max>
uint64_t readDouble(const Attributes<Max> &attributes, uint16_t number) {
    uint64_t value = 0;
    return attributes.read(number, value) ? be64toh(value) : 0;
}

bool copyAddress(const nlattr *attr, uint16_t size, uint8_t (&to)[16]) {
    if (!attr || mnl_attr_get_payload_len(attr) != size) return false;
    memcpy(to, mnl_attr_get_payload(attr), size);
    return true;
}

bool readDirection(const nlattr *nest, uint8_t family, ConnTuple &tuple) {
    const Attributes<CTA_TUPLE_ZONE> parts(nest);
    const Attributes<CTA_IP_V6_DST> ip(parts[CTA_TUPLE_IP]);
    const Attributes<CTA_PROTO_ICMPV6_CODE> proto(parts[CTA_TUPLE_PROTO]);
    const FamilyAttrs &attrs = attrsOf(family);
    tuple.family = family;
    if (!copyAddress(ip[attrs.source], attrs.addressSize, tuple.source)) return false;
    if (!copyAddress(ip[attrs.destination], attrs.addressSize, tuple.destination)) return false;
    if (!proto.read(CTA_PROTO_NUM, tuple.proto)) return false;
    if (isIcmp(tuple)) {
        tuple.icmpId = readWord(proto, attrs.icmpId);
        (void)proto.read(attrs.icmpType, tuple.icmpType);
        (void)proto.read(attrs.icmpCode, tuple.icmpCode);
    } else {
        tuple.sourcePort = readWord(proto, CTA_PROTO_SRC_PORT);
        tuple.destinationPort = readWord(proto, CTA_PROTO_DST_PORT);
    }
    return true;
}

void readCounters(const nlattr *nest, ConnCounters &counters) {
    const Attributes<CTA_COUNTERS_BYTES> values(nest);
    counters.packets = readDouble(values, CTA_COUNTERS_PACKETS);
    counters.bytes = readDouble(values, CTA_COUNTERS_BYTES);
}

bool readAttributes(const Attributes<CTA_TIMESTAMP> &attributes, uint8_t family, Connection &connection) {
    connection = {};
    if (family != AF_INET && family != AF_INET6) return false;
    if (!readDirection(attributes[CTA_TUPLE_ORIG], family, connection.original)) return false;
    if (!readDirection(attributes[CTA_TUPLE_REPLY], family, connection.reply)) return false;
    connection.mark = readLong(attributes, CTA_MARK);
    connection.zone = readWord(attributes, CTA_ZONE);
    readCounters(attributes[CTA_COUNTERS_ORIG], connection.sent);
    readCounters(attributes[CTA_COUNTERS_REPLY], connection.received);
    const Attributes<CTA_TIMESTAMP_START> times(attributes[CTA_TIMESTAMP]);
    connection.start = readDouble(times, CTA_TIMESTAMP_START);
    return true;
}

uint16_t typeOf(uint8_t message) {
    return static_cast<uint16_t>(NFNL_SUBSYS_CTNETLINK << 8 | message);
}

}  // namespace

int setConnectionMark(const mnl_socket *socket, const ConnTuple &tuple, uint16_t zone, MarkBits bits) {
    alignas(nlmsghdr) char buffer[kConntrackRequestSize] = {};
    // Without NLM_F_CREATE: what is not there is not made.
    nlmsghdr *request = putRequest(buffer, NFNL_SUBSYS_CTNETLINK, IPCTNL_MSG_CT_NEW, tuple.family);
    putTuple(request, tuple);
    if (zone != 0) mnl_attr_put_u16(request, CTA_ZONE, htons(zone));
    putMark(request, bits);
    return sendRequest(socket, request);
}

bool readConnection(const nlmsghdr *message, Connection &connection) {
    const nfgenmsg *family = familyHeader(message);
    if (!family) return false;
    const uint16_t type = message->nlmsg_type;
    if (type != typeOf(IPCTNL_MSG_CT_NEW) && type != typeOf(IPCTNL_MSG_CT_DELETE)) return false;
    return readAttributes(Attributes<CTA_TIMESTAMP>(message), family->nfgen_family, connection);
}

bool readConnection(const nlattr *nest, uint8_t family, Connection &connection) {
    return readAttributes(Attributes<CTA_TIMESTAMP>(nest), family, connection);
}

ConnTuple forwardTuple(const Connection &connection) {
    ConnTuple seen = connection.original;
    memcpy(seen.destination, connection.reply.source, sizeof seen.destination);
    seen.destinationPort = connection.reply.sourcePort;
    return seen;
}

nlmsghdr *buildMarkDump(void *buffer, MarkBits bits) {
    nlmsghdr *request = putRequest(buffer, NFNL_SUBSYS_CTNETLINK, IPCTNL_MSG_CT_GET, AF_UNSPEC);
    putMark(request, bits);
    return request;
}

int subscribeEnds(const mnl_socket *socket, uint32_t anyOf) {
    // nla_find of the mark behind both headers, wherever in the message it is; its value is loaded from
    // network order.
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_IMM, static_cast<uint32_t>(MNL_NLMSG_HDRLEN + sizeof(nfgenmsg))),
        BPF_STMT(BPF_LDX | BPF_IMM, CTA_MARK),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_NLATTR)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 4, 0),
        BPF_STMT(BPF_MISC | BPF_TAX, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_IND, MNL_ATTR_HDRLEN),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, anyOf, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, ~0U),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog filter{sizeof program / sizeof *program, program};
    // The filter first: what comes in between would be of everybody's connections.
    if (setsockopt(mnl_socket_get_fd(socket), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0)
        return -errno;
    int group = NFNLGRP_CONNTRACK_DESTROY;
    return mnl_socket_setsockopt(socket, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0 ? -errno : 0;
}

bool isConnectionEnd(const nlmsghdr *message) {
    return message->nlmsg_type == typeOf(IPCTNL_MSG_CT_DELETE);
}

}  // namespace am
