#include "ctl/engine_check.h"

#include <elf.h>
#include <fcntl.h>
#include <glob.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/handle.h"

namespace ctl {

namespace {

using Header = ElfW(Ehdr);
using Section = ElfW(Shdr);
using Symbol = ElfW(Sym);
using Dynamic = ElfW(Dyn);

constexpr size_t kMostLibraries = 64;
constexpr char kPerPacket[] = "pcap_packet";  // the one that the daemon cannot do without
constexpr const char *kOfDaemon[] = {"capture_flow_func", "am_capture_flow_func", "pcap"};

// A file as it is mapped, for the rest of the process.  Nothing in it is trusted: all that is looked at lies
// within it.
struct Library {
    char name[128];
    const char *bytes = nullptr;
    size_t size = 0;
    bool ofKit = false;

    template <class Type>
    const Type *at(uint64_t offset, uint64_t count = 1) const {
        const bool within =
            offset <= size && count <= (size - offset) / sizeof(Type) && offset % alignof(Type) == 0;
        return within ? reinterpret_cast<const Type *>(bytes + offset) : nullptr;
    }
    const Header *header() const { return at<Header>(0); }

    // The section of that type; null without one, or with one that does not lie within the file.
    const Section *section(uint32_t type) const {
        const Header *const head = header();
        const auto *const sections = head ? at<Section>(head->e_shoff, head->e_shnum) : nullptr;
        for (unsigned i = 0; sections && i < head->e_shnum; i++)
            if (sections[i].sh_type == type && at<char>(sections[i].sh_offset, sections[i].sh_size))
                return &sections[i];
        return nullptr;
    }
    // A text of the string table that belongs to a section.
    const char *text(const Section &of, uint64_t offset) const {
        const Header *const head = header();
        const auto *const strings =
            of.sh_link < head->e_shnum ? at<Section>(head->e_shoff, head->e_shnum) + of.sh_link : nullptr;
        const char *const all = strings ? at<char>(strings->sh_offset, strings->sh_size) : nullptr;
        if (!all || offset >= strings->sh_size || !memchr(all + offset, '\0', strings->sh_size - offset))
            return "";
        return all + offset;
    }
    template <class Visit>
    void forEachSymbol(Visit visit) const {
        const Section *const table = section(SHT_DYNSYM);
        const size_t count = table ? table->sh_size / sizeof(Symbol) : 0;
        const auto *const symbols = table ? at<Symbol>(table->sh_offset, count) : nullptr;
        for (size_t i = 1; symbols && i < count; i++) visit(symbols[i], text(*table, symbols[i].st_name));
    }
    template <class Visit>
    void forEachNeeded(Visit visit) const {
        const Section *const table = section(SHT_DYNAMIC);
        const size_t count = table ? table->sh_size / sizeof(Dynamic) : 0;
        const auto *const entries = table ? at<Dynamic>(table->sh_offset, count) : nullptr;
        for (size_t i = 0; entries && i < count && entries[i].d_tag != DT_NULL; i++)
            if (entries[i].d_tag == DT_NEEDED) visit(text(*table, entries[i].d_un.d_val));
    }
};

Library libraries[kMostLibraries];
size_t libraryCount = 0;

// Names that somebody offers: a set with open addresses.
class Names {
  public:
    Names() : names_(static_cast<const char **>(calloc(kSize, sizeof(char *)))) {}
    void add(const char *name) {
        if (const char **const slot = find(name); slot && !*slot && count_ < kSize / 2) {
            *slot = name;
            count_++;
        }
    }
    bool has(const char *name) {
        const char **const slot = find(name);
        return slot && *slot;
    }

