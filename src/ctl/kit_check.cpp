#include "ctl/kit_check.h"

#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "appmodel/app_pool.h"
#include "core/handle.h"
#include "ctl/command_line.h"
#include "ctl/engine_check.h"
#include "ctl/screen.h"
#include "kit/kit_folders.h"
#include "kit/kit_members.h"
#include "kit/signature.h"

namespace ctl {

namespace {

constexpr char kIndex[] = "AppMon_Signature_Index.csv";
constexpr uint32_t kNumbers = 65536;

// The words of a command, without a shell: the name of a file is not to be one's command.
bool run(char *const *words, int input) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    int status = 0;
    const int error = posix_spawnp(&child, words[0], &actions, nullptr, words, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return false;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int removeEntry(const char *path, const struct stat *, int, FTW *) {
    return remove(path);
}

const char *signatureProblemOf(const char *file, const char *keys) {
    char signature[512];
    snprintf(signature, sizeof signature, "%s.sig", file);
    const int fd = open(file, O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0 || status.st_size == 0) {
        if (fd >= 0) (void)close(fd);
        return "it cannot be read";
    }
    const auto size = static_cast<size_t>(status.st_size);
    void *const bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    (void)close(fd);
    if (bytes == MAP_FAILED) return "it cannot be read";
    const char *const problem =
        am::signatureProblem({static_cast<const uint8_t *>(bytes), size}, signature, keys);
    (void)munmap(bytes, size);
    return problem;
}

// Of the walk over the unpacked kit.
struct Walk {
    Findings *findings;
    const char *folder;
    uint64_t size;
} walk;

const char *memberOf(const char *path) {
    const char *const member = path + strlen(walk.folder);
    return *member == '/' ? member + 1 : member;
}

void checkLink(const char *path) {
    char target[512] = {};
    const ssize_t length = readlink(path, target, sizeof target - 1);
    const std::unique_ptr<char, am::Closer<free>> real(realpath(path, nullptr));
    if (length < 0 || !real)
        walk.findings->fault(memberOf(path), 0, "a link to %s, which is not there", target);
    else if (strncmp(real.get(), walk.folder, strlen(walk.folder)) != 0 || target[0] == '/')
        walk.findings->fault(memberOf(path), 0, "a link out of the kit, to %s", target);
    else
        walk.findings->note(memberOf(path), 0, "a link to %s: a copy of that is installed", target);
}

int visitMember(const char *path, const struct stat *status, int type, FTW *) {
    if (type == FTW_SL || type == FTW_SLN)
        checkLink(path);
    else if (type != FTW_D && type != FTW_DP && !S_ISREG(status->st_mode))
        walk.findings->fault(memberOf(path), 0, "neither a file nor a folder");
    else if (S_ISREG(status->st_mode))
        walk.size += static_cast<uint64_t>(status->st_size);
    return 0;
}

void checkSpace(const char *file, Findings &findings) {
    struct stat kit {};
    struct statfs space {};
    const char *scratch = kKitScratch;
    if (statfs(scratch, &space) != 0 && statfs(scratch = "/var", &space) != 0) return;
    const uint64_t free = static_cast<uint64_t>(space.f_bavail) * static_cast<uint64_t>(space.f_bsize);
    const uint64_t packed = stat(file, &kit) == 0 ? static_cast<uint64_t>(kit.st_size) : 0;
    if (free < packed + walk.size)
        findings.fault(nullptr, 0, "its copy and what it unpacks to need %" PRIu64 " bytes, %s has %" PRIu64,
                       packed + walk.size, scratch, free);
}

void checkLevel(const char *folder, Findings &findings) {
    int32_t level = 0;
    if (!am::readKitLevel(folder, level))
        findings.fault("compatibility.txt", 0, "missing: the daemon takes no kit without its level");
    else if (level != qel_kit_compatability_version)
        findings.fault("compatibility.txt", 1, "level %d, the daemon takes %d", level,
                       qel_kit_compatability_version);
    if (!*am::readKitVersion(folder).text)
        findings.note("version", 0, "missing or empty: nobody can tell which kit it is");
}

// One line of the index.
void checkIndexLine(const char *text, const char *name, const AmAppNode &app, uint32_t line,
                    uint32_t *lineOfId, Findings &findings) {
    char *end = nullptr;
    const long long id = strtoll(text, &end, 10);
    if (end == text || *end != ',')
        findings.fault(kIndex, line, "no number before the first comma: it counts as %u", app.appId);
    else if (id < 0 || id >= int64_t{kNumbers})
        findings.fault(kIndex, line, "number %lld is not from 0 to 65535: it counts as %u", id, app.appId);
    if (!*name) {
        findings.fault(kIndex, line, "no name");
        return;
    }
    if (strlen(name) > kAppNameSize) findings.fault(kIndex, line, "the name %s is cut to %s", name, app.name);
    if (const AmAppNode *const known = amIsAppNameValid(app.name))
        findings.fault(kIndex, line, "the name %s is there already, with number %u", app.name, known->appId);
    else if (lineOfId[app.appId] != 0)
        findings.fault(kIndex, line, "number %u is that of line %u already", app.appId, lineOfId[app.appId]);
    lineOfId[app.appId] = line;
}

}  // namespace

bool readIndex(const char *folder, Findings *findings) {
    char path[256], line[512], text[512];
    snprintf(path, sizeof path, "%s/%s", folder, kIndex);
    struct stat status {};
    if (lstat(path, &status) != 0 || !S_ISREG(status.st_mode)) return false;
    const am::File file(fopen(path, "re"));
    const std::unique_ptr<uint32_t[]> lineOfId(new (std::nothrow) uint32_t[kNumbers]());
    if (!file || !lineOfId) return false;
    rbtInit(&amAppPoolTree, amAppPoolNameCompare);
    amAppPoolShmSigCnt = 0;
    if (!fgets(line, sizeof line, file.get())) return true;  // the line of titles
    for (uint32_t number = 2; fgets(line, sizeof line, file.get()); number++) {
        memcpy(text, line, sizeof text);
        AmAppNode app{};
        const char *const name = am::parseIndexLine(line, app);
        if (findings && !strchr(text, '\n') && !feof(file.get()))
            findings->fault(kIndex, number, "longer than 511 characters: the rest counts as another line");
        if (findings) checkIndexLine(text, name, app, number, lineOfId.get(), *findings);
        (void)amUpdateAppPool(&app);
    }
    return true;
}

UnpackedKit::UnpackedKit(const char *file) {
    snprintf(folder_, sizeof folder_, "/tmp/korvidctl-XXXXXX");
    if (!mkdtemp(folder_)) {
        folder_[0] = '\0';
        return;
    }
    const int input = open(file, O_RDONLY | O_CLOEXEC);
    if (input < 0) return;
    // Not by its name: tar takes a colon in that for the end of a host's.
    char tar[] = "tar", extract[] = "-xzf", itself[] = "-", into[] = "-C", keep[] = "-o";
    char *const words[] = {tar, extract, itself, into, folder_, keep, nullptr};
    unpacked_ = run(words, input);
    (void)close(input);
}

UnpackedKit::~UnpackedKit() {
    if (folder_[0]) (void)nftw(folder_, removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

int checkKit(const char *file, const char *keys) {
    Findings findings(file);
    if (access(file, R_OK) != 0) {
        fprintf(stderr, "korvidctl: %s: %s\n", file, strerror(errno));
        return kFailed;
    }
    if (keys || am::signaturesRequired(kKeysDir))
        if (const char *const problem = signatureProblemOf(file, keys ? keys : kKeysDir)) {
            findings.fault(nullptr, 0, "%s", problem);
            return kFailed;  // nothing of it is unpacked
        }
    const UnpackedKit kit(file);
    if (!kit.unpacked()) {
        findings.fault(nullptr, 0, "tar cannot unpack it as a gzip-compressed archive");
        return kFailed;
    }
    checkLevel(kit.folder(), findings);
    walk = {&findings, kit.folder(), 0};
    (void)nftw(kit.folder(), visitMember, 16, FTW_PHYS);
    checkSpace(file, findings);
    if (!readIndex(kit.folder(), &findings)) findings.fault(kIndex, 0, "missing, or no file");
    checkEngine(kit.folder(), findings);
    if (findings.faults() != 0) {
        printf("%s: %u faults\n", file, findings.faults());
        return kFailed;
    }
    const am::KitVersion version = am::readKitVersion(kit.folder());
    printf("%s: good: %s, %u applications\n", file,
           *version.text ? shown(version.text).text : "without a version", rbtCount(&amAppPoolTree));
    return kDone;
}

}  // namespace ctl
