// SIGINT: the kernel is told to stop mirroring, what is open towards it is closed, and the process ends with
// status 0, within a second even while the event loop is blocked in a download.
#pragma once

// Records the signal and wakes the thread that acts on it; nothing else is safe in a handler.
void my_sig_handler(int sig);

// Takes SIGINT over and starts the waiting thread.  May be called again.  Any thread.
void installInterruptHandler();
