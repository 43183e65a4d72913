#include "netfilter/nflog.h"

#include <arpa/inet.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>

#include <cerrno>

#include "netfilter/attributes.h"
#include "netfilter/requests.h"

namespace am {

namespace {

constexpr uint32_t kBatchHundredths = 1;

void putBatch(nlmsghdr *request, NflogBatch batch) {
    mnl_attr_put_u32(request, NFULA_CFG_NLBUFSIZ, htonl(batch.bytes));
    mnl_attr_put_u32(request, NFULA_CFG_QTHRESH, htonl(batch.packets));
}

nlmsghdr *buildNflogBind(void *buffer, const NflogSettings &settings, uint16_t flags) {
    nlmsghdr *request = putRequest(buffer, NFNL_SUBSYS_ULOG, NFULNL_MSG_CONFIG, AF_UNSPEC, settings.group);
    request->nlmsg_flags |= NLM_F_ACK;  // what comes behind the answer is packets
    // One message: the kernel looks at the flags first, and binds nothing where it does not know one of them.
    const nfulnl_msg_config_cmd command{NFULNL_CFG_CMD_BIND};
    const nfulnl_msg_config_mode mode{htonl(settings.snapLength), NFULNL_COPY_PACKET, 0};
    mnl_attr_put(request, NFULA_CFG_CMD, sizeof command, &command);
    mnl_attr_put(request, NFULA_CFG_MODE, sizeof mode, &mode);
    putBatch(request, settings.batch);
    mnl_attr_put_u32(request, NFULA_CFG_TIMEOUT, htonl(kBatchHundredths));
    mnl_attr_put_u16(request, NFULA_CFG_FLAGS, htons(flags));
    return request;
}

// The kernel says "not permitted" for a group that another one listens to as well.  A request that it never
// supports tells which: rights are looked at first.
bool isPermitted(const mnl_socket *socket) {
    alignas(nlmsghdr) char buffer[kNflogRequestSize] = {};
    nlmsghdr *unsupported = putRequest(buffer, NFNL_SUBSYS_ULOG, NFULNL_MSG_PACKET, AF_UNSPEC);
    return sendRequest(socket, unsupported) != -EPERM;
}

}  // namespace

nlmsghdr *buildNflogUnbind(void *buffer, uint16_t group) {
    nlmsghdr *request = putRequest(buffer, NFNL_SUBSYS_ULOG, NFULNL_MSG_CONFIG, AF_UNSPEC, group);
    const nfulnl_msg_config_cmd command{NFULNL_CFG_CMD_UNBIND};
    mnl_attr_put(request, NFULA_CFG_CMD, sizeof command, &command);
    return request;
}

nlmsghdr *buildNflogBatch(void *buffer, uint16_t group, NflogBatch batch) {
    nlmsghdr *request = putRequest(buffer, NFNL_SUBSYS_ULOG, NFULNL_MSG_CONFIG, AF_UNSPEC, group);
    putBatch(request, batch);
    return request;
}

NflogBound bindNflog(const mnl_socket *socket, const NflogSettings &settings, int &error) {
    for (const NflogBound wanted : {NflogBound::withConnections, NflogBound::plain}) {
        alignas(nlmsghdr) char buffer[kNflogRequestSize] = {};
        const bool connections = wanted == NflogBound::withConnections;
        const uint16_t flags = NFULNL_CFG_F_SEQ | (connections ? NFULNL_CFG_F_CONNTRACK : 0);
        error = sendRequest(socket, buildNflogBind(buffer, settings, flags));
        // A kernel that would have to load a module for the connections first asks for another try.
        if (connections && error == -EAGAIN)
            error = sendRequest(socket, buildNflogBind(buffer, settings, flags));
        if (error == 0) return wanted;
        if (error == -EBUSY || error == -EPERM) break;
    }
    if (error == -EPERM && isPermitted(socket)) error = -EBUSY;
    return NflogBound::no;
}

bool readNflogPacket(const nlmsghdr *message, NflogPacket &packet) {
    packet = {};
    if (message->nlmsg_type != (NFNL_SUBSYS_ULOG << 8 | NFULNL_MSG_PACKET)) return false;
    const Attributes<NFULA_CT_INFO> attributes(message);
    const nlattr *payload = attributes[NFULA_PAYLOAD];
    if (!payload) return false;
    packet.packet = {static_cast<const uint8_t *>(mnl_attr_get_payload(payload)),
                     mnl_attr_get_payload_len(payload)};
    packet.connection = attributes[NFULA_CT];
    if (uint32_t number; attributes.read(NFULA_SEQ, number)) {
        packet.sequence = ntohl(number);
        packet.numbered = true;
    }
    return true;
}

}  // namespace am
