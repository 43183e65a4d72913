// Puts new content in a file's place such that a reader, a kill or a power cut finds the old content or the
// new one, never half of either.
#pragma once
#include <string_view>

namespace am {

// A new file beside `path`, on the disk before it is renamed over it, with the owner and mode of the one
// before or for the daemon's user alone; through a symbolic link, to the link's target.  Where the folder
// takes no new file (a file mounted on its own, a read-only folder), the file is written in place, and so is
// what is no file.  False when the content could not be put there: what has failed is logged, but for a file
// that can be neither created nor opened, which is silent.  The old content then stays.
bool replaceFile(const char *path, std::string_view content);

}  // namespace am
