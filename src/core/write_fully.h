// Whole texts to a descriptor.
#pragma once
#include <cstddef>
#include <string_view>

namespace am {

// Writes `bytes`, in several system calls where one does not take them all.  The bytes written: fewer than
// asked for after a failure, with errno(3) set.  Any thread.
size_t writeFully(int fd, std::string_view bytes);

// Copies all that can be read.  False, with errno set: not all of it is there.
[[nodiscard]] bool copyFully(int from, int to);

}  // namespace am
