// The netlink sockets of protocol 26 that a process holds, on the preload library's side.
//
// A descriptor belongs to at most one NlSocket; looking a foreign descriptor up costs one byte load.  Sockets
// live in a static table, so that a thread that still sleeps in poll while another closes the socket reads
// valid memory.  Opening, binding and closing are serialised per process; lookups take no lock.
#pragma once
#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "channel.h"

namespace nl26 {

struct NlSocket {
    std::atomic<int> fd{-1};  // the daemon's descriptor, the queue
    int session = -1, memory = -1, wake = -1, space = -1;
    uint32_t portid = 0;  // 0: not bound
    dpimod::ControlPage *control = nullptr;
    // Where the daemon mapped the ring.  It is read in poll, so it stays mapped until the socket is closed.
    std::atomic<uint8_t *> ring{nullptr};
    dpimod::RingRequest request{};
};

// The socket behind a descriptor, null if it is none of ours.
NlSocket *find(int fd);

// These return a descriptor or 0, or -1 with errno set.
int openSocket(int flags);
int bindSocket(NlSocket &nl, uint32_t portid, uint32_t groups);
int setRing(NlSocket &nl, const dpimod::RingRequest &request);
// Forgets the socket and closes the hidden descriptors; the daemon's own is the caller's.
void forget(NlSocket &nl);

// Hands a datagram to the kernel module: blocks until it is taken, -1 with errno if there is no module.
ssize_t sendToModule(NlSocket &nl, const struct iovec *parts, size_t count);

// True when the reader of the ring has something to do.
bool ringReady(const NlSocket &nl);

}  // namespace nl26
