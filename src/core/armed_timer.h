// Event-loop timers that carry a flag of their own beside libubox's `pending`: the aging timer and the two
// record timers.  Each keeps its given globals; the rules are here once. Threads: the event-loop thread, or
// the main thread before the loop runs.
#pragma once
extern "C" {
#include <libubox/uloop.h>
}

namespace am {

// Cancels the timer if `active` says it is armed, then arms it for `milliseconds` and sets `active`.
void startArmedTimer(uloop_timeout &timer, int &active, int milliseconds);

// Takes an armed timer off the loop and clears `active`; 0.  One that is not pending (it has just fired): -1,
// and `active` stays as it is.  One that is not armed at all: 0.
int removeArmedTimer(uloop_timeout &timer, int &active);

}  // namespace am
