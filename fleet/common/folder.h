// Folders and files of a spool that strangers can write to: nothing is reached through a symbolic link, and
// nothing but regular files is read.  Pure functions, any thread.
#pragma once
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "common/descriptor.h"

namespace fleet {

inline constexpr int kFolderDepth = 8;  // of boxes below the spool

// A folder below another one; "" is that one itself.  Empty, with errno set, where there is none, or where a
// link is on the way.
Descriptor openFolder(int top, const std::string &path);

// A regular file to be read; empty: none, errno says why.  ENOENT as well for what is no file.
Descriptor openFile(int folder, const std::string &name, struct stat &status);

// Reads all of it, `limit` bytes at most.  False: it could not be read.
[[nodiscard]] bool readAll(int file, size_t limit, std::string &contents);

// Every folder of a spool, the top one ("") first, with its files' names.  Names that begin with a dot are
// left out, but for those of files that `hidden` takes.  A folder that cannot be looked into goes to
// `closed`, with errno set.
void forEachFolder(
    int top, const std::function<bool(const std::string &name)> &hidden,
    const std::function<void(const std::string &path, const std::vector<std::string> &files)> &visit,
    const std::function<void(const std::string &path)> &closed);

}  // namespace fleet
