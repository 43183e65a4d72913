#include "core/armed_timer.h"

namespace am {

void startArmedTimer(uloop_timeout &timer, int &active, int milliseconds) {
    if (active == 1) (void)removeArmedTimer(timer, active);
    uloop_timeout_set(&timer, milliseconds);
    active = 1;
}

int removeArmedTimer(uloop_timeout &timer, int &active) {
    if (active != 1) return 0;
    if (!timer.pending) return -1;
    uloop_timeout_cancel(&timer);
    active = 0;
    return 0;
}

}  // namespace am
