// Commands for the system's shell: what a kit's installation does with files.  Nothing from outside the
// daemon ever becomes part of a command.  Event-loop thread, which is held while a command runs.
#pragma once
#include <cstddef>

// The exit code out of a wait status, or -1 when the command did not end normally or could not be started.
int decodeSystemResult(int status);

namespace am {

// Formats a command into the buffer, where log lines find it, and runs it; the decoded result.  A command
// that does not fit is not run: -1.
int runCommand(char *command, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace am
