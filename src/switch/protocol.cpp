#include "switch/protocol.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

namespace {

// The kernel module's own settings, the same in every message.
constexpr uint16_t kParam3 = 16;
constexpr uint8_t kParam4 = 1;
constexpr uint8_t kParam5 = 1;
constexpr uint16_t kParam6 = 30;

struct FamilyHeader {
    uint8_t family;
    uint8_t second;
};
static_assert(MNL_ALIGN(sizeof(FamilyHeader)) == kFamilyHeaderSize);

}  // namespace

nlmsghdr *amNlmsgPutDpiHeader(void *buffer, uint16_t type) {
    return amNlmsgPutDpiHeader(buffer, type, AF_INET);
}

nlmsghdr *amNlmsgPutDpiHeader(void *buffer, uint16_t type, uint8_t family) {
    nlmsghdr *message = mnl_nlmsg_put_header(buffer);
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST;
    auto *header = static_cast<FamilyHeader *>(mnl_nlmsg_put_extra_header(message, sizeof(FamilyHeader)));
    header->family = family;
    return message;
}

namespace am {

const nlmsghdr *buildPktPortId(void *buffer, uint32_t portid) {
    nlmsghdr *message = amNlmsgPutDpiHeader(buffer, DPI_MSG_CONFIG);
    mnl_attr_put_u32(message, DPI_CFG_A_PKT_PORTID, portid);
    return message;
}

const nlmsghdr *buildMirrorConfig(void *buffer, int state) {
    nlmsghdr *message = amNlmsgPutDpiHeader(buffer, DPI_MSG_CONFIG);
    mnl_attr_put_u8(message, DPI_CFG_A_MIRROR_STATE, static_cast<uint8_t>(state));
    mnl_attr_put_u16(message, DPI_CFG_A_PARAM3, kParam3);
    mnl_attr_put_u8(message, DPI_CFG_A_PARAM5, kParam5);
    mnl_attr_put_u16(message, DPI_CFG_A_PARAM6, kParam6);
    mnl_attr_put_u8(message, DPI_CFG_A_PARAM4, kParam4);
    return message;
}

ssize_t sendMessage(const mnl_socket *socket, const nlmsghdr *message) {
    if (!socket) {
        errno = EBADF;
        return -1;
    }
    return mnl_socket_sendto(socket, message, message->nlmsg_len);
}

}  // namespace am

ssize_t amSendPktPortId(const mnl_socket *socket, uint32_t portid) {
    alignas(nlmsghdr) char buffer[kMessageSize] = {};
    return am::sendMessage(socket, am::buildPktPortId(buffer, portid));
}

ssize_t amSendMirrorConfig(const mnl_socket *socket, int state) {
    alignas(nlmsghdr) char buffer[kMessageSize] = {};
    return am::sendMessage(socket, am::buildMirrorConfig(buffer, state));
}
