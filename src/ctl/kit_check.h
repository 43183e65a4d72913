// Looks at a kit as the daemon would, and further, without installing it: none of its code runs.
#pragma once
#include "ctl/findings.h"

namespace ctl {

// Prints every finding.  `keys` is a public key or a folder of them; null: the daemon's folder, if kits have
// to be signed. What the program ends with.
int checkKit(const char *file, const char *keys);

// A kit in a folder of its own, which goes with it.
class UnpackedKit {
  public:
    explicit UnpackedKit(const char *file);
    ~UnpackedKit();
    UnpackedKit(const UnpackedKit &) = delete;
    UnpackedKit &operator=(const UnpackedKit &) = delete;
    bool unpacked() const { return unpacked_; }
    const char *folder() const { return folder_; }

  private:
    char folder_[64];
    bool unpacked_ = false;
};

// Reads the index of an unpacked kit into the pool, as the daemon does.  False without an index.
[[nodiscard]] bool readIndex(const char *folder, Findings *findings);

}  // namespace ctl
