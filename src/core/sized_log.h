// A text file that is appended to and restarted empty once it holds 2 MiB: what the daemon's log and the
// request log have in common.  Not locked: the owner is.
#pragma once
namespace am {

struct SizedLog {
    const char *path;      // of the file whose size counts
    const char *openFail;  // printed on standard output, the path after it, when it cannot be opened
    int fd = -1;           // lines go to the system at once, nothing is buffered here
};

// Opens `path` for appending and reading, readable by its owner alone, and falls back to standard error,
// where the log then stays until it is opened again; an empty or null path goes there silently.  A descriptor
// held before must have been closed.
void openSizedLog(SizedLog &log, const char *path);

// Closes and forgets the descriptor; standard error is neither closed nor forgotten.
void closeSizedLog(SizedLog &log);

// Deletes the file of 2 MiB or more and closes the log.  True when the file has to be opened again, which
// ends the use of standard error, too.
bool restartAtLimit(SizedLog &log);

}  // namespace am
