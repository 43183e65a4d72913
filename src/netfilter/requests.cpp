#include "netfilter/requests.h"

#include <fcntl.h>
#include <linux/netfilter/nfnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <arpa/inet.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "netfilter/attributes.h"

namespace am {

namespace {

constexpr int kDumpPatienceMs = 1000;

// Tells the answer of one request from what an earlier one left on the socket.
uint32_t nextSequence() {
    static constinit std::atomic<uint32_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

int sendBytes(const mnl_socket *socket, const nlmsghdr *request) {
    return mnl_socket_sendto(socket, request, request->nlmsg_len) < 0 ? -errno : 0;
}

struct Answer {
    bool ended = false;
    int error = 0;
};

void readDump(std::span<const char> received, uint32_t sequence, void (*visit)(const nlmsghdr *, void *),
              void *context, Answer &answer) {
    eachMessage(received, [&](const nlmsghdr *message) {
        if (message->nlmsg_seq != sequence) return;
        if (message->nlmsg_flags & NLM_F_DUMP_INTR) answer.error = -EINTR;
        switch (message->nlmsg_type) {
            case NLMSG_ERROR:
            case NLMSG_DONE:
                answer.ended = true;
                if (const int error = errorOf(message); error != 0) answer.error = error;
                break;
            default:
                visit(message, context);
        }
    });
}

}  // namespace

mnl_socket *openNetfilterSocket() {
    mnl_socket *socket = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (!socket) return nullptr;
    const int on = 1;
    // An error comes back with the request's header only, not with the whole request.
    (void)mnl_socket_setsockopt(socket, NETLINK_CAP_ACK, const_cast<int *>(&on), sizeof on);
    if (mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) == 0) return socket;
    const int error = errno;
    (void)mnl_socket_close(socket);
    errno = error;
    return nullptr;
}

nlmsghdr *putRequest(void *buffer, uint8_t subsystem, uint8_t message, uint8_t family, uint16_t resource) {
    nlmsghdr *header = mnl_nlmsg_put_header(buffer);
    header->nlmsg_type = static_cast<uint16_t>(subsystem << 8 | message);
    header->nlmsg_flags = NLM_F_REQUEST;
    header->nlmsg_seq = nextSequence();
    auto *familyPart = static_cast<nfgenmsg *>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
    familyPart->nfgen_family = family;
    familyPart->version = NFNETLINK_V0;
    familyPart->res_id = htons(resource);
    return header;
}

int sendRequest(const mnl_socket *socket, nlmsghdr *request) {
    if (const int error = sendBytes(socket, request); error < 0) return error;
    alignas(nlmsghdr) char buffer[1024];
    for (bool overrun = false;;) {
        const ssize_t got = mnl_socket_recvfrom(socket, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EAGAIN) return overrun ? -ENOBUFS : 0;
            if (errno == ENOBUFS) overrun = true;
            // ENOSPC: a message of another kind, and longer.
            if (errno != ENOBUFS && errno != EINTR && errno != ENOSPC) return -errno;
            continue;
        }
        Answer answer;
        eachMessage({buffer, static_cast<size_t>(got)}, [&](const nlmsghdr *message) {
            if (message->nlmsg_seq == request->nlmsg_seq && message->nlmsg_type == NLMSG_ERROR)
                answer = {true, errorOf(message)};
        });
        if (answer.ended) return answer.error;
    }
}

int runDump(const mnl_socket *socket, nlmsghdr *request, std::span<char> buffer,
            void (*visit)(const nlmsghdr *message, void *context), void *context) {
    request->nlmsg_flags |= NLM_F_DUMP;
    if (const int error = sendBytes(socket, request); error < 0) return error;
    Answer answer;
    while (!answer.ended) {
        const ssize_t got = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        if (got >= 0) {
            readDump(buffer.first(static_cast<size_t>(got)), request->nlmsg_seq, visit, context, answer);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return -errno;
        pollfd waiting{.fd = mnl_socket_get_fd(socket), .events = POLLIN, .revents = 0};
        if (poll(&waiting, 1, kDumpPatienceMs) == 0) return -ETIMEDOUT;
    }
    return answer.error;
}

int errorOf(const nlmsghdr *message) {
    int error;
    if (message->nlmsg_len < MNL_NLMSG_HDRLEN + sizeof error) return -EBADMSG;
    memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
    return error > 0 ? -error : error;
}

}  // namespace am
