// The time text of log lines.
#pragma once
#include <ctime>

// Local time as "%F %T": 19 characters; empty if it cannot be told.
struct LogTime {
    char text[20];
};

// The current time in `out`, whose text is returned.  Any thread.
const char *log_time(LogTime &out);

namespace am {

// The same for the lines of one log, whose lock or thread covers it.  Remembers the last second that it was
// asked in: lines come in bursts, and the conversion to local time costs as much as the rest of a line.
class LogClock {
  public:
    const char *text();

  private:
    time_t second_ = -1;
    LogTime shown_{};
};

}  // namespace am
