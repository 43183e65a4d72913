#include "kit/verified_kit.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/write_fully.h"
#include "kit/kit_folders.h"
#include "kit/kit_state.h"
#include "kit/signature.h"

namespace am {

namespace {

constexpr int kSeals = F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

constinit int copy = -1;
constinit bool unverified = false;
char copyPath[64];  // through which tar and cp reach it

// A sealed copy in memory; -1 without.
int sealedCopy(const char *path) {
    const int from = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status {};
    if (from < 0) return -1;
    int memory = -1;
    if (fstat(from, &status) == 0 && S_ISREG(status.st_mode))
        memory = memfd_create("korvid-kit", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    const bool sealed = memory >= 0 && copyFully(from, memory) && fcntl(memory, F_ADD_SEALS, kSeals) == 0;
    (void)close(from);
    if (sealed) return memory;
    if (memory >= 0) (void)close(memory);
    return -1;
}

// Where the copy is unpacked nobody else may have put anything, nor may later.
bool ownScratch() {
    wipe(kKitScratch, "dpiValidateKit", __LINE__);
    (void)mkdir(kKitScratch, 0700);
    struct stat status {};
    return lstat(kKitScratch, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & 022) == 0;
}

const char *problemOf(int file, const char *kitPath) {
    struct stat status {};
    if (fstat(file, &status) != 0 || status.st_size == 0) return "it is empty";
    const auto size = static_cast<size_t>(status.st_size);
    void *const bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
    if (bytes == MAP_FAILED) return "there is no memory to verify it";
    char signaturePath[512];
    snprintf(signaturePath, sizeof signaturePath, "%s.sig", kitPath);
    const char *const problem =
        signatureProblem({static_cast<const uint8_t *>(bytes), size}, signaturePath, kKeysDir);
    (void)munmap(bytes, size);
    return problem;
}

}  // namespace

bool verifyKit(const char *path) {
    dropVerifiedKit();
    unverified = false;
    if (!signaturesRequired(kKeysDir)) return true;
    const int sealed = sealedCopy(path);
    const char *problem = sealed < 0 ? "there is no memory for a copy of it" : problemOf(sealed, path);
    if (!problem && !ownScratch()) problem = "/var/flash is not the daemon's own";
    if (!problem) {
        copy = sealed;
        snprintf(copyPath, sizeof copyPath, "/proc/%d/fd/%d", static_cast<int>(getpid()), copy);
        return true;
    }
    if (sealed >= 0) (void)close(sealed);
    unverified = true;
    amLog(AM_LOG_ERROR, "%s:%d the kit is refused: %s\n", "dpiValidateKit", __LINE__, problem);
    noteKitRefused(problem);
    return false;
}

void dropVerifiedKit() {
    if (copy >= 0) (void)close(copy);
    copy = -1;
}

const char *verifiedKit(const char *path) {
    if (copy >= 0) return copyPath;
    return signaturesRequired(kKeysDir) ? nullptr : path;
}

bool kitUnverified() {
    return unverified;
}

}  // namespace am
