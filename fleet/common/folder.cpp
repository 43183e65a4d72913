#include "common/folder.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>

namespace fleet {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct CloseFolder {
    void operator()(DIR *folder) const { (void)closedir(folder); }
};

// Whether an entry is a folder, a file or neither.
mode_t kindOf(int folder, const dirent &entry) {
    if (entry.d_type == DT_DIR) return S_IFDIR;
    if (entry.d_type == DT_REG) return S_IFREG;
    struct stat status {};
    if (entry.d_type != DT_UNKNOWN || fstatat(folder, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return 0;
    return status.st_mode & S_IFMT;
}

}  // namespace

Descriptor openFolder(int top, const std::string &path) {
    Descriptor folder(openat(top, ".", kFolderFlags));
    for (size_t begin = 0; folder && begin < path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        folder = Descriptor(openat(folder.get(), path.substr(begin, end - begin).c_str(), kFolderFlags));
        begin = end + 1;
    }
    return folder;
}

Descriptor openFile(int folder, const std::string &name, struct stat &status) {
    Descriptor file(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        file = Descriptor();
        errno = ENOENT;
    }
    return file;
}

bool readAll(int file, size_t limit, std::string &contents) {
    constexpr size_t kPiece = size_t{256} * 1024;
    contents.clear();
    while (contents.size() < limit) {
        const size_t before = contents.size();
        contents.resize(before + kPiece);
        const ssize_t length = read(file, contents.data() + before, kPiece);
        contents.resize(before + static_cast<size_t>(std::max<ssize_t>(length, 0)));
        if (length == 0) return true;
        if (length < 0 && errno != EINTR) return false;
    }
    return true;
}

void forEachFolder(
    int top, const std::function<bool(const std::string &name)> &hidden,
    const std::function<void(const std::string &path, const std::vector<std::string> &files)> &visit,
    const std::function<void(const std::string &path)> &closed) {
    std::vector<std::pair<std::string, int>> ahead{{"", 0}};
    std::vector<std::string> files;
    std::string below;
    while (!ahead.empty()) {
        const auto [path, depth] = std::move(ahead.back());
        ahead.pop_back();
        Descriptor folder = openFolder(top, path);
        const std::unique_ptr<DIR, CloseFolder> entries(folder ? fdopendir(dup(folder.get())) : nullptr);
        if (!entries) {
            if (errno != ENOENT) closed(path);
            continue;
        }
        files.clear();
        below = path;
        if (!path.empty()) below += '/';
        while (const dirent *const entry = readdir(entries.get())) {
            std::string name = entry->d_name;
            if (name[0] == '.' && !hidden(name)) continue;
            const mode_t kind = kindOf(folder.get(), *entry);
            if (kind == S_IFREG)
                files.push_back(std::move(name));
            else if (kind == S_IFDIR && name[0] != '.' && depth < kFolderDepth)
                ahead.emplace_back(below + name, depth + 1);
        }
        visit(path, files);
    }
}

}  // namespace fleet
