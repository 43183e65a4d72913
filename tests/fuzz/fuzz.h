// Shared by the fuzz targets.
#pragma once
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

// A property that holds for every input.
#define FUZZ_CHECK(condition)                                                                   \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                       \
        }                                                                                       \
    } while (0)

namespace fuzz {

// The input in a block of the heap of its size, rounded up to a multiple of `unit` with zero bytes, and
// aligned as a receive buffer is: one byte read beyond it is found.
class ExactCopy {
  public:
    ExactCopy(const uint8_t *data, size_t size, size_t unit = 1)
        : bytes_(static_cast<uint8_t *>(std::calloc((size + unit - 1) / unit, unit))) {
        if (size) std::memcpy(bytes_.get(), data, size);
    }
    uint8_t *data() { return bytes_.get(); }

  private:
    struct Free {
        void operator()(uint8_t *bytes) const { std::free(bytes); }
    };
    std::unique_ptr<uint8_t, Free> bytes_;
};

// Takes one byte off the front of the input; 0 when there is none.
inline uint8_t takeByte(const uint8_t *&data, size_t &size) {
    if (!size) return 0;
    size--;
    return *data++;
}

// Writes a file that the parser under test reads, replacing it.
inline void writeFile(const char *path, const uint8_t *data, size_t size) {
    FILE *file = std::fopen(path, "wb");
    FUZZ_CHECK(file && std::fwrite(data, 1, size, file) == size);
    FUZZ_CHECK(std::fclose(file) == 0);
}

}  // namespace fuzz
