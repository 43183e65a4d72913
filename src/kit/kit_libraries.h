// The libraries that a kit brings, and those of earlier kits that the loader has not let go of.
//
// A C library need not unload: musl's never does, glibc's keeps a library that is linked so (-z nodelete) or
// has unique symbols.  The code of an engine that was unloaded, and of what it needs, can therefore still be
// mapped, and run, when the next kit comes.  What follows from it:
//   - a library that is copied to /lib gets an inode of its own: written over the old file, it would change
//   or
//     take away the code that is mapped;
//   - what the old libraries export is still found first by name, and a library that an engine names as
//     needed is the old one if that has the name.  Only a restart changes that, and the log says so.
//
// Event-loop thread.
#pragma once

inline constexpr char kLibraryDir[] = "/lib";

// Copies the libraries of the installation extraction into /lib; links become copies of what they point to,
// and a link of that name in /lib is replaced, not followed. 1, or 0 when one of them could not be copied:
// the others are.  The engine has been unloaded before.
int amCopyLibsSo();

namespace am {

// dlopen of a library file that may have been replaced since its path was last opened: the file's library
// even where the one from before is still loaded.
void *openLibrary(const char *path, int mode);

}  // namespace am
