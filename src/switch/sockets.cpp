#include "switch/sockets.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/counts.h"
#include "core/log.h"
#include "flows/capture.h"
#include "flows/interrupt.h"
#include "flows/kernel_side.h"
#include "flows/mirroring.h"
#include "kit/renumbering.h"
#include "switch/protocol.h"
#include "switch/reception.h"
#include "switch/reports.h"
#include "switch/side_counts.h"

constinit mnl_socket *control_nls = nullptr;
constinit mnl_socket *packet_nls = nullptr;
constinit uint32_t control_portid = 0;
constinit uint32_t packet_portid = 0;
uloop_fd mgmt_fd;
constinit std::atomic<uint64_t> amStatsCounter{0};

namespace {

constexpr uint32_t kPacketPortBit = 0x10000;
constexpr unsigned kMgmtFlags = ULOOP_READ | ULOOP_EDGE_TRIGGER | ULOOP_ERROR_CB;
static_assert(kMgmtFlags == 0x45);

// Between an interrupt and what the event-loop thread does with the sockets meanwhile.
constinit AmMutex closeLock ACQUIRED_AFTER(amModelLock);
bool withdrawn GUARDED_BY(closeLock) = false;

[[noreturn]] void failWith(const char *text) {
    perror(text);
    _exit(1);  // no exit(): other threads may run, and nothing is left to be flushed
}

void publish(mnl_socket *&socket, mnl_socket *ready) EXCLUDES(closeLock) {
    const AmGuard guard(closeLock);
    socket = ready;
}

mnl_socket *openSocket(const char *failText) {
    mnl_socket *socket = mnl_socket_open(AM_NETLINK_PROTO);
    if (!socket) failWith(failText);
    // Not for the shell commands of a kit installation.
    (void)fcntl(mnl_socket_get_fd(socket), F_SETFD, FD_CLOEXEC);
    return socket;
}

void bindSocket(mnl_socket *socket, uint32_t portid) {
    if (mnl_socket_bind(socket, 0, static_cast<pid_t>(portid)) < 0) failWith("mnl_socket_bind");
}

void closeSocket(mnl_socket *&socket) {
    if (socket) (void)mnl_socket_close(socket);
    socket = nullptr;
}

void readReports(int fd) {
    alignas(nlmsghdr) char buffer[kMessageSize];
    for (;;) {
        errno = 0;
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got <= 0) {
            const int error = errno;
            if (got < 0 && error == ENOBUFS) am::countUp(am::sideCounts.reportOverruns);
            amLog(AM_LOG_INFO, "%s:%d Message received with Invalid length Err No: %d Err %s\n",
                  "amRecvNLMgmtSocket", __LINE__, error, strerror(error));
            return;
        }
        if (am::runMessages(buffer, static_cast<size_t>(got), control_portid, stats_cb) < MNL_CB_STOP)
            failWith("mnl_cb_run");
        amStatsCounter.fetch_add(1, std::memory_order_relaxed);
    }
}

}  // namespace

void amCreateNetLinkSockets() {
    installInterruptHandler();

    mnl_socket *control = openSocket("korvid: open management netlink socket");
    control_portid = static_cast<uint32_t>(getpid());
    bindSocket(control, control_portid);
    publish(control_nls, control);

    mnl_socket *packets = openSocket("korvid: open packet netlink socket");
    // Before the socket is bound: from then on the kernel may send.
    if (am::setUpReception(packets) < 0) failWith("mnl_socket_set_ring");
    packet_portid = control_portid | kPacketPortBit;
    bindSocket(packets, packet_portid);
    publish(packet_nls, packets);

    (void)amSendPktPortId(control_nls, packet_portid);
    if (amAdminState.load(std::memory_order_relaxed) == 1) am::setMirroring(true);

    mgmt_fd.cb = amRecvNLMgmtSocket;
    mgmt_fd.fd = mnl_socket_get_fd(control_nls);
    if (mgmt_fd.fd < 0) {
        amLog(AM_LOG_ERROR, "%s:%d Mgmt FD Invalid\n", __func__, __LINE__);
        return;
    }
    (void)uloop_fd_add(&mgmt_fd, kMgmtFlags);
}

void amCloseNetLinkSockets() {
    const AmGuard model(amModelLock);  // a verdict holds it shared while it sends
    const AmGuard guard(closeLock);
    closeSocket(packet_nls);
    closeSocket(control_nls);
}

void amRecvNLMgmtSocket(uloop_fd *fd, unsigned int events) {
    if (events & ULOOP_READ) readReports(mnl_socket_get_fd(control_nls));
    if (fd->error) {
        amLog(AM_LOG_ERROR, "%s:%d Control Msg Socket Error adding the uloop again\n", __func__, __LINE__);
        // Where there was nothing to read the error is still pending, and registering would report it at once
        // again, without end.
        if (am::takeSocketError(fd->fd) != 0) am::countUp(am::sideCounts.reportOverruns);
        (void)uloop_fd_add(fd, kMgmtFlags);
    }
}

namespace am {

constinit const char *const commandLineOptions = "cs:";

void takeOption(int, const char *) {}

// Nothing is sent once an interrupt has told the kernel to stop: that has to be its last word.
void setMirroring(bool on) {
    const AmGuard guard(closeLock);
    if (!withdrawn) (void)amSendMirrorConfig(control_nls, on ? 1 : 0);
}

int packetDescriptor() {
    return mnl_socket_get_fd(packet_nls);
}

void withdrawFromKernel() {
    const AmGuard guard(closeLock);
    withdrawn = true;
    if (control_nls) (void)amSendMirrorConfig(control_nls, 0);
    endCaptureAtInterrupt();
    abandonKernelSide();
}

// The kernel's module is told numbers with every verdict, and keeps to those.
constinit const bool applicationsKeepNumbers = true;

void beforeRenumbering() {}

void whileRenumbering() {}

void afterRenumbering() {}

void abandonKernelSide() {
    for (const mnl_socket *socket : {packet_nls, control_nls})
        if (socket) (void)close(mnl_socket_get_fd(socket));
}

}  // namespace am
