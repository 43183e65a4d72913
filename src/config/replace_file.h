// Puts new content in a file's place such that a reader, a kill or a power cut finds the old content or the
// new one, never half of either, wherever a file can be made beside it.
#pragma once
#include <string_view>

namespace am {

// A new file beside `path`, on the disk before it is renamed over it, with the owner and mode of the one
// before or for the daemon's user alone; through symbolic links, to the last one's target.  Where no such
// file can be made (a read-only folder, no free inode, a file that is a mount of its own), the file is
// written in place once there is room for all of it, so that a kill or a power cut may leave a part; what is
// no file is written to as it is.
//
// False when the content could not be put there.  The old content then stays, in place too as far as the file
// system can say beforehand that there is room.  What failed is logged, but for a path that leads nowhere (no
// such folder, links without end) or to what this user may not open, and for a pipe that nobody reads.
bool replaceFile(const char *path, std::string_view content);

}  // namespace am
