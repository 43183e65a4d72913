// libnetlink26.so: AF_NETLINK protocol 26 for machines without the DPI kernel module.
//
// Preloaded into the daemon, it stands in for the calls below on sockets of that protocol and passes every
// other descriptor through.  The other end is dpimod; channel.h says how they talk.  Duplicated descriptors
// and select or epoll on a socket that has a receive ring are not served (epoll without a ring is).
#include <linux/netlink.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "preload_real.h"
#include "preload_socket.h"

#ifndef NETLINK_RX_RING
#define NETLINK_RX_RING 6
#endif

#define STAND_IN extern "C" __attribute__((visibility("default")))

using dpimod::kControlPageSize;
using nl26::find;
using nl26::NlSocket;
using nl26::real;

namespace {

constexpr int kProtocol = 26;

int fail(int error) {
    errno = error;
    return -1;
}

sockaddr_nl addressOf(uint32_t portid) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = portid;
    return address;
}

// As the kernel stores addresses: cut to the caller's room, the true length reported.
void storeAddress(sockaddr *to, socklen_t *length, uint32_t portid) {
    if (!to || !length) return;
    const sockaddr_nl address = addressOf(portid);
    memcpy(to, &address, *length < sizeof address ? *length : sizeof address);
    *length = sizeof address;
}

// The module reports an overrun as a broken connection, the only error that the far end of a socket pair can
// raise; the daemon sees what netlink reports.
ssize_t received(ssize_t result) {
    if (result < 0 && errno == ECONNRESET) errno = ENOBUFS;
    return result;
}

void readerIsBack(NlSocket &nl) {
    if (nl.control->congested.load(std::memory_order_relaxed) != 0)
        nl.control->congested.store(0, std::memory_order_relaxed);
}

// Before a receive.  Waits for an error that is just being raised, but not for a module that died over it.
void comesToRead(NlSocket &nl) {
    constexpr timespec kPause{0, 20000};
    for (int i = 0; i < 5000 && nl.control->raising.load() != 0; ++i) nanosleep(&kPause, nullptr);
    readerIsBack(nl);
}

// Only the kernel (port id 0) can be talked to.
int checkDestination(const sockaddr *to, socklen_t length) {
    if (!to) return 0;
    sockaddr_nl address{};
    if (length < sizeof address) return EINVAL;
    memcpy(&address, to, sizeof address);
    if (address.nl_family != AF_NETLINK) return EINVAL;
    if (address.nl_groups != 0) return EPERM;
    return address.nl_pid == 0 ? 0 : ECONNREFUSED;
}

ssize_t sendBytes(NlSocket &nl, const void *data, size_t size, const sockaddr *to, socklen_t length) {
    if (const int error = checkDestination(to, length)) return fail(error);
    const iovec part{const_cast<void *>(data), size};
    return nl26::sendToModule(nl, &part, 1);
}

timespec now() {
    timespec time{};
    // Not clock_gettime: a library that fakes the daemon's time must not stretch this wait.
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &time);
    return time;
}

constexpr int64_t kNanos = 1000000000;
int64_t nanos(const timespec &time) {
    return time.tv_sec * kNanos + time.tv_nsec;
}
timespec fromNanos(int64_t value) {
    if (value < 0) value = 0;
    return {static_cast<time_t>(value / kNanos), static_cast<long>(value % kNanos)};
}

bool hasRing(const pollfd &entry) {
    const NlSocket *nl = find(entry.fd);
    return nl && nl->ring.load(std::memory_order_relaxed);
}

// Rings among the descriptors, for which poll needs help.
nfds_t countRings(const pollfd *fds, nfds_t count) {
    nfds_t rings = 0;
    for (nfds_t i = 0; i < count; ++i) rings += hasRing(fds[i]) ? 1 : 0;
    return rings;
}

