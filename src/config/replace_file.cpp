#include "config/replace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/text.h"
#include "core/write_fully.h"

namespace am {
namespace {

constexpr mode_t kOwnerOnly = 0600;

enum class Outcome { kDone, kFailed, kNoNewFile, kFull };

struct Path {
    char text[PATH_MAX];
};

void logFailure(const char *what, const Path &path, int error, int line = __builtin_LINE()) {
    amLog(AM_LOG_ERROR, "%s:%d Unable to %s %s: %s\n", "replaceFile", line, what, path.text, strerror(error));
}

// The folder part, with its slash; empty for a bare name.
std::string_view folderOf(const Path &path) {
    const std::string_view text = path.text;
    return text.substr(0, text.rfind('/') + 1);
}

// Follows symbolic links by hand: the last one may point to a file that is yet to be created.
bool followLinks(Path &path) {
    constexpr int kMostLinks = 16;
    for (int links = 0; links < kMostLinks; links++) {
        char link[PATH_MAX];
        const ssize_t length = readlink(path.text, link, sizeof link);
        if (length < 0) return true;  // no link, or nothing at all
        const std::string_view target{link, static_cast<size_t>(length)};
        const std::string_view folder = link[0] == '/' ? std::string_view{} : folderOf(path);
        if (folder.size() + target.size() >= sizeof path.text) return false;
        if (!target.empty()) memcpy(path.text + folder.size(), target.data(), target.size());
        path.text[folder.size() + target.size()] = '\0';
    }
    return false;
}

enum class Onto { kDisk, kDevice };

// On the disk the content ends the file, which may have been longer.
bool writeAll(int fd, std::string_view content, Onto onto) {
    if (writeFully(fd, content) != content.size()) return false;
    return onto == Onto::kDevice ||
           (ftruncate(fd, static_cast<off_t>(content.size())) == 0 && fsync(fd) == 0);
}

// Closes in every case; the error is that of the first step that failed.
bool writeAndClose(int fd, std::string_view content, Onto onto) {
    const bool written = writeAll(fd, content, onto);
    const int error = errno;
    const bool closed = close(fd) == 0;
    if (!written) errno = error;
    return written && closed;
}

// The rename is on the disk once the folder is.
void syncFolder(const Path &path) {
    const std::string_view folder = folderOf(path);
    Path name{"."};
    if (!folder.empty()) copyText(name.text, folder);
    const int fd = open(name.text, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    (void)fsync(fd);
    (void)close(fd);
}

bool isFull(int error) {
    return error == ENOSPC || error == EDQUOT;
}

// What keeps a new file out of the folder says nothing of whether the file that is there can be written.
Outcome noNewFile(int error) {
    return isFull(error) ? Outcome::kFull : Outcome::kNoNewFile;
}

// The switch's configuration system may own the file and read it: whose it was, and for whom, it stays.
void keepOwnerAndMode(int fd, const struct stat &before) {
    if (fchown(fd, before.st_uid, before.st_gid) == 0) (void)fchmod(fd, before.st_mode & 07777);
}

// `before` is the file that is there; null for none.
Outcome writeBeside(const Path &path, const struct stat *before, std::string_view content) {
    Path beside{};
    const int length = snprintf(beside.text, sizeof beside.text, "%s.new", path.text);
    if (length >= static_cast<int>(sizeof beside.text)) return Outcome::kNoNewFile;

    // One name for all: what a killed daemon left behind goes with the next write.
    (void)unlink(beside.text);
    const int fd = open(beside.text, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly);
    if (fd < 0) return noNewFile(errno);
    if (before) keepOwnerAndMode(fd, *before);
    if (!writeAndClose(fd, content, Onto::kDisk)) {
        logFailure("write", beside, errno);
        (void)unlink(beside.text);
        return Outcome::kFailed;
    }
    if (rename(beside.text, path.text) != 0) {
        const int error = errno;
        (void)unlink(beside.text);
        return noNewFile(error);
    }
    syncFolder(path);
    return Outcome::kDone;
}

// Room first: what does not fit leaves the old content.  A file system that cannot reserve is trusted to have
// room, unless it has just said that it is full.
bool reserve(int fd, size_t size, bool full) {
    if (fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size)) == 0) return true;
    if (errno != EOPNOTSUPP) return false;
    if (full) errno = ENOSPC;
    return !full;
}

// Says of a file that cannot be opened only what the administrator did not choose.
void logOpening(const Path &path, int error) {
    if (isFull(error) || error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO)
        logFailure("open", path, error);
}

bool writeInPlace(const Path &path, std::string_view content, Onto onto, bool full = false) {
    const int fd = open(path.text, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, kOwnerOnly);
    if (fd < 0) {
        logOpening(path, errno);
        return false;
    }
    if (onto == Onto::kDisk && !reserve(fd, content.size(), full)) {
        logFailure("write", path, errno);
        (void)close(fd);
        return false;
    }
    if (writeAndClose(fd, content, onto)) return true;
    logFailure("write", path, errno);
    return false;
}

}  // namespace

bool replaceFile(const char *path, std::string_view content) {
    Path target{};
    copyText(target.text, path);
    if (!followLinks(target)) return false;
    struct stat before {};
    const bool exists = stat(target.text, &before) == 0;
    // A device or a pipe that the path leads to is written to; a file in its place would be the end of it.
    if (exists && !S_ISREG(before.st_mode)) return writeInPlace(target, content, Onto::kDevice);
    const Outcome outcome = writeBeside(target, exists ? &before : nullptr, content);
    if (outcome == Outcome::kDone || outcome == Outcome::kFailed) return outcome == Outcome::kDone;
    return writeInPlace(target, content, Onto::kDisk, outcome == Outcome::kFull);
}

}  // namespace am
