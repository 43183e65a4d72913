// The body of the three record files: CSV under /flash, opened, appended to and closed at every write, and
// moved to its "_old" name above a number of lines.
//
// Lines are collected in memory and go out in few writes, yet count only once they are in the file:
//   - A write that fails halfway (a full disk) is cut back to its last complete line, so that no half line
//     stays for a reader or for the next line to be glued to.  The complete lines stay and count.
//   - Should even the cut fail, or half a line have been left by a crash, the next line starts on a new one,
//     and the lines are counted anew.
//   - A rotation that cannot rename leaves the file in place, to be tried again after the next write.
//
// Event-loop thread only: one buffer serves all files.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace am {

inline constexpr size_t kRecordLineRoom = 1024;  // bytes that a line may need, its newline included
inline constexpr uint32_t kRecordBatch = 512;    // lines that are in memory at most

// A failure's text.  "%s:%d - " goes before it, with the operation and a source line, unless it stands alone.
struct RecordFailure {
    const char *text;
    bool alone = false;
};

// How the writing of a file goes, for people to look at.
struct RecordState {
    uint64_t lines;     // written since the start of the process, headers not counted
    uint64_t failures;  // appends that did not come to their end
    bool failing;       // the last one
};

// What tells one record file from the others.
struct RecordFileKind {
    const char *path;
    const char *oldPath;
    RecordState *state;
    const char *header;  // without its newline
    const char *op;      // named in the messages
    RecordFailure countClose, open, headerWrite, headerClose, write, writeClose, close, create, createClose;
};

class RecordAppend {
  public:
    // `lines` is the daemon's count of the file's lines, header included; 0 = not known, or no file.
    RecordAppend(const RecordFileKind &kind, uint32_t &lines) : kind_(kind), lines_(lines) {}
    ~RecordAppend();
    RecordAppend(const RecordAppend &) = delete;
    RecordAppend &operator=(const RecordAppend &) = delete;

    // Every false below is a failure that has been logged; the file is closed then.

    // Counts the lines if need be, gives a new file its header, and opens it.
    [[nodiscard]] bool open();

    // Where the next line goes, kRecordLineRoom bytes; `add` takes in what was written up to `end`.
    [[nodiscard]] char *room() const;
    [[nodiscard]] bool add(const char *end);

    // Puts what has been added into the file; `add` does so as well when the buffer is full.
    [[nodiscard]] bool write();

    // Lines of this append that are in the file and stay there.
    [[nodiscard]] uint32_t written() const { return written_; }

    [[nodiscard]] bool close();  // after write()

  private:
    [[nodiscard]] bool openFile();
    [[nodiscard]] bool writeHeader();
    [[nodiscard]] bool closeFile(const RecordFailure &failure, int line = __builtin_LINE());
    void report(const RecordFailure &failure, int line = __builtin_LINE()) const;
    void keepLines(size_t bytes);
    void cutBack(off_t size);

    const RecordFileKind &kind_;
    uint32_t &lines_;
    int fd_ = -1;
    bool regular_ = false;
    bool done_ = false;      // written and closed
    off_t start_ = 0;        // size of the file when it was opened
    off_t size_ = 0;         // up to the end of the lines written
    size_t used_ = 0;        // bytes in the buffer
    uint32_t buffered_ = 0;  // lines in the buffer
    uint32_t written_ = 0;
};

// Moves the file to its old name.  False, and logged: it stays as it is.
[[nodiscard]] bool moveRecordFile(const RecordFileKind &kind);

// Creates the file after the move, empty: its next write gives it a header.  False: logged.
[[nodiscard]] bool createRecordFile(const RecordFileKind &kind);

// Both, once the file holds more lines than `threshold`; the count is 0 after the move.  False when the new
// file cannot be created.
[[nodiscard]] bool rotateRecordFile(const RecordFileKind &kind, uint32_t &lines, int32_t threshold);

}  // namespace am
