#include "core/write_fully.h"

#include <unistd.h>

#include <cerrno>

namespace am {

size_t writeFully(int fd, std::string_view bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = write(fd, bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) break;
        if (written == 0) {
            errno = EIO;
            break;
        }
        done += static_cast<size_t>(written);
    }
    return done;
}

bool copyFully(int from, int to) {
    char bytes[16384];
    for (;;) {
        const ssize_t got = read(from, bytes, sizeof bytes);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got == 0;
        const auto length = static_cast<size_t>(got);
        if (writeFully(to, {bytes, length}) != length) return false;
    }
}

}  // namespace am