  private:
    static constexpr size_t kSize = size_t{1} << 18;
    const char **find(const char *name) {
        if (!names_) return nullptr;
        size_t hash = 5381;
        for (const char *at = name; *at; at++) hash = hash * 33 + static_cast<unsigned char>(*at);
        for (;; hash++)
            if (const char **slot = &names_[hash % kSize]; !*slot || strcmp(*slot, name) == 0) return slot;
    }
    std::unique_ptr<const char *[], am::Closer<free>> names_;
    size_t count_ = 0;
};

const char *nameOf(const char *path) {
    const char *const slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

bool map(const char *path, Library &library) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0) {
        if (fd >= 0) (void)close(fd);
        return false;
    }
    void *const bytes = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    (void)close(fd);
    if (bytes == MAP_FAILED) return false;
    snprintf(library.name, sizeof library.name, "%s", nameOf(path));
    library.bytes = static_cast<const char *>(bytes);
    library.size = static_cast<size_t>(status.st_size);
    return true;
}

bool isElf(const Library &library) {
    return library.header() && memcmp(library.bytes, ELFMAG, SELFMAG) == 0;
}

bool fitsMachine(const Library &library) {
    static Library own;
    if (!own.bytes && !map("/proc/self/exe", own)) return true;
    return memcmp(library.bytes, own.bytes, EI_DATA + 1) == 0 &&
           library.header()->e_machine == own.header()->e_machine;
}

// Where the loader looks without being told otherwise.
bool mapFromSystem(const char *name, Library &library) {
    utsname system{};
    (void)uname(&system);
    static constexpr const char *kFolders[] = {"/lib", "/usr/lib", "/lib64", "/usr/lib64", "/usr/local/lib"};
    char path[512];
    for (const char *folder : kFolders) {
        snprintf(path, sizeof path, "%s/%s", folder, name);
        if (map(path, library) && isElf(library) && fitsMachine(library)) return true;
        snprintf(path, sizeof path, "%s/%s-linux-gnu/%s", folder, system.machine, name);
        if (map(path, library) && isElf(library) && fitsMachine(library)) return true;
    }
    return false;
}

bool isThere(const char *name) {
    for (size_t i = 0; i < libraryCount; i++)
        if (strcmp(libraries[i].name, name) == 0) return true;
    return false;
}

// False when one of the kit's cannot be used here: its symbols are then of no interest.
bool readKitLibraries(const char *folder, Findings &findings) {
    char pattern[256];
    snprintf(pattern, sizeof pattern, "%s/lib/ni/*.so*", folder);
    glob_t found{};
    bool good = true;
    if (glob(pattern, 0, nullptr, &found) == 0) {
        for (size_t i = 0; i < found.gl_pathc && libraryCount < kMostLibraries; i++) {
            Library &library = libraries[libraryCount];
            const bool elf = map(found.gl_pathv[i], library) && isElf(library);
            if (!elf || !fitsMachine(library)) {
                findings.fault(nameOf(found.gl_pathv[i]), 0,
                               elf ? "made for another processor" : "no ELF library");
                good = false;
                continue;
            }
            library.ofKit = true;
            libraryCount++;
        }
    }
    globfree(&found);
    return good;
}

void readNeededLibraries(Findings &findings) {
    for (size_t i = 0; i < libraryCount; i++) {
        const Library &from = libraries[i];
        from.forEachNeeded([&](const char *name) {
            if (!*name || isThere(name) || libraryCount == kMostLibraries) return;
            if (mapFromSystem(name, libraries[libraryCount]))
                libraryCount++;
            else if (from.ofKit)
                findings.fault(from.name, 0,
                               "needs the library %s, which is neither in the kit nor on this system", name);
        });
    }
}

void checkSymbols(Findings &findings) {
    Names offered;
    for (const char *name : kOfDaemon) offered.add(name);
    for (size_t i = 0; i < libraryCount; i++)
        libraries[i].forEachSymbol([&](const Symbol &symbol, const char *name) {
            if (symbol.st_shndx != SHN_UNDEF) offered.add(name);
        });
    for (size_t i = 0; i < libraryCount; i++) {
        if (!libraries[i].ofKit) continue;
        libraries[i].forEachSymbol([&](const Symbol &symbol, const char *name) {
            if (symbol.st_shndx == SHN_UNDEF && ELF64_ST_BIND(symbol.st_info) == STB_GLOBAL && *name &&
                !offered.has(name))
                findings.fault(libraries[i].name, 0, "needs %s, which nobody offers", name);
        });
    }
}

void checkEntries(const Library &engine, Findings &findings) {
    static constexpr const char *kEntries[] = {"test_capture", kPerPacket, "test_capture_exit"};
    for (const char *entry : kEntries) {
        bool there = false;
        engine.forEachSymbol([&](const Symbol &symbol, const char *name) {
            there = there || (symbol.st_shndx != SHN_UNDEF && strcmp(name, entry) == 0);
        });
        if (there) continue;
        if (entry == kPerPacket)
            findings.fault(engine.name, 0, "has no entry %s, so that no packet reaches it", entry);
        else
            findings.note(engine.name, 0, "has no entry %s", entry);
    }
}

}  // namespace

void checkEngine(const char *folder, Findings &findings) {
    libraryCount = 0;
    const bool usable = readKitLibraries(folder, findings);
    const Library *engine = nullptr;
    for (size_t i = 0; i < libraryCount; i++)
        if (strcmp(libraries[i].name, "libcapture.so") == 0) engine = &libraries[i];
    if (engine)
        checkEntries(*engine, findings);
    else if (usable)
        findings.fault("lib/ni/libcapture.so", 0, "missing: the kit has no engine");
    if (!usable) return;
    readNeededLibraries(findings);
    checkSymbols(findings);
}

}  // namespace ctl
