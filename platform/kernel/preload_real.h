// The C library's functions behind the ones that libnetlink26.so stands in for.
//
// Looked up at first use, not in a constructor: a sanitizer's runtime calls socket and mmap interceptors
// before constructors run.  A lookup that two threads do at once finds the same addresses.
#pragma once
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <csignal>
#include <cstddef>

namespace nl26 {

struct Real {
    int (*socket)(int, int, int);
    int (*bind)(int, const sockaddr *, socklen_t);
    int (*connect)(int, const sockaddr *, socklen_t);
    int (*getsockname)(int, sockaddr *, socklen_t *);
    int (*setsockopt)(int, int, int, const void *, socklen_t);
    int (*getsockopt)(int, int, int, void *, socklen_t *);
    void *(*mmap)(void *, size_t, int, int, int, off_t);
    int (*poll)(pollfd *, nfds_t, int);
    int (*ppoll)(pollfd *, nfds_t, const timespec *, const sigset_t *);
    ssize_t (*send)(int, const void *, size_t, int);
    ssize_t (*sendto)(int, const void *, size_t, int, const sockaddr *, socklen_t);
    ssize_t (*sendmsg)(int, const msghdr *, int);
    ssize_t (*recv)(int, void *, size_t, int);
    ssize_t (*recvfrom)(int, void *, size_t, int, sockaddr *, socklen_t *);
    ssize_t (*recvmsg)(int, msghdr *, int);
    int (*close)(int);
};

const Real &real();

}  // namespace nl26
