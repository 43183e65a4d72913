#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "core/counts.h"
#include "core/log.h"
#include "flows/capture.h"
#include "flows/kernel_side.h"
#include "switch/packets.h"
#include "switch/protocol.h"
#include "switch/reception.h"
#include "switch/sockets.h"

namespace {

// A batch costs one system call.  Larger ones gain little and fall out of the second-level cache.
constexpr unsigned kBatch = 32;

// The capture thread's.
alignas(nlmsghdr) char buffers[kBatch][kMessageSize];
iovec parts[kBatch];
mmsghdr batch[kBatch];

}  // namespace

namespace am {

int setUpReception(mnl_socket *socket) {
    for (unsigned i = 0; i < kBatch; i++) {
        parts[i] = {buffers[i], sizeof buffers[i]};
        batch[i].msg_hdr.msg_iov = &parts[i];
        batch[i].msg_hdr.msg_iovlen = 1;
    }
    // As much as the ring would hold.  Without the right to exceed the system's limit, what that allows.
    const int size = 4 << 20;
    const int fd = mnl_socket_get_fd(socket);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    return 0;
}

Drained drainPackets() {
    while (!captureHalted.load(std::memory_order_relaxed)) {
        amEngineYield();  // messages without a packet may come without end, too
        const int got = recvmmsg(mnl_socket_get_fd(packet_nls), batch, kBatch, MSG_DONTWAIT, nullptr);
        if (got <= 0) {
            if (got < 0 && errno != EAGAIN && errno != EINTR) {
                countUp(counts.packetOverruns);
                amLog(AM_LOG_ERROR, "%s:%d packet socket error: %s\n", "mainpThread", __LINE__,
                      strerror(errno));
            }
            return Drained::empty;
        }
        for (unsigned i = 0; i < static_cast<unsigned>(got); i++)
            if (batch[i].msg_len != 0) dispatchPackets(buffers[i], batch[i].msg_len);
        if (static_cast<unsigned>(got) < kBatch) return Drained::empty;
    }
    return Drained::halted;
}

}  // namespace am
