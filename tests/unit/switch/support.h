// What the tests of this folder share: flows, an active array, a kernel that keeps what it is sent, a log
// that can be read back, and packet messages.
#pragma once
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "appmodel/app_pool.h"
#include "flows/flow_info.h"

using Bytes = std::vector<uint8_t>;

// Flows of TCP; the engine's application id may be any number.
capture_flow_info flow4(const char *source, unsigned sourcePort, const char *destination,
                        unsigned destinationPort, uint32_t appId);
capture_flow_info flow6(const char *source, unsigned sourcePort, const char *destination,
                        unsigned destinationPort, uint32_t appId);

uint32_t ip4(const char *text);
in6_addr ip6(const char *text);

// The datagrams that mnl_socket_sendto has sent since the last call: sendto of this executable stands in the
// way of the C library's.
std::vector<Bytes> takeSent();

// Makes every later send fail with that error; 0: succeed again.
void failSends(int error);

// One netlink message with the attributes of a packet message: type and payload each.
struct Attribute {
    uint16_t type;
    Bytes payload;
};
Bytes packetMessage(const std::vector<Attribute> &attributes, uint32_t portid = 0);
Bytes operator+(Bytes one, const Bytes &other);

// A netlink socket handle over a pair of datagram sockets: `far` is the other end.
struct SocketPair {
    SocketPair();
    ~SocketPair();
    SocketPair(const SocketPair &) = delete;
    SocketPair &operator=(const SocketPair &) = delete;
    void send(const Bytes &datagram) const;

    mnl_socket *near = nullptr;
    int far = -1;
};

// The daemon's log, in a file of its own for the life of the object.
class TestLog {
  public:
    explicit TestLog(int level);
    ~TestLog();
    TestLog(const TestLog &) = delete;
    TestLog &operator=(const TestLog &) = delete;

    // The lines so far, without the time: "[ERROR]: text".
    std::vector<std::string> lines() const;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// An active array of 8 applications, mirroring on, empty flow databases, a control socket to send on.
class NetlinkTest : public testing::Test {
  protected:
    static constexpr uint32_t kApps = 8;
    void SetUp() override;
    void TearDown() override;

    AmActiveApp &app(uint32_t id) { return apps_[id]; }
    void enforce(uint32_t id, const char *name, const char *group = nullptr);
    void monitor(uint32_t id, const char *name);

  private:
    std::unique_ptr<AmActiveApp[]> apps_;
    SocketPair control_;
};
