// A preload library that fails one allocation: the n-th that the daemon itself asks for while it is armed.
//
//   KORVID_INJECT     a file of four 64-bit words, shared with who drives the experiment
//   KORVID_INJECT_IN  further libraries whose allocations count, as parts of their names separated by ":"
//
// Who asks is told by the return address: of the executable, or of one of those libraries.  What other
// libraries allocate for themselves never fails.  Anonymous mappings count as allocations: flow records live
// in some. glibc only: its own entries stand behind the interposed ones, so that nothing has to be looked up
// first.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
}

namespace {

struct Control {
    std::atomic<uint64_t> armed;   // 1: allocations count
    std::atomic<uint64_t> calls;   // counted so far
    std::atomic<uint64_t> failAt;  // the one that fails, counted from 1; 0: none
    std::atomic<uint64_t> failed;  // how many did
};
static_assert(sizeof(Control) == 32);

struct Range {
    uintptr_t begin, end;
};

constinit Control *control = nullptr;
constinit Range ranges[32]{};
constinit size_t rangeCount = 0;

using MapFn = void *(*)(void *, size_t, int, int, int, off_t);
constinit MapFn nextMap = nullptr;

// Whether a library's path holds one of the names that are separated by ":".
bool isNamed(std::string_view path, std::string_view names) {
    while (!names.empty()) {
        const size_t colon = std::min(names.find(':'), names.size());
        const std::string_view name = names.substr(0, colon);
        if (!name.empty() && path.find(name) != path.npos) return true;
        names.remove_prefix(std::min(colon + 1, names.size()));
    }
    return false;
}

int addRanges(dl_phdr_info *object, size_t, void *names) {
    const std::string_view path = object->dlpi_name ? object->dlpi_name : "";
    const bool executable =
        path.empty() && rangeCount == 0;  // the first object; the vdso is nameless as well
    if (!executable && !isNamed(path, static_cast<const char *>(names))) return 0;
    for (size_t i = 0; i < object->dlpi_phnum && rangeCount < std::size(ranges); i++) {
        const ElfW(Phdr) &segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_X)) continue;
        const uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
        ranges[rangeCount++] = {begin, begin + segment.p_memsz};
    }
    return 0;
}

// Programs that the daemon starts inherit the environment; only the daemon itself is meant.
bool isDaemon() {
    return std::strcmp(program_invocation_short_name, "korvid") == 0;
}

__attribute__((constructor)) void begin() {
    nextMap = reinterpret_cast<MapFn>(dlsym(RTLD_NEXT, "mmap"));
    const char *path = std::getenv("KORVID_INJECT");
    if (!path || !isDaemon()) return;
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return;
    void *shared = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    (void)close(fd);
    if (shared == MAP_FAILED) return;
    const char *names = std::getenv("KORVID_INJECT_IN");
    char none[] = "";
    (void)dl_iterate_phdr(addRanges, names ? const_cast<char *>(names) : none);
    control = static_cast<Control *>(shared);
}

bool isToFail(const void *caller) {
    if (!control || control->armed.load(std::memory_order_relaxed) == 0) return false;
    const auto address = reinterpret_cast<uintptr_t>(caller);
    for (size_t i = 0; i < rangeCount; i++) {
        if (address < ranges[i].begin || address >= ranges[i].end) continue;
        if (control->calls.fetch_add(1) + 1 != control->failAt.load()) return false;
        control->failed.fetch_add(1);
        errno = ENOMEM;
        return true;
    }
    return false;
}

}  // namespace

// Interposed: looked up by the loader, before the C library's.
extern "C" {

__attribute__((visibility("default"))) void *malloc(size_t size) {
    return isToFail(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

__attribute__((visibility("default"))) void *calloc(size_t count, size_t size) {
    return isToFail(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

__attribute__((visibility("default"))) void *realloc(void *memory, size_t size) {
    return isToFail(__builtin_return_address(0)) ? nullptr : __libc_realloc(memory, size);
}

__attribute__((visibility("default"))) void *aligned_alloc(size_t alignment, size_t size) {
    return isToFail(__builtin_return_address(0)) ? nullptr : __libc_memalign(alignment, size);
}

__attribute__((visibility("default"))) void *mmap(void *at, size_t size, int protection, int flags, int fd,
                                                  off_t offset) {
    if ((flags & MAP_ANONYMOUS) && isToFail(__builtin_return_address(0))) return MAP_FAILED;
    if (nextMap) return nextMap(at, size, protection, flags, fd, offset);
    return reinterpret_cast<void *>(syscall(SYS_mmap, at, size, protection, flags, fd, offset));
}

}  // extern "C"
