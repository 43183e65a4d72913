#include "core/log_time.h"

const char *log_time(LogTime &out) {
    const time_t now = time(nullptr);
    tm broken{};
    localtime_r(&now, &broken);
    if (strftime(out.text, sizeof out.text, "%F %T", &broken) == 0) out.text[0] = '\0';
    return out.text;
}

const char *am::LogClock::text() {
    const time_t now = time(nullptr);
    if (now != second_) {
        (void)log_time(shown_);
        second_ = now;
    }
    return shown_.text;
}
