#include "flows/record_slab.h"

#include <sys/mman.h>

namespace am {

namespace {

constexpr size_t kChunkSize = 65536;  // also the alignment: a slot's chunk is found by masking its address
constexpr size_t kHeaderSize = 64;    // keeps slots of a cache line's size on one line

char *mapAligned() {
    constexpr size_t kMapped = 2 * kChunkSize;
    void *mapped = mmap(nullptr, kMapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return nullptr;
    char *begin = static_cast<char *>(mapped);
    const size_t before = (kChunkSize - reinterpret_cast<uintptr_t>(begin) % kChunkSize) % kChunkSize;
    if (before != 0) (void)munmap(begin, before);
    const size_t after = kMapped - before - kChunkSize;
    if (after != 0) (void)munmap(begin + before + kChunkSize, after);
    return begin + before;
}

}  // namespace

uint32_t RecordSlab::slotsPerChunk() const {
    static_assert(sizeof(Chunk) <= kHeaderSize);
    return static_cast<uint32_t>((kChunkSize - kHeaderSize) / size_);
}

void RecordSlab::link(Chunk *chunk) {
    chunk->previous = nullptr;
    chunk->next = roomy_;
    if (roomy_) roomy_->previous = chunk;
    roomy_ = chunk;
}

void RecordSlab::unlink(Chunk *chunk) {
    if (chunk->previous)
        chunk->previous->next = chunk->next;
    else
        roomy_ = chunk->next;
    if (chunk->next) chunk->next->previous = chunk->previous;
}

RecordSlab::Chunk *RecordSlab::newChunk() {
    auto *chunk = reinterpret_cast<Chunk *>(mapAligned());
    if (!chunk) return nullptr;
    *chunk = {nullptr, nullptr, nullptr, slotsPerChunk(), 0};
    link(chunk);
    chunks_++;
    return chunk;
}

void *RecordSlab::take() {
    Chunk *chunk = roomy_ ? roomy_ : newChunk();
    if (!chunk) return nullptr;
    if (chunk == spare_) spare_ = nullptr;

    void *slot = chunk->free;
    if (slot) {
        chunk->free = chunk->free->next;
    } else {
        const uint32_t index = slotsPerChunk() - chunk->fresh--;
        slot = reinterpret_cast<char *>(chunk) + kHeaderSize + index * size_;
    }
    chunk->used++;
    if (!chunk->free && chunk->fresh == 0) unlink(chunk);
    return slot;
}

void RecordSlab::give(void *slot) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(slot);
    auto *chunk = reinterpret_cast<Chunk *>(address & ~uintptr_t{kChunkSize - 1});
    if (!chunk->free && chunk->fresh == 0) link(chunk);
    auto *given = static_cast<Slot *>(slot);
    given->next = chunk->free;
    chunk->free = given;
    if (--chunk->used != 0) return;

    if (!spare_) {
        spare_ = chunk;
        return;
    }
    unlink(chunk);
    chunks_--;
    (void)munmap(chunk, kChunkSize);
}

}  // namespace am
