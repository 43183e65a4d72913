#include "records/record_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/write_fully.h"

namespace am {
namespace {

// Who talked to whom, and which application it was: for the daemon's user alone.
constexpr mode_t kOwnerOnly = 0600;

// A flush of two full queues of ordinary lines takes one write.
constexpr size_t kBufferSize = size_t{96} * 1024;
char buffer[kBufferSize];
uint32_t lineEnds[kRecordBatch];  // offsets in the buffer

// Counts a file's lines in pieces of at most 1023 characters, each piece as a line.
class LineCounter {
  public:
    void take(const char *bytes, size_t length) {
        for (const char *const end = bytes + length; bytes < end;) {
            const size_t left = static_cast<size_t>(end - bytes);
            const auto *newline = static_cast<const char *>(memchr(bytes, '\n', left));
            const size_t taken = newline ? static_cast<size_t>(newline - bytes) + 1 : left;
            inLine_ += taken;
            bytes += taken;
            if (newline) endLine();
        }
    }
    uint32_t total() {
        endLine();
        return lines_;
    }

  private:
    void endLine() {
        constexpr size_t kPiece = 1023;
        lines_ += static_cast<uint32_t>((inLine_ + kPiece - 1) / kPiece);
        inLine_ = 0;
    }

    uint32_t lines_ = 0;
    size_t inLine_ = 0;
};

// Of something that is not a file there is nothing to count, and a device may never end.
uint32_t countLines(int fd) {
    struct stat file;
    if (fstat(fd, &file) != 0 || !S_ISREG(file.st_mode)) return 0;
    LineCounter counter;
    for (;;) {
        const ssize_t length = ::read(fd, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return counter.total();
        counter.take(buffer, static_cast<size_t>(length));
    }
}

void reportFailure(const RecordFileKind &kind, const RecordFailure &failure, int line) {
    if (failure.alone)
        amLog(AM_LOG_ERROR, "%s\n", failure.text);
    else
        amLog(AM_LOG_ERROR, "%s:%d - %s\n", kind.op, line, failure.text);
}

}  // namespace

RecordAppend::~RecordAppend() {
    if (fd_ >= 0) (void)::close(fd_);
    kind_.state->lines += written_;
    kind_.state->failing = !done_;
    if (!done_) kind_.state->failures++;
}

void RecordAppend::report(const RecordFailure &failure, int line) const {
    if (failure.text) reportFailure(kind_, failure, line);
}

bool RecordAppend::closeFile(const RecordFailure &failure, int line) {
    const bool closed = ::close(fd_) == 0;
    fd_ = -1;
    if (!closed) report(failure, line);
    return closed;
}

bool RecordAppend::open() {
    if (lines_ == 0) {
        fd_ = ::open(kind_.path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd_ >= 0) {
            lines_ = countLines(fd_);
            if (!closeFile(kind_.countClose)) return false;
        }
    } else if (access(kind_.path, F_OK) != 0 && errno == ENOENT) {
        lines_ = 0;
    }
    if (lines_ == 0 && !writeHeader()) return false;
    if (!openFile()) {
        report(kind_.open);
        return false;
    }

    // Half a line that a crash left behind ends here; the next one starts on its own.
    char last = '\n';
    if (regular_ && start_ > 0 && pread(fd_, &last, 1, start_ - 1) == 1 && last != '\n')
        buffer[used_++] = '\n';
    return true;
}

// Not to be blocked by a pipe that somebody has put in the file's place, nor killed by one.
bool RecordAppend::openFile() {
    fd_ = ::open(kind_.path, O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, kOwnerOnly);
    if (fd_ < 0) return false;
    struct stat file;
    if (fstat(fd_, &file) != 0 || S_ISFIFO(file.st_mode)) {
        (void)::close(fd_);
        fd_ = -1;
        return false;
    }
    regular_ = S_ISREG(file.st_mode);
    start_ = size_ = regular_ ? file.st_size : 0;
    return true;
}

bool RecordAppend::writeHeader() {
    if (!openFile()) {
        report(kind_.open);
        return false;
    }
    const int length = snprintf(buffer, sizeof buffer, "%s\n", kind_.header);
    if (writeFully(fd_, {buffer, static_cast<size_t>(length)}) != static_cast<size_t>(length)) {
        cutBack(start_);
        report(kind_.headerWrite);
        (void)closeFile(kind_.headerClose);
        return false;
    }
    (void)closeFile(kind_.headerClose);
    lines_ = 1;
    return true;
}

char *RecordAppend::room() const {
    return buffer + used_;
}

bool RecordAppend::add(const char *end) {
    used_ = static_cast<size_t>(end - buffer);
    lineEnds[buffered_++] = static_cast<uint32_t>(used_);
    const bool full = buffered_ == kRecordBatch || kBufferSize - used_ < kRecordLineRoom;
    return !full || write();
}

// Counts the lines of the buffer that are complete within its first `bytes`.
void RecordAppend::keepLines(size_t bytes) {
    const auto complete =
        static_cast<uint32_t>(std::upper_bound(lineEnds, lineEnds + buffered_, bytes) - lineEnds);
    if (complete == 0) return;
    lines_ += complete;
    written_ += complete;
    size_ += lineEnds[complete - 1];
}

// A file that cannot be cut has lines that nobody has counted.
void RecordAppend::cutBack(off_t size) {
    if (regular_ && ftruncate(fd_, size) != 0) lines_ = 0;
}

bool RecordAppend::write() {
    if (buffered_ == 0) return true;
    const size_t done = writeFully(fd_, {buffer, used_});
    keepLines(done);
    const bool complete = done == used_;
    used_ = buffered_ = 0;
    if (complete) return true;

    cutBack(size_);
    report(kind_.write);
    (void)closeFile(kind_.writeClose);
    return false;
}

bool RecordAppend::close() {
    done_ = closeFile(kind_.close);
    return done_;
}

bool moveRecordFile(const RecordFileKind &kind) {
    if (rename(kind.path, kind.oldPath) == 0) return true;
    amLog(AM_LOG_ERROR, "%s:%d - Failed to rename %s: %s\n", kind.op, __LINE__, kind.path, strerror(errno));
    return false;
}

bool createRecordFile(const RecordFileKind &kind) {
    const int fd = ::open(kind.path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, kOwnerOnly);
    if (fd < 0) {
        reportFailure(kind, kind.create, __LINE__);
        return false;
    }
    if (::close(fd) == 0) return true;
    reportFailure(kind, kind.createClose, __LINE__);
    return false;
}

bool rotateRecordFile(const RecordFileKind &kind, uint32_t &lines, int32_t threshold) {
    if (int64_t{lines} <= threshold) return true;
    if (!moveRecordFile(kind)) return true;
    lines = 0;
    return createRecordFile(kind);
}

}  // namespace am
