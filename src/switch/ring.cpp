#include "switch/ring.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "switch/protocol.h"

namespace {

constexpr int kNetlinkRxRing = 6;  // NETLINK_RX_RING, a socket option of level SOL_NETLINK

}  // namespace

constinit mnl_ring mmap_ring{
    nullptr, 0, {.nm_block_size = 65536, .nm_block_nr = 64, .nm_frame_size = kMessageSize, .nm_frame_nr = 0}};

int mnl_socket_set_ring(mnl_socket *socket, mnl_ring *ring) {
    if (!socket || !ring) return -1;
    NlMmapReq &req = ring->req;
    if (req.nm_block_size % static_cast<uint32_t>(getpagesize()) != 0) return -1;
    if (req.nm_frame_size == 0 || req.nm_block_size % req.nm_frame_size != 0) return -1;

    const size_t size = size_t{req.nm_block_size} * req.nm_block_nr;
    req.nm_frame_nr = static_cast<uint32_t>(size / req.nm_frame_size);
    if (mnl_socket_setsockopt(socket, kNetlinkRxRing, &req, sizeof req) < 0) {
        perror("mnl_socket_set_ring: NETLINK_RX_RING");
        return -1;
    }
    void *base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, mnl_socket_get_fd(socket), 0);
    if (base == MAP_FAILED) return -1;

    ring->ring = base;
    ring->frame_idx = 0;
    return 0;
}
