#include "libubox/uloop.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;

namespace {

constexpr int kBatch = 10;                 // descriptors fetched with one wait
constexpr unsigned int kFailure = 1 << 4;  // error or hang-up, beside ULOOP_READ and ULOOP_WRITE
constexpr unsigned int kEof = 1 << 5;

struct Ready {
    uloop_fd *fd;  // null once it was deleted
    unsigned int events;
};

// An edge-triggered descriptor whose callback is running, perhaps with a nested run inside.
struct Active {
    Active *outer;
    uloop_fd *fd;          // null once it was deleted
    unsigned int pending;  // events that came meanwhile, 0 = none
};

int epollFd = -1;
int wakePipe[2] = {-1, -1};
uloop_fd waker{};
Ready ready[kBatch];
int readyNext = 0;
int readyCount = 0;
Active *activeTop = nullptr;
int runDepth = 0;
int endSignal = 0;
list_head timers = LIST_HEAD_INIT(timers);

// ---- timers

timeval now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return {ts.tv_sec, static_cast<suseconds_t>(ts.tv_nsec / 1000)};
}

// In whole milliseconds, rounded towards zero: what is less than one apart is due at the same time.
int64_t millisBetween(const timeval &later, const timeval &earlier) {
    const int64_t micros =
        (static_cast<int64_t>(later.tv_sec) - earlier.tv_sec) * 1000000 + later.tv_usec - earlier.tv_usec;
    return micros / 1000;
}

int clampToInt(int64_t value) {
    if (value > INT_MAX) return INT_MAX;
    return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

uloop_timeout *firstTimer() {
    return list_empty(&timers) ? nullptr : list_first_entry(&timers, uloop_timeout, list);
}

void runTimers() {
    const timeval current = now();
    while (uloop_timeout *timer = firstTimer()) {
        if (millisBetween(timer->time, current) > 0) break;
        uloop_timeout_cancel(timer);
        if (timer->cb) timer->cb(timer);
    }
}

// ---- descriptors

int poll(uloop_fd *sock, unsigned int flags) {
    epoll_event event{};
    if (flags & ULOOP_READ) event.events |= EPOLLIN | EPOLLRDHUP;
    if (flags & ULOOP_WRITE) event.events |= EPOLLOUT;
    if (flags & ULOOP_EDGE_TRIGGER) event.events |= EPOLLET;
    event.data.ptr = sock;
    return epoll_ctl(epollFd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &event);
}

int unpoll(uloop_fd *sock) {
    sock->registered = false;
    sock->flags = 0;
    return epoll_ctl(epollFd, EPOLL_CTL_DEL, sock->fd, nullptr);
}

void fetch(int timeoutMs) {
    epoll_event events[kBatch];
    const int count = epoll_wait(epollFd, events, kBatch, timeoutMs);
    readyNext = readyCount = 0;
    for (int i = 0; i < count; i++) {
        unsigned int seen = 0;
        if (events[i].events & (EPOLLERR | EPOLLHUP)) seen |= kFailure;
        if (events[i].events & EPOLLRDHUP) seen |= kEof;
        if (events[i].events & EPOLLIN) seen |= ULOOP_READ;
        if (events[i].events & EPOLLOUT) seen |= ULOOP_WRITE;
        ready[readyCount++] = {static_cast<uloop_fd *>(events[i].data.ptr), seen};
    }
}

void call(uloop_fd *sock, unsigned int events) {
    if (events & kEof) sock->eof = true;
    if (events & kFailure) {
        sock->error = true;
        // A condition that stays would be reported for ever: only who asked for errors is trusted to end it.
        if (sock->registered && !(sock->flags & ULOOP_ERROR_CB)) unpoll(sock);
    }
    if (sock->cb) sock->cb(sock, events & ULOOP_EVENT_MASK);
}

// An edge is reported once, so one that a nested run sees during the callback is kept for right afterwards.
void dispatchEdge(uloop_fd *sock, unsigned int events) {
    for (Active *active = activeTop; active; active = active->outer) {
        if (active->fd != sock) continue;
        active->pending |= events;
        return;
    }
    Active active{activeTop, sock, events};
    activeTop = &active;
    while (active.fd && active.pending) {
        const unsigned int current = active.pending;
        active.pending = 0;
        call(sock, current);
    }
    activeTop = active.outer;
}

void runOneDescriptor(int timeoutMs) {
    if (readyNext == readyCount) fetch(timeoutMs);
    while (readyNext < readyCount) {
        const Ready next = ready[readyNext++];
        if (!next.fd) continue;
        if (next.fd->flags & ULOOP_EDGE_TRIGGER)
            dispatchEdge(next.fd, next.events);
        else
            call(next.fd, next.events);
        return;
    }
}

// ---- signals

void wake() {
    const int saved = errno;
    // A full pipe wakes as well; there is nothing to be done about any other failure here.
    const ssize_t written = write(wakePipe[1], "", 1);
    static_cast<void>(written);
    errno = saved;
}

void drainWakePipe(uloop_fd *sock, unsigned int) {
    char bytes[32];
    while (read(sock->fd, bytes, sizeof(bytes)) > 0) {
    }
}

// May run on any thread.
void onSignal(int number) {
    __atomic_store_n(&endSignal, number, __ATOMIC_RELAXED);
    __atomic_store_n(&uloop_cancelled, true, __ATOMIC_RELEASE);
    wake();
}

bool cancelled() {
    return __atomic_load_n(&uloop_cancelled, __ATOMIC_ACQUIRE);
}

void replaceAction(int number, void (*from)(int), void (*to)(int)) {
    struct sigaction action {};
    if (sigaction(number, nullptr, &action) != 0 || action.sa_handler != from) return;
    memset(&action, 0, sizeof(action));
    action.sa_handler = to;
    sigaction(number, &action, nullptr);
}

bool openLoop() {
    epollFd = epoll_create1(EPOLL_CLOEXEC);
    if (epollFd < 0) return false;
    if (pipe2(wakePipe, O_CLOEXEC | O_NONBLOCK) == 0) {
        waker = {};
        waker.fd = wakePipe[0];
        waker.cb = drainWakePipe;
        if (uloop_fd_add(&waker, ULOOP_READ) == 0) return true;
        close(wakePipe[0]);
        close(wakePipe[1]);
    }
    close(epollFd);
    epollFd = wakePipe[0] = wakePipe[1] = -1;
    return false;
}

}  // namespace

