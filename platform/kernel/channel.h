// What libnetlink26.so and dpimod say to each other; nobody else sees it.
//
// A netlink socket of the daemon is, underneath:
//   session   AF_UNIX SOCK_SEQPACKET connection to dpimod, hidden from the daemon: requests, and every
//   message
//             the daemon sends.  A send blocks until dpimod has room, as a send to the kernel never loses
//             one. Its end tells dpimod that the socket is closed.
//   queue     the descriptor that the daemon holds: one end of an AF_UNIX SOCK_DGRAM pair.  What dpimod
//   queues
//             is readable there, so that poll, epoll and plain receives need no help.
//   memory    a memfd: the ControlPage, then the receive ring once it was asked for
//   wake      eventfd: dpimod wakes a reader that sleeps in poll
//   space     eventfd: a reader that found the ring empty wakes a dpimod that waits for free frames
//
// Ring sleep and wake, without a system call while both sides are busy:
//   reader   sleeping = 1; fence; look at the ring again; sleep on queue and wake; sleeping = 0
//   dpimod   fill frames; fence; if sleeping was 1, set it to 0 and write to wake
// Whichever fence comes second sees the other side's store, so a wake-up cannot get lost.
// The other direction (waitingForSpace, space) works the same way, the reader looking behind its fence;
// dpimod's sleep is short besides.
#pragma once
#include <atomic>
#include <cstdint>

namespace dpimod {

constexpr char kDefaultSocketPath[] = "/run/dpimod.sock";
constexpr uint32_t kChannelVersion = 0x4b4d0001;
constexpr uint32_t kControlPageSize = 4096;  // the ring starts behind it
constexpr uint32_t kMaxRingBytes = 256U << 20;

// As <linux/netlink.h> had it; current headers may leave it out.
struct RingRequest {
    uint32_t blockSize, blockCount, frameSize, frameCount;
};
static_assert(sizeof(RingRequest) == 16);

struct FrameHeader {
    std::atomic<uint32_t> status;
    uint32_t length;
    uint32_t group, portid, uid, gid;
};
static_assert(sizeof(FrameHeader) == 24);
enum FrameStatus : uint32_t {
    kFrameUnused = 0,
    kFrameReserved = 1,
    kFrameValid = 2,
    kFrameCopy = 3,
    kFrameSkip = 4,
};

struct ControlPage {
    // Written by dpimod: index of the frame it fills next.
    alignas(64) std::atomic<uint32_t> head;
    // Written by the reader, cleared by either side.
    alignas(64) std::atomic<uint32_t> sleeping;
    // Set by dpimod, cleared by the reader that rings `space`.
    alignas(64) std::atomic<uint32_t> waitingForSpace;
    // Set by dpimod when it reported an overrun; cleared by the reader's next poll or receive.  Until then
    // further overruns are counted, not reported: the reader has been told already.
    alignas(64) std::atomic<uint32_t> congested;
    // Set by dpimod while it queues a message and raises an error that belong together, so that the reader
    // does not take the one before the other is there.
    std::atomic<uint32_t> raising;
    std::atomic<uint32_t> ignoreOverruns;  // NETLINK_NO_ENOBUFS
};
static_assert(sizeof(ControlPage) <= kControlPageSize);
static_assert(std::atomic<uint32_t>::is_always_lock_free);

enum class Op : uint32_t {
    hello = 1,    // version, pid      -> error; carries queue, memory, wake, space
    bind = 2,     // port id, groups   -> error, port id
    setRing = 3,  // the ring request  -> error
    send = 4,     // bytes follow; no reply
};

struct Request {
    Op op;
    uint32_t argument[4];
};
static_assert(sizeof(Request) == 20);

struct Reply {
    int32_t error;  // 0 or an errno value
    uint32_t value;
};

}  // namespace dpimod
