// Event loop: what the daemon relies on at hang-up, at edges, and of a signal before its run.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "libubox/uloop.h"

namespace {

// A pipe whose reading end can be put into the loop.
struct Watched {
    struct : uloop_fd {
        Watched *self;
    } sock{};
    int writer = -1;
    std::function<void(unsigned int)> onEvent;
    int calls = 0;

    Watched() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) abort();
        sock.self = this;
        sock.fd = ends[0];
        writer = ends[1];
        sock.cb = [](uloop_fd *u, unsigned int events) {
            Watched &self = *static_cast<decltype(sock) *>(u)->self;
            self.calls++;
            if (self.onEvent) self.onEvent(events);
        };
    }
    ~Watched() {
        uloop_fd_delete(&sock);
        close(sock.fd);
        hangUp();
    }
    Watched(const Watched &) = delete;
    Watched &operator=(const Watched &) = delete;

    void feed(std::string_view bytes = "x") const {
        if (write(writer, bytes.data(), bytes.size()) < 0) abort();
    }
    void hangUp() {
        if (writer >= 0) close(writer);
        writer = -1;
    }
    std::string drain() const {
        char bytes[64];
        const ssize_t got = read(sock.fd, bytes, sizeof(bytes));
        return {bytes, static_cast<size_t>(got < 0 ? 0 : got)};
    }
};

// A timer that does something.
struct Timer {
    struct : uloop_timeout {
        Timer *self;
    } timeout{};
    std::function<void()> action;

    explicit Timer(std::function<void()> what) : action(std::move(what)) {
        timeout.self = this;
        timeout.cb = [](uloop_timeout *t) { static_cast<decltype(timeout) *>(t)->self->action(); };
    }
    ~Timer() { uloop_timeout_cancel(&timeout); }
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;
    void set(int ms) { uloop_timeout_set(&timeout, ms); }
};

class BusLoop : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(uloop_init(), 0); }
    void TearDown() override {
        uloop_done();
        signal(SIGPIPE, SIG_DFL);
    }
    std::string order;
};

}  // namespace

TEST_F(BusLoop, HangUpRemovesTheDescriptorBeforeItsLastCallback) {
    Watched pipe;
    std::string got;
    pipe.onEvent = [&](unsigned int events) {
        EXPECT_TRUE(events & ULOOP_READ);
        EXPECT_TRUE(pipe.sock.error);
        EXPECT_FALSE(pipe.sock.registered);
        EXPECT_EQ(pipe.sock.flags, 0);
        got += pipe.drain();
    };
    uloop_fd_add(&pipe.sock, ULOOP_READ);
    pipe.feed("sixsix");
    pipe.hangUp();
    for (int i = 0; i < 3; i++) uloop_run_timeout(0);
    EXPECT_EQ(got, "sixsix");
    EXPECT_EQ(pipe.calls, 1);
}

TEST_F(BusLoop, WhoAsksForErrorsKeepsItsDescriptor) {
    Watched pipe;
    pipe.onEvent = [&](unsigned int events) {
        EXPECT_EQ(events, 0U);
        EXPECT_TRUE(pipe.sock.registered);
    };
    uloop_fd_add(&pipe.sock, ULOOP_READ | ULOOP_ERROR_CB);
    pipe.hangUp();
    for (int i = 0; i < 3; i++) uloop_run_timeout(0);
    EXPECT_EQ(pipe.calls, 3);
    // Edge-triggered it is told once, and again each time it adds itself anew.
    uloop_fd_add(&pipe.sock, ULOOP_READ | ULOOP_EDGE_TRIGGER | ULOOP_ERROR_CB);
    for (int i = 0; i < 3; i++) uloop_run_timeout(0);
    EXPECT_EQ(pipe.calls, 4);
    uloop_fd_add(&pipe.sock, ULOOP_READ | ULOOP_EDGE_TRIGGER | ULOOP_ERROR_CB);
    EXPECT_FALSE(pipe.sock.error);
    uloop_run_timeout(0);
    EXPECT_EQ(pipe.calls, 5);
}

TEST_F(BusLoop, EdgesAreReportedOnceAndRememberedInNestedRuns) {
    Watched pipe;
    uloop_fd_add(&pipe.sock, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    pipe.feed();
    for (int i = 0; i < 3; i++) uloop_run_timeout(0);
    EXPECT_EQ(pipe.calls, 1);  // unread data is no new edge
    int depth = 0;
    pipe.onEvent = [&](unsigned int) {
        EXPECT_EQ(++depth, 1);  // never entered again while it runs
        if (pipe.calls == 2) {
            pipe.feed();
            for (int i = 0; i < 3; i++) uloop_run_timeout(0);
            EXPECT_EQ(pipe.calls, 2);
        }
        depth--;
    };
    pipe.feed();
    uloop_run_timeout(0);
    EXPECT_EQ(pipe.calls, 3);
}

TEST_F(BusLoop, EachRunForgetsWhatCameBefore) {
    raise(SIGTERM);
    EXPECT_TRUE(uloop_cancelled);  // what a program with a long start-up looks at
    EXPECT_FALSE(uloop_cancelling());
    Timer check([&] {
        EXPECT_FALSE(uloop_cancelled);
        raise(SIGTERM);
        EXPECT_TRUE(uloop_cancelling());
    });
    check.set(0);
    EXPECT_EQ(uloop_run(), SIGTERM);
    check.action = [] { raise(SIGINT); };
    check.set(0);
    EXPECT_EQ(uloop_run(), SIGINT);
    check.action = [] { uloop_end(); };
    check.set(0);
    EXPECT_EQ(uloop_run(), 0);
}
