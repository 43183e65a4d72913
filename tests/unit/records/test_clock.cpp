#include "unit/records/test_clock.h"

#include <sys/time.h>

time_t testNow = 0;

extern "C" time_t time(time_t *out) noexcept {
    timeval now{};
    if (testNow == 0) gettimeofday(&now, nullptr);
    const time_t result = testNow != 0 ? testNow : now.tv_sec;
    if (out) *out = result;
    return result;
}
