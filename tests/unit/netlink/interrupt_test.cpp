#include "netlink/interrupt.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "core/log.h"
#include "netlink/capture.h"
#include "netlink/sockets.h"
#include "support.h"

namespace {

// In a child: the thread that is interrupted holds a lock and is blocked, as in a download.
TEST(Interrupt, SwitchesMirroringOffAndEndsWhateverBlocks) {
    int wire[2], ready[2];
    ASSERT_EQ(pipe(wire), 0);
    ASSERT_EQ(pipe(ready), 0);
    const TestLog log(AM_LOG_ERROR);
    const pid_t child = fork();
    if (child == 0) {
        const SocketPair control, packet;
        control_nls = control.near;
        packet_nls = packet.near;
        amPacketCounter = 42;
        mirrorSends(wire[1]);
        installInterruptHandler();
        installInterruptHandler();
        my_sig_handler(SIGHUP);  // not its signal
        const AmGuard model(amModelLock);
        (void)!write(ready[1], "r", 1);
        for (;;) sleep(10);
    }
    close(wire[1]);
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_TRUE(log.lines().empty());
    const auto begin = std::chrono::steady_clock::now();
    kill(child, SIGINT);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    // A second, and one more that the thread sanitizer takes to end a process.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);

    Bytes sent(256);
    const ssize_t got = read(wire[0], sent.data(), sent.size());
    ASSERT_EQ(got, 60);
    EXPECT_EQ(sent[4], 21);
    EXPECT_EQ(sent[24], 0);  // the state
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].ends_with(" signal SIGINT/SIGTERM"));
    EXPECT_TRUE(lines[1].ends_with(" recv packet count: 42"));
    close(wire[0]);
    close(ready[0]);
    close(ready[1]);
}

}  // namespace
