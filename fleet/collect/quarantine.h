// Lines that cannot be read, one file a box and kind: FOLDER/box/kind.bad.  A line of it has, between tabs,
// the time, the file's name, the line's number, its offset, the reason, and the line itself as printable
// text.
//
// FOLDER, unless a slash ends its name, and what is in it are reached through no symbolic link.
//
// Exports repeat the bad lines with the good ones, so a line that the file has already is not added again.
#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "common/record_scan.h"

namespace fleet {

class Quarantine {
  public:
    explicit Quarantine(std::string folder) : folder_(std::move(folder)) {}

    // Adds the lines that are new, on the disk when it returns.  Their number, or -1 with errno set: EFBIG
    // when the file has had enough.
    [[nodiscard]] long add(const std::string &box, am::RecordKind kind, const std::string &file,
                           const std::vector<BadLine> &lines) const;

  private:
    std::string folder_;
};

}  // namespace fleet
