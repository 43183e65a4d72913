#include "support.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "core/log.h"
#include "core/text.h"
#include "flows/enf_flow_db.h"
#include "flows/mirroring.h"
#include "switch/protocol.h"
#include "switch/sockets.h"

namespace {

AmMutex sentLock;
std::vector<Bytes> sent GUARDED_BY(sentLock);
int sendError GUARDED_BY(sentLock) = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t sendto(int, const void *data, size_t length, int,
                                                                 const sockaddr *address, socklen_t) {
    const AmGuard guard(sentLock);
    if (sendError != 0) {
        errno = sendError;
        return -1;
    }
    // The kernel is port id 0.
    const auto *to = reinterpret_cast<const sockaddr_nl *>(address);
    EXPECT_EQ(to->nl_family, AF_NETLINK);
    EXPECT_EQ(to->nl_pid, 0U);
    const auto *bytes = static_cast<const uint8_t *>(data);
    sent.emplace_back(bytes, bytes + length);
    return static_cast<ssize_t>(length);
}

std::vector<Bytes> takeSent() {
    const AmGuard guard(sentLock);
    return std::exchange(sent, {});
}

void failSends(int error) {
    const AmGuard guard(sentLock);
    sendError = error;
}

uint32_t ip4(const char *text) {
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return address.s_addr;
}

in6_addr ip6(const char *text) {
    in6_addr address{};
    EXPECT_EQ(inet_pton(AF_INET6, text, &address), 1) << text;
    return address;
}

namespace {

capture_flow_info tcpFlow(unsigned sourcePort, unsigned destinationPort, uint32_t appId) {
    capture_flow_info info{};
    info.src_port = sourcePort;
    info.dst_port = destinationPort;
    info.proto = IPPROTO_TCP;
    info.app_id = appId;
    return info;
}

}  // namespace

capture_flow_info flow4(const char *source, unsigned sourcePort, const char *destination,
                        unsigned destinationPort, uint32_t appId) {
    capture_flow_info info = tcpFlow(sourcePort, destinationPort, appId);
    info.ipproto = AM_IP_TYPE_IPV4;
    info.src_ip = ip4(source);
    info.dst_ip = ip4(destination);
    return info;
}

capture_flow_info flow6(const char *source, unsigned sourcePort, const char *destination,
                        unsigned destinationPort, uint32_t appId) {
    capture_flow_info info = tcpFlow(sourcePort, destinationPort, appId);
    info.ipproto = AM_IP_TYPE_IPV6;
    info.src_ip6 = ip6(source);
    info.dst_ip6 = ip6(destination);
    return info;
}

Bytes packetMessage(const std::vector<Attribute> &attributes, uint32_t portid) {
    alignas(nlmsghdr) char buffer[8192] = {};
    nlmsghdr *message = amNlmsgPutDpiHeader(buffer, 30);
    message->nlmsg_pid = portid;
    for (const Attribute &attribute : attributes)
        mnl_attr_put(message, attribute.type, attribute.payload.size(), attribute.payload.data());
    return {buffer, buffer + message->nlmsg_len};
}

Bytes operator+(Bytes one, const Bytes &other) {
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

SocketPair::SocketPair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, ends), 0);
    near = mnl_socket_fdopen(ends[0]);
    far = ends[1];
}

SocketPair::~SocketPair() {
    mnl_socket_close(near);
    close(far);
}

void SocketPair::send(const Bytes &datagram) const {
    ASSERT_EQ(write(far, datagram.data(), datagram.size()), static_cast<ssize_t>(datagram.size()));
}

TestLog::TestLog(int level)
    : path_(testing::TempDir() + "netlink_test." + std::to_string(getpid()) + ".log") {
    unlink(path_.c_str());
    amLogOpen(path_.c_str(), level);
}

TestLog::~TestLog() {
    amLogOpen(nullptr, AM_LOG_ERROR);
    unlink(path_.c_str());
}

std::vector<std::string> TestLog::lines() const {
    constexpr size_t kTimeLength = sizeof "2024-01-01 00:00:00 " - 1;
    std::vector<std::string> lines;
    std::ifstream file(path_);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line.size() > kTimeLength ? line.substr(kTimeLength) : line);
    return lines;
}

void NetlinkTest::SetUp() {
    apps_ = std::make_unique<AmActiveApp[]>(kApps);
    {
        const AmGuard model(amModelLock);
        amActData = apps_.get();
        amMaxAppIdCount = kApps;
        amAdminState = 1;
    }
    control_nls = control_.near;
    amInitEnfFlowDb();
    amFlowCounter = amFlowCounter6 = 0;
    (void)takeSent();
}

void NetlinkTest::TearDown() {
    failSends(0);
    amCleanAllEnfFlowDb();
    amCleanAllEnfFlowDb6();
    flow_debug = print_debug = 0;
    control_nls = nullptr;
    const AmGuard model(amModelLock);
    amActData = nullptr;
    amMaxAppIdCount = 0;
    amAdminState = 0;
}

void NetlinkTest::enforce(uint32_t id, const char *name, const char *group) {
    am::copyField(app(id).appName, name);
    app(id).isEnforcement = 1;
    app(id).isPartOfGroup = group != nullptr;
    if (group) am::copyField(app(id).grpName, group);
}

void NetlinkTest::monitor(uint32_t id, const char *name) {
    am::copyField(app(id).appName, name);
    app(id).isMonitoring = 1;
}
