// Threads of the daemon's own: capture, interrupt, uploads.
//
// All are joinable.  An id is good until its thread is joined, and only what joins a thread knows that it
// runs nothing more: destructors of what libraries keep for each thread come after the thread's body.
#pragma once
#include <pthread.h>
#include <signal.h>

#include <cstddef>

namespace am {

// Engines and TLS libraries are used to more than the 128 KiB that musl gives a thread.
inline constexpr size_t kThreadStack = size_t{1} << 20;  // bytes

// Starts `body` in a thread that never takes the signals in `blocked`.  0, or an error number: there is no
// thread then.  Any thread.
[[nodiscard]] int startThread(pthread_t &thread, const sigset_t &blocked, void *(*body)(void *),
                              void *argument);

// For threads that leave all signals to the others.
sigset_t allSignals();

// Joins the thread if it has ended by now, with all that it runs at its end.  False: it has not, its id stays
// good.  Any thread, but one at a time.
[[nodiscard]] bool joinEnded(pthread_t thread);

}  // namespace am
