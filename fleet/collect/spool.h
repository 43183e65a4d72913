// Files of the spool while they are collected.  A file's name tells how far it is, so that whoever comes
// after a collector that was killed goes on where that one was:
//
//   NAME -> .NAME.STAMP.loading -> .NAME.STAMP.done -> gone after a while
//                               '> .NAME.STAMP.rejected      what is no record file; stays
//
// Under its second name a box's next upload does not touch it.  A folder is locked (flock(2) on the folder
// itself) by the collector that has files of it in hand: several share a spool.  One thread.
#pragma once
#include <sys/stat.h>

#include <map>
#include <string>
#include <string_view>
#include <tuple>

#include "common/descriptor.h"

namespace fleet {

inline constexpr std::string_view kLoading = ".loading", kDone = ".done", kRejected = ".rejected";

struct Place {
    std::string folder;  // below the spool: the box's name
    std::string name;

    bool operator==(const Place &) const = default;
    bool operator<(const Place &other) const {
        return std::tie(folder, name) < std::tie(other.folder, other.name);
    }
};

// What changes when somebody writes to a file.
struct FileState {
    ino_t inode = 0;
    off_t size = 0;
    int64_t modified = 0;  // ns since the epoch

    bool operator==(const FileState &) const = default;
};

struct ClaimedFile {
    Place place;           // under its name as a claimed one
    std::string original;  // its name before that
    std::string digest;    // that it was compared with; empty: none
    FileState state;       // as it was read
};

enum class Claim {
    Claimed,
    Busy,     // another collector has the folder
    Written,  // somebody has it open for writing, or has changed it meanwhile
    Gone,     // it is not there, or no regular file
    Failed,   // errno says why
};

class Spool {
  public:
    explicit Spool(int top) : top_(top) {}

    [[nodiscard]] bool stateOf(const Place &place, FileState &state) const;

    // Takes the folder's lock, gives the file its second name and reads it, `limit` bytes at most.
    [[nodiscard]] Claim claim(const Place &place, const FileState &expected, size_t limit, ClaimedFile &out,
                              std::string &contents);

    // The file as a digest beside it says it should be: its contents in NAME.md5, lower case; empty: there is
    // none.
    [[nodiscard]] std::string digestBeside(const Place &place) const;

    // Gives a claimed file the name of its end, or removes it for an empty one; the digest beside it goes.
    // False: it has been written to since it was read, or that failed: it is still to be loaded.
    [[nodiscard]] bool finish(const ClaimedFile &file, std::string_view end);

    // Removes what was done so many seconds ago.
    void expire(const Place &place, int64_t seconds);

    [[nodiscard]] size_t locked() const { return folders_.size(); }
    void unlock() { folders_.clear(); }

  private:
    [[nodiscard]] Claim lock(const std::string &folder);
    [[nodiscard]] Claim rename(int folder, const Place &place, ClaimedFile &out);

    int top_;
    std::map<std::string, Descriptor> folders_;  // locked ones
};

// The name that a claimed file had before; of any other its own.
[[nodiscard]] std::string originalName(const std::string &name);

}  // namespace fleet