int uloop_init(void) {
    if (epollFd < 0 && !openLoop()) return -1;
    replaceAction(SIGINT, SIG_DFL, onSignal);
    replaceAction(SIGTERM, SIG_DFL, onSignal);
    replaceAction(SIGPIPE, SIG_DFL, SIG_IGN);
    return 0;
}

void uloop_done(void) {
    replaceAction(SIGINT, onSignal, SIG_DFL);
    replaceAction(SIGTERM, onSignal, SIG_DFL);
    if (epollFd >= 0) {
        close(epollFd);
        close(wakePipe[0]);
        close(wakePipe[1]);
        epollFd = wakePipe[0] = wakePipe[1] = -1;
    }
    waker.registered = false;
    readyNext = readyCount = 0;
    while (uloop_timeout *timer = firstTimer()) uloop_timeout_cancel(timer);
}

int uloop_run(void) {
    return uloop_run_timeout(-1);
}

int uloop_run_timeout(int timeout_ms) {
    runDepth++;
    __atomic_store_n(&endSignal, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&uloop_cancelled, false, __ATOMIC_RELEASE);
    do {
        runTimers();
        if (cancelled()) break;
        int wait = uloop_get_next_timeout();
        if (timeout_ms >= 0 && (wait < 0 || wait > timeout_ms)) wait = timeout_ms;
        runOneDescriptor(wait);
    } while (timeout_ms < 0 && !cancelled());
    runDepth--;
    return __atomic_load_n(&endSignal, __ATOMIC_RELAXED);
}

void uloop_end(void) {
    __atomic_store_n(&uloop_cancelled, true, __ATOMIC_RELEASE);
}

bool uloop_cancelling(void) {
    return runDepth > 0 && cancelled();
}

int uloop_fd_add(uloop_fd *sock, unsigned int flags) {
    if (!(flags & ULOOP_EVENT_MASK)) return uloop_fd_delete(sock);
    if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
        const int mode = fcntl(sock->fd, F_GETFL, 0);
        if (mode >= 0) fcntl(sock->fd, F_SETFL, mode | O_NONBLOCK);
    }
    if (poll(sock, flags) != 0) return -1;
    sock->registered = true;
    sock->flags = static_cast<uint8_t>(flags);
    sock->eof = false;
    sock->error = false;
    return 0;
}

int uloop_fd_delete(uloop_fd *sock) {
    for (int i = readyNext; i < readyCount; i++)
        if (ready[i].fd == sock) ready[i].fd = nullptr;
    for (Active *active = activeTop; active; active = active->outer)
        if (active->fd == sock) active->fd = nullptr;
    return sock->registered ? unpoll(sock) : 0;
}

int uloop_timeout_set(uloop_timeout *timeout, int msecs) {
    if (timeout->pending) uloop_timeout_cancel(timeout);
    timeval due = now();
    due.tv_sec += msecs / 1000;
    due.tv_usec += (msecs % 1000) * 1000;
    if (due.tv_usec >= 1000000) {
        due.tv_sec++;
        due.tv_usec -= 1000000;
    } else if (due.tv_usec < 0) {
        due.tv_sec--;
        due.tv_usec += 1000000;
    }
    timeout->time = due;
    return uloop_timeout_add(timeout);
}

int uloop_timeout_add(uloop_timeout *timeout) {
    if (timeout->pending) return -1;
    // From the back: most timers are due after those already there.
    list_head *before = timers.prev;
    while (before != &timers &&
           millisBetween(list_entry(before, uloop_timeout, list)->time, timeout->time) > 0)
        before = before->prev;
    list_add(&timeout->list, before);
    timeout->pending = true;
    return 0;
}

int uloop_timeout_cancel(uloop_timeout *timeout) {
    if (!timeout->pending) return -1;
    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}

int64_t uloop_timeout_remaining64(uloop_timeout *timeout) {
    return timeout->pending ? millisBetween(timeout->time, now()) : -1;
}

int uloop_timeout_remaining(uloop_timeout *timeout) {
    return clampToInt(uloop_timeout_remaining64(timeout));
}

int uloop_get_next_timeout(void) {
    const uloop_timeout *first = firstTimer();
    if (!first) return -1;
    const int64_t left = millisBetween(first->time, now());
    return left < 0 ? 0 : clampToInt(left);
}
