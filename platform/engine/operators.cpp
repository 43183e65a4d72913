// The global operators new and delete, replaced as by an engine with an allocator of its own.  Each block
// begins with a mark, so that one that comes from another allocator, or goes to one, is noticed.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "scripted.h"

namespace {

constexpr uint64_t kMark = 0x6b72766e65776f70;

struct alignas(std::max_align_t) Head {
    uint64_t mark;
};

void *allocate(size_t size) {
    auto *head = static_cast<Head *>(malloc(sizeof(Head) + size));
    if (!head) abort();
    head->mark = kMark;
    return head + 1;
}

void release(void *memory) {
    if (!memory) return;
    Head *head = static_cast<Head *>(memory) - 1;
    if (head->mark != kMark) {
        (void)fputs("engine: operator delete got memory of another allocator\n", stderr);
        abort();
    }
    head->mark = 0;
    free(head);
}

}  // namespace

void *operator new(size_t size) {
    return allocate(size);
}
void *operator new[](size_t size) {
    return allocate(size);
}
void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void operator delete(void *memory) noexcept {
    release(memory);
}
void operator delete[](void *memory) noexcept {
    release(memory);
}
void operator delete(void *memory, size_t) noexcept {
    release(memory);
}
void operator delete[](void *memory, size_t) noexcept {
    release(memory);
}

// Calls of the functions, not expressions: those could be left out in pairs.
void engine::useOperators() {
    ::operator delete(::operator new(24));
    ::operator delete (::operator new(24), size_t{24});
    ::operator delete[](::operator new[](24));
    ::operator delete[](::operator new[](24), size_t{24});
    ::operator delete(::operator new(24, std::nothrow));
    ::operator delete[](::operator new[](24, std::nothrow));
}
