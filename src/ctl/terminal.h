// The terminal while a picture is drawn on it again and again: a screen of its own without a cursor, and keys
// that come one by one.  However the program ends, by a signal or because the daemon is gone, the terminal is
// as it was.
#pragma once
#include <cstdint>

namespace ctl {

void takeTerminal();

// Nothing where it has not been taken.  May be called by a signal's handler; what stdout holds is to be
// flushed before.
void giveTerminalBack();

// False when somebody has had enough.  A changed size of the window ends the wait.
[[nodiscard]] bool waitForKey(uint32_t seconds);

}  // namespace ctl
