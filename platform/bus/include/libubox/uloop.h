// Event loop: descriptors, timers and the two signals that end a process.
//
// One iteration: all timers that are due, in due order; then wait until a descriptor is ready or the next
// timer is due; then one descriptor callback.  Everything belongs to the thread that runs the loop.
//
//   uloop_init -> uloop_fd_add, uloop_timeout_set (this one also before uloop_init) -> uloop_run ->
//   uloop_done
//
// Signals: uloop_init takes over SIGINT and SIGTERM where their action is the default, and ignores SIGPIPE
// where that is; SIGPIPE stays ignored after uloop_done.  SIGCHLD is left alone.  A run starts by forgetting
// an earlier signal or uloop_end, so what arrives between uloop_init and uloop_run does not end the run:
// look at uloop_cancelled first.
#pragma once

#include <signal.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#include "list.h"

#define ULOOP_READ (1 << 0)          // input, and the peer's half close
#define ULOOP_WRITE (1 << 1)         // room for output
#define ULOOP_EDGE_TRIGGER (1 << 2)  // report changes, not conditions
#define ULOOP_BLOCKING (1 << 3)      // leave the descriptor's O_NONBLOCK as it is
#define ULOOP_ERROR_CB (1 << 6)      // errors and hang-up do not remove the descriptor

#define ULOOP_EVENT_MASK (ULOOP_READ | ULOOP_WRITE)

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct uloop_fd;
struct uloop_timeout;

// events: ULOOP_READ, ULOOP_WRITE, both, or 0 when there is nothing but an error or hang-up.
typedef void (*uloop_fd_handler)(struct uloop_fd *u, unsigned int events);
typedef void (*uloop_timeout_handler)(struct uloop_timeout *t);

// The caller zeroes it and fills cb and fd; it must stay in place while registered.
struct uloop_fd {
    uloop_fd_handler cb;  // null drops the events
    int fd;
    bool eof;         // the peer has closed one or both directions
    bool error;       // error or hang-up; without ULOOP_ERROR_CB the descriptor has been removed
    bool registered;  // in the loop
    uint8_t flags;    // as added, 0 when removed
};

// The caller zeroes it and fills cb; it must stay in place while pending.
struct uloop_timeout {
    struct list_head list;
    bool pending;
    uloop_timeout_handler cb;
    struct timeval time;  // due, CLOCK_MONOTONIC
};

extern bool uloop_cancelled;       // uloop_end was called or a signal came
extern bool uloop_handle_sigchld;  // has no effect: this loop never handles SIGCHLD

// 0, or -1 without descriptors.  May be repeated: the loop stays, signal actions at default are taken again.
int uloop_init(void);
// Puts signal actions back, closes the loop and cancels all timers; `registered` of descriptors is not
// touched.
void uloop_done(void);

// Runs until cancelled.  The number of the signal that ended it, else 0.
int uloop_run(void);
// One iteration that waits at most that many milliseconds; negative: as uloop_run.
int uloop_run_timeout(int timeout_ms);
void uloop_end(void);
bool uloop_cancelling(void);  // inside a run that is about to end

// Adds, or changes the flags of what is already added; without READ and WRITE removes.  Sets O_NONBLOCK on a
// new descriptor unless ULOOP_BLOCKING is given.  0, or -1 with errno of epoll_ctl(2).
int uloop_fd_add(struct uloop_fd *sock, unsigned int flags);
// 0 also when it is not registered; an event not yet delivered is dropped.
int uloop_fd_delete(struct uloop_fd *sock);

// Due in that many milliseconds from now, whether it was pending or not; always 0.
int uloop_timeout_set(struct uloop_timeout *timeout, int msecs);
// Due at `time`; -1 if already pending.
int uloop_timeout_add(struct uloop_timeout *timeout);
// -1 if not pending.
int uloop_timeout_cancel(struct uloop_timeout *timeout);
// Milliseconds left, negative when overdue, -1 when not pending.
int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout);
int uloop_timeout_remaining(struct uloop_timeout *timeout) __attribute__((deprecated("use remaining64")));
// Milliseconds to the first timer, 0 if overdue, -1 without timers.
int uloop_get_next_timeout(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
