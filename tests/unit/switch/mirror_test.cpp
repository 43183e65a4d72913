#include <sys/socket.h>
#include <unistd.h>

#include "core/log.h"
#include "flows/enf_flow_db.h"
#include "flows/kernel_side.h"
#include "flows/mirroring.h"
#include "support.h"
#include "switch/protocol.h"
#include "switch/sockets.h"

namespace {

class Mirror : public NetlinkTest {
  protected:
    void SetUp() override {
        NetlinkTest::SetUp();
        amAdminState = 0;
    }
    static void addFlows() {
        const capture_flow_info four = flow4("10.0.0.1", 1, "10.0.0.2", 80, 1);
        const capture_flow_info six = flow6("2001:db8::1", 1, "2001:db8::2", 80, 1);
        amUpdateEnfFlowDb(&four);
        amUpdateEnfFlowDb6(&six);
    }
    static bool empty() {
        const AmGuard guard(amEnfFlowLock);
        return rbtIsEmpty(&amEnfFlowDb) == 1 && rbtIsEmpty(&amEnfFlowDb6) == 1;
    }
    // The states that were sent.
    static Bytes sentStates() {
        Bytes states;
        for (const Bytes &message : takeSent()) states.push_back(message.at(24));
        return states;
    }
};

TEST_F(Mirror, EveryChangeIsSentOnce) {
    const TestLog log(AM_LOG_DEBUG);
    amNetLinkMirrorState(1);
    amNetLinkMirrorState(1);
    EXPECT_EQ(amAdminState, 1);
    EXPECT_EQ(sentStates(), Bytes{1});
    addFlows();

    amNetLinkMirrorState(0);
    amNetLinkMirrorState(0);
    EXPECT_EQ(amAdminState, 0);
    EXPECT_EQ(sentStates(), Bytes{0});
    EXPECT_TRUE(empty());

    addFlows();
    amNetLinkMirrorState(2);  // any other value is off, and not the state already
    EXPECT_EQ(amAdminState, 0);
    EXPECT_EQ(sentStates(), Bytes{0});
    EXPECT_TRUE(empty());

    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_TRUE(lines[0].starts_with("[DEBUG]: amNetLinkMirrorState:"));
    EXPECT_TRUE(lines[0].ends_with(" Enable the DPI-NetLink Mirror"));
    EXPECT_TRUE(lines[1].ends_with(" Disable the DPI-NetLink Mirror"));
    EXPECT_TRUE(lines[2].ends_with(" Disable the DPI-NetLink Mirror"));
}

using MirrorDeathTest = Mirror;

TEST_F(MirrorDeathTest, AfterAnInterruptTheKernelHearsNothingMore) {
    EXPECT_EXIT(
        {
            am::withdrawFromKernel();
            amNetLinkMirrorState(1);
            _exit(sentStates() == Bytes{0} ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

class ControlSocket : public testing::Test {
  protected:
    void SetUp() override {
        control_nls = socket_.near;
        control_portid = 1;
        amStatsCounter = 0;
    }
    void TearDown() override { control_nls = nullptr; }
    SocketPair socket_;
    uloop_fd fd_{};
};

TEST_F(ControlSocket, IsReadUntilItIsDrained) {
    const TestLog log(AM_LOG_INFO);
    for (int i = 0; i < 3; i++) socket_.send(packetMessage({}));
    amRecvNLMgmtSocket(&fd_, 0);  // not readable
    EXPECT_EQ(amStatsCounter, 0U);
    amRecvNLMgmtSocket(&fd_, ULOOP_READ);
    EXPECT_EQ(amStatsCounter, 3U);
    ASSERT_FALSE(log.lines().empty());
    EXPECT_NE(log.lines().back().find(" Message received with Invalid length Err No: 11 Err "),
              std::string::npos);
}

TEST_F(ControlSocket, NetlinkErrorEndsTheProcess) {
    socket_.send(packetMessage({}, 77));
    EXPECT_EXIT(amRecvNLMgmtSocket(&fd_, ULOOP_READ), testing::ExitedWithCode(1), "mnl_cb_run: ");
}

TEST_F(ControlSocket, FlaggedErrorRegistersItAgain) {
    ASSERT_EQ(uloop_init(), 0);
    const TestLog log(AM_LOG_ERROR);
    fd_.fd = mnl_socket_get_fd(socket_.near);
    fd_.cb = amRecvNLMgmtSocket;
    fd_.error = true;
    amRecvNLMgmtSocket(&fd_, 0);
    EXPECT_TRUE(fd_.registered);
    EXPECT_FALSE(fd_.error);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].ends_with(" Control Msg Socket Error adding the uloop again"));
    uloop_fd_delete(&fd_);
    uloop_done();
}

}  // namespace
