#include "world.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "appmodel/app_lists.h"
#include "core/log.h"
#include "core/paths.h"
#include "flows/mirroring.h"
#include "switch/protocol.h"
#include "switch/sockets.h"

namespace {
std::atomic<bool> discarding{false};
}

// libmnl addresses the kernel, which has nobody at protocol 26 here.  So a datagram pair stands in for the
// netlink socket and the address is left out: one system call, one queued datagram, for either side of a row.
extern "C" __attribute__((visibility("default"))) ssize_t sendto(int fd, const void *data, size_t length,
                                                                 int flags, const sockaddr *, socklen_t) {
    if (discarding.load(std::memory_order_relaxed)) return static_cast<ssize_t>(length);
    return syscall(SYS_sendto, fd, data, length, flags, nullptr, 0);
}

namespace bench {

std::mt19937_64 anyNumber(20240305);

namespace {

DatagramPair control;
std::vector<AmEnfKey4> held;

void checked(bool good, const char *what) {
    if (good) return;
    perror(what);
    exit(2);
}

}  // namespace

void installApplications(uint32_t count) {
    amCleanAppData();
    amAppPoolMarkObsolete();
    for (uint32_t id = 0; id < count; id++) {
        AmAppNode record{};
        snprintf(record.name, sizeof record.name, "application-%u", id);
        record.appId = static_cast<uint16_t>(id);
        (void)amUpdateAppPool(&record);
    }
    amCleanAppPool();
    amAppPoolShmSigCnt = static_cast<int32_t>(count - 1);
    amRebuildActiveAppArray(__func__, __LINE__);
}

std::string applicationName(uint32_t id) {
    return "application-" + std::to_string(id);
}

void makeWorld() {
    rbtInit(&amAppPoolTree, amAppPoolNameCompare);
    rbtInit(&amAppGrpTree, amAppGrpNameCompare);
    installApplications(kApps);
    checked(amAddAppToGrp("entertainment", applicationName(kEnforcedApp).c_str()) == 1 &&
                amAddGrpToAppList("entertainment", AM_LIST_ENFORCEMENT) == 1 &&
                amAddAppToGrp("office", applicationName(kMonitoredApp).c_str()) == 1 &&
                amAddGrpToAppList("office", AM_LIST_ENFORCEMENT) == 1 &&
                amAddGrpToAppList("office", AM_LIST_MONITORING) == 1,
            "lists");
    {
        const AmGuard model(amModelLock);
        amAdminState.store(1);
    }
    amInitEnfFlowDb();
    amLogOpen(kLogPath, AM_LOG_ERROR);
    control = datagramPair();
    control_nls = mnl_socket_fdopen(control.near);
    checked(control_nls != nullptr, "control socket");
}

AmEnfKey4 freshKey() {
    const uint64_t one = anyNumber();
    const uint64_t other = anyNumber();
    AmEnfKey4 key{};
    key.fst_ip = static_cast<uint32_t>(one);
    key.secnd_ip = static_cast<uint32_t>(one >> 32);
    key.fstPort = static_cast<uint16_t>(other);
    key.scndPort = 443;
    key.proto = IPPROTO_TCP;
    return key;
}

capture_flow_info flowOf(const AmEnfKey4 &key, uint32_t appId) {
    capture_flow_info info{};
    info.ipproto = AM_IP_TYPE_IPV4;
    info.src_ip = key.fst_ip;
    info.dst_ip = key.secnd_ip;
    info.src_port = key.fstPort;
    info.dst_port = key.scndPort;
    info.proto = key.proto;
    info.app_id = appId;
    return info;
}

AmEnfKey4 keyOf(const capture_flow_info &info) {
    return {info.src_ip,
            info.dst_ip,
            static_cast<uint16_t>(info.src_port),
            static_cast<uint16_t>(info.dst_port),
            static_cast<uint8_t>(info.proto),
            {}};
}

capture_flow_info freshFlow(uint32_t appId) {
    return flowOf(freshKey(), appId);
}

capture_flow_info freshFlow6(uint32_t appId) {
    capture_flow_info info = freshFlow(appId);
    info.ipproto = AM_IP_TYPE_IPV6;
    for (in6_addr *address : {&info.src_ip6, &info.dst_ip6}) {
        const uint64_t words[2] = {htonl(0x20010db8), anyNumber()};
        memcpy(address, words, sizeof *address);
    }
    return info;
}

void holdFlows(size_t count) {
    size_t now = 0;
    {
        const AmGuard guard(amEnfFlowLock);
        now = rbtCount(&amEnfFlowDb);
    }
    if (held.size() == count && now >= count && now <= count + count / 20) return;
    amCleanAllEnfFlowDb();
    held.clear();
    held.reserve(count);
    for (size_t i = 0; i < count; i++) {
        const capture_flow_info info = freshFlow(kEnforcedApp);
        held.push_back(keyOf(info));
        (void)amUpdateEnfFlowDb(&info);
    }
}

const std::vector<AmEnfKey4> &heldKeys() {
    return held;
}

DatagramPair datagramPair() {
    int ends[2];
    checked(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    const int size = 4 << 20;
    for (const int end : ends)
        if (setsockopt(end, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0)
            (void)setsockopt(end, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    return {ends[0], ends[1]};
}

void discardVerdicts(bool discard) {
    discarding.store(discard, std::memory_order_relaxed);
}

void drainControl() {
    char datagram[4096];
    while (recv(control.far, datagram, sizeof datagram, MSG_DONTWAIT) > 0) {
    }
}

}  // namespace bench