// Adds what the rings have to what the kernel said; the number of descriptors with events.
int mergeRings(pollfd *fds, nfds_t count) {
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
        NlSocket *nl = find(fds[i].fd);
        if (nl && nl->ring.load(std::memory_order_relaxed)) {
            readerIsBack(*nl);
            constexpr short kReadable = POLLIN | POLLRDNORM;
            if ((fds[i].events & kReadable) && nl26::ringReady(*nl))
                fds[i].revents = static_cast<short>(fds[i].revents | (fds[i].events & kReadable));
        }
        if (fds[i].revents) ++ready;
    }
    return ready;
}

void drain(int event) {
    uint64_t count;
    if (read(event, &count, sizeof count) < 0) return;  // nothing there: the event is non-blocking
}

// A reader that comes to poll has emptied the ring, or is about to: a module that waits for free frames goes
// on.
void ringTheModule(NlSocket &nl) {
    if (nl.control->waitingForSpace.load(std::memory_order_relaxed) == 0) return;
    if (nl.control->waitingForSpace.exchange(0) == 0) return;
    const uint64_t one = 1;
    if (write(nl.space, &one, sizeof one) < 0) return;  // full: it is awake already
}

// poll for a set with `rings` ring sockets in it: the kernel's poll on the set and on the rings' wake events,
// between looks at the rings.
int pollRings(pollfd *fds, nfds_t count, nfds_t rings, const timespec *timeout, const sigset_t *mask) {
    constexpr nfds_t kMaxFds = 128;
    if (count + rings > kMaxFds) return fail(EINVAL);
    const timespec zero{};
    // The common case first: the ring has frames.  The descriptors' own state is asked for without waiting.
    bool frames = false;
    for (nfds_t i = 0; i < count; ++i)
        frames = frames || (hasRing(fds[i]) && nl26::ringReady(*find(fds[i].fd)));
    if (frames) {
        const int result = real().ppoll(fds, count, &zero, mask);
        return result < 0 ? result : mergeRings(fds, count);
    }
    pollfd all[kMaxFds];
    NlSocket *sockets[kMaxFds];
    nfds_t total = count, used = 0;
    memcpy(all, fds, count * sizeof *fds);
    for (nfds_t i = 0; i < count && used < rings; ++i) {
        if (!hasRing(fds[i])) continue;
        sockets[used++] = find(fds[i].fd);
        all[total++] = {sockets[used - 1]->wake, POLLIN, 0};
    }
    const int64_t end = timeout ? nanos(now()) + nanos(*timeout) : 0;
    for (;;) {
        bool ready = false;
        for (nfds_t i = 0; i < used; ++i) {
            readerIsBack(*sockets[i]);
            sockets[i]->control->sleeping.store(1, std::memory_order_relaxed);
        }
        std::atomic_thread_fence(std::memory_order_seq_cst);
        for (nfds_t i = 0; i < used; ++i) {
            ringTheModule(*sockets[i]);  // behind the fence: the frames handed back are seen before the look
            ready = ready || nl26::ringReady(*sockets[i]);
        }
        timespec left = ready ? zero : fromNanos(timeout ? end - nanos(now()) : 0);
        const int result = real().ppoll(all, total, ready || timeout ? &left : nullptr, mask);
        const int error = errno;
        bool woken = false;
        for (nfds_t i = 0; i < used; ++i) {
            sockets[i]->control->sleeping.store(0, std::memory_order_relaxed);
            if (result > 0 && all[count + i].revents) {
                woken = true;
                if (sockets[i]->fd.load() >= 0) drain(sockets[i]->wake);
            }
        }
        if (result < 0) return fail(error);
        memcpy(fds, all, count * sizeof *fds);
        const int found = mergeRings(fds, count);
        // A wake-up without a frame is left from an earlier sleep: sleep again for what is left of the time.
        if (found > 0 || !woken || (timeout && nanos(now()) >= end)) return found;
    }
}

