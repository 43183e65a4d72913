#include "collect/watch.h"

#include <sys/inotify.h>
#include <unistd.h>

namespace fleet {

Watch::Watch() : descriptor_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

bool Watch::add(int folder, const std::string &path) {
    constexpr uint32_t kWanted = IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_ONLYDIR;
    // By its descriptor: the name may mean another folder by now.
    const std::string here = "/proc/self/fd/" + std::to_string(folder);
    const int number = inotify_add_watch(descriptor_.get(), here.c_str(), kWanted);
    if (number < 0) return false;
    folders_[number] = path;
    return true;
}

bool Watch::take(const std::function<void(const Place &)> &changed) {
    bool more = false;
    alignas(inotify_event) char buffer[16384];
    for (;;) {
        const ssize_t length = read(descriptor_.get(), buffer, sizeof buffer);
        if (length <= 0) return more;
        for (const char *at = buffer; at < buffer + length;) {
            const auto *const event = reinterpret_cast<const inotify_event *>(at);
            at += sizeof *event + event->len;
            if ((event->mask & IN_IGNORED) != 0) folders_.erase(event->wd);
            if ((event->mask & (IN_Q_OVERFLOW | IN_ISDIR)) != 0) more = true;
            if ((event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) == 0 || event->len == 0) continue;
            const auto folder = folders_.find(event->wd);
            if (folder != folders_.end()) changed({folder->second, event->name});
        }
    }
}

}  // namespace fleet
