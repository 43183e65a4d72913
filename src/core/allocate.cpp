// The nothrow allocation functions straight on malloc, for the daemon only: with them it needs nothing of the
// C++ runtime library, neither on the switch's flash nor in its memory.
#include <cstdlib>
#include <new>

const std::nothrow_t std::nothrow{};

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return malloc(size != 0 ? size : 1);
}
void *operator new[](size_t size, const std::nothrow_t &) noexcept {
    return malloc(size != 0 ? size : 1);
}
void operator delete(void *memory) noexcept {
    free(memory);
}
void operator delete[](void *memory) noexcept {
    free(memory);
}
void operator delete(void *memory, size_t) noexcept {
    free(memory);
}
void operator delete[](void *memory, size_t) noexcept {
    free(memory);
}
void operator delete(void *memory, const std::nothrow_t &) noexcept {
    free(memory);
}
void operator delete[](void *memory, const std::nothrow_t &) noexcept {
    free(memory);
}
