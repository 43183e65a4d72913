// Tells of files that were closed after writing, or moved, in the folders of a spool: inotify(7).  What it
// misses (the system allows only so many watches, its queue is short) the sweep finds.  One thread.
#pragma once
#include <functional>
#include <string>
#include <unordered_map>

#include "collect/spool.h"

namespace fleet {

class Watch {
  public:
    Watch();

    [[nodiscard]] int descriptor() const { return descriptor_.get(); }

    // Again for a folder that is watched already: nothing.  False: no watch can be had.
    [[nodiscard]] bool add(int folder, const std::string &path);

    // Calls `changed` for each file that has been told of.  True: there is more to see than was told, folders
    // among it.
    [[nodiscard]] bool take(const std::function<void(const Place &)> &changed);

  private:
    Descriptor descriptor_;
    std::unordered_map<int, std::string> folders_;
};

}  // namespace fleet
