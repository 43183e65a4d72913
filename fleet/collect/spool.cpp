#include "collect/spool.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "common/folder.h"

namespace fleet {
namespace {

FileState stateOf(const struct stat &status) {
    return {status.st_ino, status.st_size, status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec};
}

// Whether a file that is open for reading is open for writing anywhere: a lease on it is given only if not
// (F_SETLEASE in fcntl(2)).  Unknown, of another user's file or on a file system without leases, counts as
// no.
bool isWritten(int file) {
    if (fcntl(file, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN;
    (void)fcntl(file, F_SETLEASE, F_UNLCK);
    return false;
}

std::string stamp() {
    static unsigned number = 0;
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    char text[64] = {};
    if (gmtime_r(&now.tv_sec, &parts)) (void)strftime(text, sizeof text, "%Y%m%dT%H%M%S-", &parts);
    return text + std::to_string(getpid()) + '-' + std::to_string(++number);
}

Claim notOpened() {
    return errno == ENOENT ? Claim::Gone : Claim::Failed;
}

// Never over another file, where the file system can tell.
bool renameTo(int folder, const std::string &from, const std::string &to) {
    if (renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    return errno == EINVAL && renameat(folder, from.c_str(), folder, to.c_str()) == 0;
}

}  // namespace

std::string originalName(const std::string &name) {
    if (!name.starts_with('.') || !name.ends_with(kLoading)) return name;
    const size_t end = name.rfind('.', name.size() - kLoading.size() - 1);
    return name.substr(1, end - 1);
}

bool Spool::stateOf(const Place &place, FileState &state) const {
    const Descriptor folder = openFolder(top_, place.folder);
    struct stat status {};
    if (!folder || fstatat(folder.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return false;
    state = fleet::stateOf(status);
    return S_ISREG(status.st_mode);
}

Claim Spool::lock(const std::string &folder) {
    if (folders_.contains(folder)) return Claim::Claimed;
    Descriptor opened = openFolder(top_, folder);
    if (!opened) return notOpened();
    if (flock(opened.get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? Claim::Busy : Claim::Failed;
    folders_.emplace(folder, std::move(opened));
    return Claim::Claimed;
}

Claim Spool::rename(int folder, const Place &place, ClaimedFile &out) {
    out.original = originalName(place.name);
    out.place = place;
    if (out.original != place.name) return Claim::Claimed;
    out.place.name = '.' + place.name + '.' + stamp() + std::string(kLoading);
    if (renameTo(folder, place.name, out.place.name)) return Claim::Claimed;
    return errno == ENOENT ? Claim::Gone : Claim::Failed;
}

Claim Spool::claim(const Place &place, const FileState &expected, size_t limit, ClaimedFile &out,
                   std::string &contents) {
    if (const Claim locked = lock(place.folder); locked != Claim::Claimed) return locked;
    const int folder = folders_.at(place.folder).get();
    struct stat status {};
    const Descriptor file = openFile(folder, place.name, status);
    if (!file) return notOpened();
    if (fleet::stateOf(status) != expected || isWritten(file.get())) return Claim::Written;
    if (const Claim renamed = rename(folder, place, out); renamed != Claim::Claimed) return renamed;

    // Whoever opened it by its first name before that still has it open; nobody can come after.
    if (isWritten(file.get())) return Claim::Written;
    if (!readAll(file.get(), limit, contents)) return Claim::Failed;
    if (fstat(file.get(), &status) != 0) return Claim::Failed;
    out.state = fleet::stateOf(status);
    return out.state == expected ? Claim::Claimed : Claim::Written;
}

std::string Spool::digestBeside(const Place &place) const {
    constexpr size_t kLength = 32, kLimit = 4096;
    const Descriptor folder = openFolder(top_, place.folder);
    struct stat status {};
    std::string text;
    if (!folder) return text;
    const Descriptor file = openFile(folder.get(), place.name + ".md5", status);
    if (!file || !readAll(file.get(), kLimit, text)) return "";
    text.resize(std::min(text.size(), kLength));
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c | 0x20) : c; });
    return text;
}

bool Spool::finish(const ClaimedFile &file, std::string_view end) {
    const auto found = folders_.find(file.place.folder);
    if (found == folders_.end()) return false;
    const int folder = found->second.get();
    struct stat status {};
    if (fstatat(folder, file.place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
    if (fleet::stateOf(status) != file.state) return false;
    // That of a later upload may be there already.
    const Place before{file.place.folder, file.original};
    if (!file.digest.empty() && digestBeside(before) == file.digest)
        (void)unlinkat(folder, (file.original + ".md5").c_str(), 0);
    if (end.empty()) return unlinkat(folder, file.place.name.c_str(), 0) == 0;
    const std::string base = file.place.name.substr(0, file.place.name.size() - kLoading.size());
    return renameTo(folder, file.place.name, base + std::string(end));
}

void Spool::expire(const Place &place, int64_t seconds) {
    const Descriptor folder = openFolder(top_, place.folder);
    struct stat status {};
    if (!folder || fstatat(folder.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    // The time of its renaming.
    if (time(nullptr) - status.st_ctim.tv_sec >= seconds) (void)unlinkat(folder.get(), place.name.c_str(), 0);
}

}  // namespace fleet
