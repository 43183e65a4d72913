// Memory of flow records: equal-sized slots in chunks of 64 KiB taken from the system, so that a record costs
// its own size and no more, and consecutive records of a burst share pages.
//
//   chunk: untouched --take--> slots in use, slots given back --last one given back--> spare or returned
//
// A chunk whose slots are all free goes back to the system; one spare is kept, so that a table that breathes
// around a chunk's size does not map and unmap.  Threads: none of its own; the owner holds its lock.
#pragma once
#include <cstddef>
#include <cstdint>

namespace am {

class RecordSlab {
  public:
    // Slots are `size` bytes, a multiple of 8 and at least 8; they are aligned to 64 when that is.
    constexpr explicit RecordSlab(size_t size) : size_(size) {}
    RecordSlab(const RecordSlab &) = delete;
    RecordSlab &operator=(const RecordSlab &) = delete;

    [[nodiscard]] void *take();  // contents undefined; null when the system has no memory
    void give(void *slot);       // of this slab

    size_t chunks() const { return chunks_; }  // held, the spare included

  private:
    struct Slot {
        Slot *next;
    };
    struct Chunk {
        Chunk *next, *previous;  // among those with a free slot
        Slot *free;              // given back
        uint32_t fresh;          // slots never taken: the last ones of the chunk
        uint32_t used;
    };

    uint32_t slotsPerChunk() const;
    Chunk *newChunk();
    void link(Chunk *chunk);
    void unlink(Chunk *chunk);

    const size_t size_;
    Chunk *roomy_ = nullptr;  // chunks with a free slot
    Chunk *spare_ = nullptr;  // one of them: no slot is in use; null if there is none
    size_t chunks_ = 0;
};

}  // namespace am
