// The memory-mapped receive ring of the packet socket, as kernels of the switch's generation offer it
// (NETLINK_RX_RING, linux/netlink.h before version 4.6; netlink(7) does not describe it).
//
// The kernel fills an UNUSED frame and marks it VALID, or COPY when the message did not fit and was queued on
// the socket instead.  The reader is done with a frame when it marks it UNUSED and moves on. Threads: set up
// on the main thread before the capture thread runs, then used by the capture thread alone.
#pragma once
#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>

enum NlMmapStatus : uint32_t {
    NL_MMAP_UNUSED = 0,
    NL_MMAP_RESERVED = 1,
    NL_MMAP_VALID = 2,
    NL_MMAP_COPY = 3,
    NL_MMAP_SKIP = 4,
};

// The kernel's struct nl_mmap_req and struct nl_mmap_hdr, which only some versions of its headers carry.
struct NlMmapReq {
    uint32_t nm_block_size;  // bytes
    uint32_t nm_block_nr;
    uint32_t nm_frame_size;  // bytes
    uint32_t nm_frame_nr;
};
static_assert(sizeof(NlMmapReq) == 16);

struct NlMmapHdr {
    uint32_t nm_status;  // NlMmapStatus; shared with the kernel, reached through frameStatus and releaseFrame
    uint32_t nm_len;     // bytes of netlink messages after this header
    uint32_t nm_group;
    uint32_t nm_pid;
    uint32_t nm_uid;
    uint32_t nm_gid;
};
static_assert(sizeof(NlMmapHdr) == 24);

struct mnl_ring {
    void *ring;          // base of the mapping, or null
    uint32_t frame_idx;  // the frame to look at next
    NlMmapReq req;
};

extern mnl_ring mmap_ring;  // of packet_nls: 64 blocks of 65,536 bytes, 1,024 frames of 4,096

// Asks the kernel for the ring that `ring->req` describes and maps it.  0, or -1.
int mnl_socket_set_ring(mnl_socket *socket, mnl_ring *ring);

// The current frame, or null when there is no ring.
inline NlMmapHdr *mnl_socket_get_frame(const mnl_ring *ring) {
    if (!ring || !ring->ring) return nullptr;
    char *base = static_cast<char *>(ring->ring);
    return reinterpret_cast<NlMmapHdr *>(base + size_t{ring->frame_idx} * ring->req.nm_frame_size);
}

// On to the next frame; after the last comes the first.
inline void mnl_socket_advance_ring(mnl_ring *ring) {
    if (!ring) return;
    const uint32_t next = ring->frame_idx + 1;
    ring->frame_idx = next < ring->req.nm_frame_nr ? next : 0;
}

// Acquire: what the kernel wrote before it set the status is visible.
inline uint32_t frameStatus(const NlMmapHdr *frame) {
    return __atomic_load_n(&frame->nm_status, __ATOMIC_ACQUIRE);
}
// Release: the frame is the kernel's once this is seen.
inline void releaseFrame(NlMmapHdr *frame) {
    __atomic_store_n(&frame->nm_status, NL_MMAP_UNUSED, __ATOMIC_RELEASE);
}