int setNetlinkOption(NlSocket &nl, int option, const void *value, socklen_t length) {
    int number = 0;
    switch (option) {
        case NETLINK_RX_RING: {
            dpimod::RingRequest request{};
            if (length < sizeof request) return fail(EINVAL);
            memcpy(&request, value, sizeof request);
            return nl26::setRing(nl, request);
        }
        case NETLINK_NO_ENOBUFS:
            if (length < sizeof number) return fail(EINVAL);
            memcpy(&number, value, sizeof number);
            nl.control->ignoreOverruns.store(number != 0);
            return 0;
        case NETLINK_PKTINFO:
        case NETLINK_BROADCAST_ERROR:
        case NETLINK_CAP_ACK:
        case NETLINK_EXT_ACK:
            return 0;  // nothing here depends on them
        default:
            return fail(ENOPROTOOPT);
    }
}

}  // namespace

STAND_IN int socket(int domain, int type, int protocol) noexcept {
    if (domain != AF_NETLINK || protocol != kProtocol) return real().socket(domain, type, protocol);
    const int kind = type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (kind != SOCK_RAW && kind != SOCK_DGRAM) return fail(ESOCKTNOSUPPORT);
    return nl26::openSocket(type);
}

STAND_IN int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
    NlSocket *nl = find(fd);
    if (!nl) return real().bind(fd, address, length);
    sockaddr_nl given{};
    if (!address || length < sizeof given) return fail(EINVAL);
    memcpy(&given, address, sizeof given);
    if (given.nl_family != AF_NETLINK) return fail(EINVAL);
    return nl26::bindSocket(*nl, given.nl_pid, given.nl_groups);
}

STAND_IN int connect(int fd, const sockaddr *address, socklen_t length) {
    if (!find(fd)) return real().connect(fd, address, length);
    const int error = checkDestination(address, length);
    return error == 0 ? 0 : fail(error);
}

STAND_IN int getsockname(int fd, sockaddr *address, socklen_t *length) noexcept {
    const NlSocket *nl = find(fd);
    if (!nl) return real().getsockname(fd, address, length);
    storeAddress(address, length, nl->portid);
    return 0;
}

STAND_IN int setsockopt(int fd, int level, int option, const void *value, socklen_t length) noexcept {
    if (level == SOL_NETLINK) {
        if (NlSocket *nl = find(fd)) return setNetlinkOption(*nl, option, value, length);
    }
    return real().setsockopt(fd, level, option, value, length);
}

STAND_IN int getsockopt(int fd, int level, int option, void *value, socklen_t *length) noexcept {
    const int result = real().getsockopt(fd, level, option, value, length);
    if (result != 0 || level != SOL_SOCKET || *length < sizeof(int) || !find(fd)) return result;
    int number;
    memcpy(&number, value, sizeof number);
    switch (option) {
        case SO_ERROR:
            if (number == ECONNRESET) number = ENOBUFS;
            break;
        case SO_DOMAIN:
            number = AF_NETLINK;
            break;
        case SO_TYPE:
            number = SOCK_RAW;
            break;
        case SO_PROTOCOL:
            number = kProtocol;
            break;
        default:
            break;
    }
    memcpy(value, &number, sizeof number);
    return 0;
}

STAND_IN void *mmap(void *address, size_t length, int protection, int flags, int fd, off_t offset) noexcept {
    NlSocket *nl = find(fd);
    if (!nl) return real().mmap(address, length, protection, flags, fd, offset);
    if (offset != 0 || length == 0 || length != size_t{nl->request.blockSize} * nl->request.blockCount) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    void *ring = real().mmap(address, length, protection, flags, nl->memory, kControlPageSize);
    if (ring != MAP_FAILED) nl->ring.store(static_cast<uint8_t *>(ring), std::memory_order_release);
    return ring;
}

STAND_IN void *mmap64(void *address, size_t length, int protection, int flags, int fd,
                      off_t offset) noexcept {
    return mmap(address, length, protection, flags, fd, offset);
}

