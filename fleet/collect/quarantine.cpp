#include "collect/quarantine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <functional>
#include <unordered_set>

#include "common/descriptor.h"
#include "common/folder.h"
#include "common/printable.h"
#include "core/write_fully.h"

namespace fleet {
namespace {

constexpr mode_t kFolderMode = 0750, kFileMode = 0640;
constexpr size_t kLargest = size_t{16} << 20;  // bytes, all of which are looked at for lines that come again

// Opens a folder, made where it is missing.  What stands before `trusted` characters is the administrator's
// and may have links; behind, in a spool, whoever may upload may have made them.
Descriptor openMade(const std::string &path, size_t trusted) {
    constexpr int kStep = O_PATH | O_DIRECTORY | O_CLOEXEC;
    Descriptor folder(open(path.starts_with('/') ? "/" : ".", kStep));
    for (size_t begin = 0, end = 0; folder && begin < path.size(); begin = end + 1) {
        end = std::min(path.find('/', begin), path.size());
        const std::string step = path.substr(begin, end - begin);
        if (step.empty()) continue;
        if (mkdirat(folder.get(), step.c_str(), kFolderMode) != 0 && errno != EEXIST) return Descriptor();
        folder = Descriptor(openat(folder.get(), step.c_str(), kStep | (end < trusted ? 0 : O_NOFOLLOW)));
    }
    return folder;
}

// The file of that name, made where it is missing; empty, with errno set, for what is no file.
Descriptor openOwn(int folder, const std::string &name) {
    constexpr int kFlags = O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    Descriptor file(openat(folder, name.c_str(), kFlags, kFileMode));
    struct stat status {};
    if (file && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        file = Descriptor();
        errno = EINVAL;
    }
    return file;
}

// A box's name as a path whose steps are no longer than a file system takes, nor special.
std::string pathOf(const std::string &box) {
    constexpr size_t kLongest = 200;
    std::string out;
    for (size_t begin = 0; begin <= box.size();) {
        const size_t end = std::min(box.find('/', begin), box.size());
        std::string step = box.substr(begin, end - begin);
        if (step.size() > kLongest)
            step = step.substr(0, kLongest) + '~' + std::to_string(std::hash<std::string>{}(step));
        out += '/' + (step.empty() || step[0] == '.' ? '_' + step : step);
        begin = end + 1;
    }
    return out;
}

std::string nowText() {
    const time_t now = time(nullptr);
    tm parts{};
    char text[32] = {};
    if (gmtime_r(&now, &parts)) (void)strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

// What makes two lines the same: reason and text, the last two columns.
std::string_view identity(std::string_view line) {
    size_t begin = 0;
    for (int column = 0; column < 4; column++) begin = line.find('\t', begin) + 1;
    return line.substr(begin);
}

}  // namespace

long Quarantine::add(const std::string &box, am::RecordKind kind, const std::string &file,
                     const std::vector<BadLine> &lines) const {
    const Descriptor folder = openMade(folder_ + pathOf(box), folder_.size());
    if (!folder) return -1;
    const Descriptor out = openOwn(folder.get(), std::string(am::recordName(kind)) + ".bad");
    std::string before;
    if (!out || !readAll(out.get(), kLargest, before)) return -1;
    const off_t size = static_cast<off_t>(before.size());
    if (before.size() >= kLargest) {
        errno = EFBIG;
        return -1;
    }

    std::unordered_set<std::string_view> known;
    for (size_t begin = 0, end = 0; (end = before.find('\n', begin)) != std::string::npos; begin = end + 1)
        known.insert(identity(std::string_view(before).substr(begin, end - begin)));
    // A line that was being written when the power failed.
    std::string text = before.empty() || before.back() == '\n' ? "" : "\n";
    const std::string head = nowText() + '\t' + printable(file) + '\t';
    long added = 0;
    for (const BadLine &line : lines) {
        std::string entry = std::string(line.reason) + '\t' + printable(line.text);
        if (known.contains(entry)) continue;
        text.append(head).append(std::to_string(line.number)).append(1, '\t');
        text.append(std::to_string(line.offset)).append(1, '\t').append(entry).append(1, '\n');
        added++;
    }
    if (added == 0) return 0;
    if (am::writeFully(out.get(), text) == text.size() && fsync(out.get()) == 0) return added;
    const int error = errno;
    // Half of them would look like all when the file comes again.
    if (ftruncate(out.get(), size) != 0) (void)0;
    errno = error;
    return -1;
}

}  // namespace fleet
