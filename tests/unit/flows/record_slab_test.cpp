#include "flows/record_slab.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>

namespace {

// Slots never overlap, keep their contents, and their memory comes back.
TEST(RecordSlab, HandsOutEverySlotOnceAndReturnsMemory) {
    for (const size_t size : {size_t{64}, size_t{88}}) {
        am::RecordSlab slab(size);
        std::map<uint8_t *, uint8_t> held;  // slot -> its fill
        std::mt19937 random(3);
        uint8_t fill = 0;
        for (int phase = 0; phase < 6; phase++) {
            const bool growing = phase % 2 == 0;
            for (int step = 0; step < 6000; step++) {
                if (random() % 4 != 0 ? growing : !growing) {
                    auto *slot = static_cast<uint8_t *>(slab.take());
                    ASSERT_TRUE(slot);
                    ASSERT_EQ(reinterpret_cast<uintptr_t>(slot) % (size == 64 ? 64 : 8), 0U);
                    const auto above = held.lower_bound(slot);
                    ASSERT_TRUE(above == held.end() || above->first >= slot + size);
                    ASSERT_TRUE(above == held.begin() || std::prev(above)->first + size <= slot);
                    memset(slot, ++fill, size);
                    held[slot] = fill;
                } else if (!held.empty()) {
                    auto any = held.lower_bound(held.begin()->first + random() % (size * 2000));
                    if (any == held.end()) any = held.begin();
                    for (size_t at = 0; at < size; at++) ASSERT_EQ(any->first[at], any->second);
                    slab.give(any->first);
                    held.erase(any);
                }
            }
            EXPECT_GE(slab.chunks() * 65536, held.size() * size);
        }
        for (const auto &entry : held) slab.give(entry.first);
        EXPECT_EQ(slab.chunks(), 1U);  // the spare
        slab.give(slab.take());
        EXPECT_EQ(slab.chunks(), 1U);
    }
}

}  // namespace