STAND_IN int poll(pollfd *fds, nfds_t count, int timeout) {
    const nfds_t rings = countRings(fds, count);
    if (rings == 0) return real().poll(fds, count, timeout);
    const timespec limit{timeout / 1000, timeout % 1000 * 1000000L};
    return pollRings(fds, count, rings, timeout < 0 ? nullptr : &limit, nullptr);
}

STAND_IN int __poll_chk(pollfd *fds, nfds_t count, int timeout, size_t size) {
    if (size / sizeof *fds < count) __builtin_trap();
    return poll(fds, count, timeout);
}

STAND_IN int ppoll(pollfd *fds, nfds_t count, const timespec *timeout, const sigset_t *mask) {
    const nfds_t rings = countRings(fds, count);
    if (rings == 0) return real().ppoll(fds, count, timeout, mask);
    return pollRings(fds, count, rings, timeout, mask);
}

STAND_IN int __ppoll_chk(pollfd *fds, nfds_t count, const timespec *timeout, const sigset_t *mask,
                         size_t size) {
    if (size / sizeof *fds < count) __builtin_trap();
    return ppoll(fds, count, timeout, mask);
}

STAND_IN ssize_t send(int fd, const void *data, size_t size, int flags) {
    NlSocket *nl = find(fd);
    return nl ? sendBytes(*nl, data, size, nullptr, 0) : real().send(fd, data, size, flags);
}

STAND_IN ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to,
                        socklen_t length) {
    NlSocket *nl = find(fd);
    return nl ? sendBytes(*nl, data, size, to, length) : real().sendto(fd, data, size, flags, to, length);
}

STAND_IN ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    NlSocket *nl = find(fd);
    if (!nl) return real().sendmsg(fd, message, flags);
    const auto *to = static_cast<const sockaddr *>(message->msg_name);
    if (const int error = checkDestination(to, message->msg_namelen)) return fail(error);
    return nl26::sendToModule(*nl, message->msg_iov, message->msg_iovlen);
}

STAND_IN ssize_t recv(int fd, void *data, size_t size, int flags) {
    NlSocket *nl = find(fd);
    if (!nl) return real().recv(fd, data, size, flags);
    comesToRead(*nl);
    return received(real().recv(fd, data, size, flags));
}

STAND_IN ssize_t __recv_chk(int fd, void *data, size_t size, size_t room, int flags) {
    if (size > room) __builtin_trap();
    return recv(fd, data, size, flags);
}

STAND_IN ssize_t recvfrom(int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *length) {
    NlSocket *nl = find(fd);
    if (!nl) return real().recvfrom(fd, data, size, flags, from, length);
    comesToRead(*nl);
    const ssize_t got = received(real().recv(fd, data, size, flags));
    if (got >= 0) storeAddress(from, length, 0);
    return got;
}

STAND_IN ssize_t __recvfrom_chk(int fd, void *data, size_t size, size_t room, int flags, sockaddr *from,
                                socklen_t *length) {
    if (size > room) __builtin_trap();
    return recvfrom(fd, data, size, flags, from, length);
}

STAND_IN ssize_t recvmsg(int fd, msghdr *message, int flags) {
    NlSocket *nl = find(fd);
    if (!nl) return real().recvmsg(fd, message, flags);
    comesToRead(*nl);
    msghdr plain = *message;
    plain.msg_name = nullptr;
    plain.msg_namelen = 0;
    const ssize_t got = received(real().recvmsg(fd, &plain, flags));
    if (got < 0) return got;
    message->msg_flags = plain.msg_flags;
    message->msg_controllen = plain.msg_controllen;
    storeAddress(static_cast<sockaddr *>(message->msg_name), &message->msg_namelen, 0);
    return got;
}

STAND_IN int close(int fd) {
    if (NlSocket *nl = find(fd)) nl26::forget(*nl);
    return real().close(fd);
}
