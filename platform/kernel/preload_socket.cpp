#include "preload_socket.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "preload_real.h"

using dpimod::ControlPage;
using dpimod::FrameHeader;
using dpimod::Op;
using dpimod::Reply;
using dpimod::Request;

namespace nl26 {
namespace {

constexpr size_t kMaxSockets = 32;
constexpr int kMaxFd = 65536;

constinit std::atomic<uint8_t> slotOfFd[kMaxFd]{};  // index into sockets + 1
constinit NlSocket sockets[kMaxSockets];
pthread_mutex_t tableLock = PTHREAD_MUTEX_INITIALIZER;

struct TableLock {
    TableLock() { pthread_mutex_lock(&tableLock); }
    ~TableLock() { pthread_mutex_unlock(&tableLock); }
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;
};

void closeFd(int &fd) {
    if (fd >= 0) real().close(fd);
    fd = -1;
}

int fail(int error) {
    errno = error;
    return -1;
}

// No module, no protocol: what socket(2) says for a netlink family that nobody registered.
int connectToModule() {
    const char *path = getenv("KORVID_DPIMOD_SOCKET");
    if (!path || !*path) path = dpimod::kDefaultSocketPath;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path) return fail(EPROTONOSUPPORT);
    memcpy(address.sun_path, path, strlen(path));
    int fd = real().socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (real().connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        closeFd(fd);
        return fail(EPROTONOSUPPORT);
    }
    // Only replies are awaited here; a stuck module must not hang the start of the daemon for ever.
    const timeval limit{10, 0};
    real().setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return fd;
}

// One request with its reply; descriptors that come along are stored in fds.  0 or an errno value.
int ask(int session, const Request &request, uint32_t *value, int *fds, size_t fdCount) {
    if (real().send(session, &request, sizeof request, MSG_NOSIGNAL) != sizeof request) return ECONNREFUSED;
    Reply reply{};
    iovec part{&reply, sizeof reply};
    alignas(cmsghdr) char space[CMSG_SPACE(4 * sizeof(int))]{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof space;
    ssize_t got;
    do got = real().recvmsg(session, &message, MSG_CMSG_CLOEXEC);
    while (got < 0 && errno == EINTR);
    const cmsghdr *carried = CMSG_FIRSTHDR(&message);
    if (carried && fds && carried->cmsg_type == SCM_RIGHTS &&
        carried->cmsg_len == CMSG_LEN(fdCount * sizeof(int)))
        memcpy(fds, CMSG_DATA(carried), fdCount * sizeof(int));
    if (got != sizeof reply) return EPROTONOSUPPORT;
    if (value) *value = reply.value;
    return reply.error;
}

// The queue end becomes the daemon's descriptor, with the flags that it asked for.
int setFlags(int fd, int flags) {
    if (!(flags & SOCK_CLOEXEC) && fcntl(fd, F_SETFD, 0) != 0) return -1;
    if ((flags & SOCK_NONBLOCK) && fcntl(fd, F_SETFL, O_NONBLOCK) != 0) return -1;
    return 0;
}

void unmapControl(NlSocket &nl) {
    if (nl.control) munmap(nl.control, dpimod::kControlPageSize);
    nl.control = nullptr;
}

// The control page stays mapped until the slot is taken again: a thread that comes out of poll, or is about
// to sleep in it, while another closes the socket still writes to it.
void closeHidden(NlSocket &nl) {
    closeFd(nl.session);
    closeFd(nl.memory);
    closeFd(nl.wake);
    closeFd(nl.space);
}

}  // namespace

NlSocket *find(int fd) {
    if (fd < 0 || fd >= kMaxFd) return nullptr;
    const uint8_t slot = slotOfFd[fd].load(std::memory_order_acquire);
    return slot == 0 ? nullptr : &sockets[slot - 1];
}

int openSocket(int flags) {
    const TableLock lock;
    size_t slot = 0;
    while (slot < kMaxSockets && sockets[slot].fd.load() >= 0) ++slot;
    if (slot == kMaxSockets) return fail(ENFILE);
    NlSocket &nl = sockets[slot];
    unmapControl(nl);
    nl.session = connectToModule();
    if (nl.session < 0) return -1;
    int fds[4] = {-1, -1, -1, -1};
    int error = ask(nl.session, {Op::hello, {dpimod::kChannelVersion, static_cast<uint32_t>(getpid()), 0, 0}},
                    nullptr, fds, 4);
    nl.memory = fds[1];
    nl.wake = fds[2];
    nl.space = fds[3];
    if (error == 0 && (fds[0] < 0 || fds[0] >= kMaxFd)) error = EMFILE;
    if (error == 0) {
        void *page =
            real().mmap(nullptr, dpimod::kControlPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, nl.memory, 0);
        if (page == MAP_FAILED)
            error = errno;
        else
            nl.control = static_cast<ControlPage *>(page);
    }
    if (error == 0 && setFlags(fds[0], flags) != 0) error = errno;
    if (error != 0) {
        closeFd(fds[0]);
        closeHidden(nl);
        return fail(error);
    }
    nl.portid = 0;
    nl.request = {};
    nl.ring.store(nullptr);
    nl.fd.store(fds[0]);
    slotOfFd[fds[0]].store(static_cast<uint8_t>(slot + 1), std::memory_order_release);
    return fds[0];
}

int bindSocket(NlSocket &nl, uint32_t portid, uint32_t groups) {
    const TableLock lock;
    if (nl.portid != 0) return portid == nl.portid ? 0 : fail(EINVAL);
    uint32_t given = 0;
    const int error = ask(nl.session, {Op::bind, {portid, groups, 0, 0}}, &given, nullptr, 0);
    if (error != 0) return fail(error);
    nl.portid = given;
    return 0;
}

int setRing(NlSocket &nl, const dpimod::RingRequest &request) {
    const TableLock lock;
    const int error =
        ask(nl.session,
            {Op::setRing, {request.blockSize, request.blockCount, request.frameSize, request.frameCount}},
            nullptr, nullptr, 0);
    if (error != 0) return fail(error);
    nl.request = request;
    return 0;
}

void forget(NlSocket &nl) {
    const TableLock lock;
    const int fd = nl.fd.load();
    if (fd < 0) return;
    slotOfFd[fd].store(0, std::memory_order_release);
    nl.ring.store(nullptr);
    nl.portid = 0;
    closeHidden(nl);
    nl.fd.store(-1);
}

ssize_t sendToModule(NlSocket &nl, const iovec *parts, size_t count) {
    constexpr size_t kMaxParts = 16;
    if (count >= kMaxParts) return fail(EMSGSIZE);
    // A socket that nobody bound is bound by its first send.
    if (nl.portid == 0 && bindSocket(nl, 0, 0) != 0) return -1;
    Request request{Op::send, {}};
    iovec all[kMaxParts];
    all[0] = {&request, sizeof request};
    for (size_t i = 0; i < count; ++i) all[i + 1] = parts[i];
    msghdr message{};
    message.msg_iov = all;
    message.msg_iovlen = count + 1;
    ssize_t sent;
    do sent = real().sendmsg(nl.session, &message, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    if (sent < 0) return fail(errno == EPIPE || errno == ECONNRESET ? ECONNREFUSED : errno);
    return sent - static_cast<ssize_t>(sizeof request);
}

bool ringReady(const NlSocket &nl) {
    const uint8_t *ring = nl.ring.load(std::memory_order_acquire);
    if (!ring) return false;
    // Frames are handed back in order: if the one filled last is still in use, the reader has work; so it has
    // if the next one was filled a moment ago.
    const uint32_t count = nl.request.frameCount;
    const uint32_t head = nl.control->head.load(std::memory_order_acquire) % count;
    const auto used = [&](uint32_t index) {
        const auto *frame =
            reinterpret_cast<const FrameHeader *>(ring + size_t{index} * nl.request.frameSize);
        const uint32_t status = frame->status.load(std::memory_order_acquire);
        return status == dpimod::kFrameValid || status == dpimod::kFrameCopy;
    };
    return used(head) || used(head == 0 ? count - 1 : head - 1);
}

}  // namespace nl26
