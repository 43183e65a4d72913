// Event loop: order of timers and descriptors, hang-up, edges, signals.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support.h"

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

void nothing(int) {}

}  // namespace

TEST_F(BusLoop, TimersRunInDueOrder) {
    Timer late([&] { order += 'l'; });
    Timer first([&] { order += '1'; });
    Timer second([&] { order += '2'; });
    Timer past([&] { order += 'p'; });
    late.set(3);
    first.set(0);
    second.set(0);
    past.set(-20);
    Timer end([&] { uloop_end(); });
    end.set(4);
    EXPECT_LT(uloop_timeout_remaining64(&past.timeout), 0);
    EXPECT_EQ(uloop_get_next_timeout(), 0);
    uloop_run();
    EXPECT_EQ(order, "p12l");
    EXPECT_EQ(uloop_timeout_remaining64(&late.timeout), -1);
    EXPECT_EQ(uloop_get_next_timeout(), -1);
}

TEST_F(BusLoop, DeletedDescriptorLosesItsFetchedEvent) {
    Watched first;
    Watched second;
    first.onEvent = [&](unsigned int) {
        first.drain();
        uloop_fd_delete(&second.sock);
    };
    for (Watched *pipe : {&first, &second}) {
        uloop_fd_add(&pipe->sock, ULOOP_READ);
        pipe->feed();
    }
    for (int i = 0; i < 4; i++) uloop_run_timeout(0);
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(second.calls, 0);
}

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

TEST_F(BusLoop, HalfCloseIsEndOfFileWithoutError) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    uloop_fd sock{};
    sock.fd = ends[0];
    sock.cb = [](uloop_fd *u, unsigned int) { EXPECT_TRUE(u->eof && !u->error && u->registered); };
    uloop_fd_add(&sock, ULOOP_READ);
    shutdown(ends[1], SHUT_WR);
    uloop_run_timeout(0);
    EXPECT_TRUE(sock.eof);
    EXPECT_EQ(uloop_fd_add(&sock, ULOOP_WRITE), 0);
    EXPECT_FALSE(sock.eof);
    uloop_fd_delete(&sock);
    close(ends[0]);
    close(ends[1]);
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

TEST_F(BusLoop, SignalWakesAWaitingLoop) {
    // From another thread, so that it is the pipe that wakes the loop and not an interrupted wait.
    const pthread_t runner = pthread_self();
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, nullptr);
    pthread_t other;
    pthread_create(
        &other, nullptr,
        [](void *mask) -> void * {
            usleep(2000);
            pthread_sigmask(SIG_UNBLOCK, static_cast<sigset_t *>(mask), nullptr);
            raise(SIGTERM);
            return nullptr;
        },
        &term);
    EXPECT_EQ(uloop_run(), SIGTERM);
    pthread_join(other, nullptr);
    pthread_sigmask(SIG_UNBLOCK, &term, nullptr);
    EXPECT_TRUE(pthread_equal(runner, pthread_self()));
}

TEST(BusLoopSignals, OnlyDefaultActionsAreTaken) {
    const auto action = [](int number) {
        struct sigaction current {};
        sigaction(number, nullptr, &current);
        return current.sa_handler;
    };
    signal(SIGINT, nothing);
    signal(SIGTERM, SIG_DFL);
    signal(SIGCHLD, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(action(SIGINT), nothing);
    EXPECT_NE(action(SIGTERM), SIG_DFL);
    EXPECT_EQ(action(SIGCHLD), SIG_DFL);
    EXPECT_EQ(action(SIGPIPE), SIG_IGN);
    signal(SIGINT, SIG_DFL);
    ASSERT_EQ(uloop_init(), 0);  // looks again
    EXPECT_NE(action(SIGINT), SIG_DFL);
    signal(SIGINT, nothing);
    uloop_done();
    EXPECT_EQ(action(SIGINT), nothing);
    EXPECT_EQ(action(SIGTERM), SIG_DFL);
    EXPECT_EQ(action(SIGPIPE), SIG_IGN);
    signal(SIGINT, SIG_DFL);
    signal(SIGPIPE, SIG_DFL);
}
