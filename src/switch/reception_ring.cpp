#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "core/log.h"
#include "flows/capture.h"
#include "flows/kernel_side.h"
#include "switch/packets.h"
#include "switch/protocol.h"
#include "switch/reception.h"
#include "switch/ring.h"
#include "switch/sockets.h"

namespace {

alignas(nlmsghdr) char copyBuffer[kMessageSize];  // of the capture thread: messages too long for a frame

}  // namespace

namespace am {

int setUpReception(mnl_socket *socket) {
    return mnl_socket_set_ring(socket, &mmap_ring);
}

Drained drainPackets() {
    const size_t room = mmap_ring.req.nm_frame_size - sizeof(NlMmapHdr);
    while (!captureHalted.load(std::memory_order_relaxed)) {
        amEngineYield();  // frames without a packet may come without end, too
        NlMmapHdr *frame = mnl_socket_get_frame(&mmap_ring);
        if (!frame) {
            amLog(AM_LOG_ERROR, "%s:%d hdr is NULL\n", "mainpThread", __LINE__);
            _exit(1);
        }
        switch (frameStatus(frame)) {
            case NL_MMAP_VALID:
                // In place: the engine reads the packet where the kernel put it.  A length beyond the frame
                // is cut to it, and the message then fails the walk's own length check.
                if (frame->nm_len != 0) dispatchPackets(frame + 1, std::min(size_t{frame->nm_len}, room));
                break;
            case NL_MMAP_COPY: {
                const ssize_t got =
                    recv(mnl_socket_get_fd(packet_nls), copyBuffer, sizeof copyBuffer, MSG_DONTWAIT);
                if (got <= 0) return Drained::waiting;
                dispatchPackets(copyBuffer, static_cast<size_t>(got));
                break;
            }
            default:
                return Drained::empty;
        }
        releaseFrame(frame);
        mnl_socket_advance_ring(&mmap_ring);
    }
    return Drained::halted;
}

}  // namespace am
