// The road of a verdict without a daemon, as the daemon's reference: reads the NFLOG group as the daemon
// does, and sets the mark of an HTTP connection at the packet of its answer, where an engine is
// certain.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "netfilter/attributes.h"
#include "netfilter/conntrack.h"
#include "netfilter/mark.h"
#include "netfilter/nflog.h"
#include "netfilter/requests.h"

namespace {

constexpr am::NflogSettings kSettings{};
constexpr uint32_t kHttp = 1;

mnl_socket *packets, *requests;
alignas(nlmsghdr) char received[am::kNflogReceive];

bool isAnswer(std::span<const uint8_t> packet, const am::ConnTuple &tuple) {
    const size_t ip = tuple.family == AF_INET ? (packet[0] & 15U) * 4U : 40U;
    if (tuple.proto != IPPROTO_TCP || packet.size() < ip + 20) return false;
    const size_t header = ip + (packet[ip + 12] >> 4) * 4U;
    if (packet.size() <= header) return false;
    const std::string_view text(reinterpret_cast<const char *>(packet.data()) + header,
                                packet.size() - header);
    return text.starts_with("HTTP/1.");
}

void onPacket(const nlmsghdr *message) {
    am::NflogPacket packet;
    am::ConnTuple tuple;
    if (!am::readNflogPacket(message, packet) || !am::readTuple(packet.packet, tuple)) return;
    if (!isAnswer(packet.packet, tuple)) return;
    const am::MarkLayout &marks = am::kDefaultMarkLayout;
    (void)am::setConnectionMark(requests, tuple, 0, {marks.verdict(kHttp, true), marks.mask});
}

}  // namespace

int main() {
    packets = am::openNetfilterSocket();
    requests = am::openNetfilterSocket();
    int error = 0;
    if (!packets || !requests || am::bindNflog(packets, kSettings, error) == am::NflogBound::no) {
        fprintf(stderr, "bare-loop: cannot listen to NFLOG group %u: %s\n", kSettings.group,
                strerror(-error));
        return 1;
    }
    const int fd = mnl_socket_get_fd(packets);
    for (pollfd waiting{fd, POLLIN, 0};;) {
        (void)poll(&waiting, 1, -1);
        ssize_t got;
        while ((got = recv(fd, received, sizeof received, MSG_DONTWAIT)) > 0)
            am::eachMessage({received, static_cast<size_t>(got)}, onPacket);
    }
}
