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

}  // namespace am
