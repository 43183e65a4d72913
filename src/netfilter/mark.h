// Where a verdict lies in a connection's mark: a run of bits that the administrator sets aside, the rest of
// the mark belonging to others (VPNs, load balancers, containers).  From the highest bit of the run down:
// classified, enforced, the application's number.
//
//   shift 0:  0x20000 classified   0x10000 enforced   0x0ffff application
//
// Pure functions, any thread.
#pragma once
#include <algorithm>
#include <bit>
#include <cstdint>

namespace am {

struct MarkLayout {
    uint32_t mask;  // the run

    static constexpr int kFlagBits = 2;
    static constexpr uint32_t kMaxNumber = 0xffff;  // of an application

    // A run without gaps that has room for the flags and at least one application.
    constexpr bool valid() const {
        const uint32_t run = mask >> shift();
        return std::popcount(mask) > kFlagBits && (run & (run + 1)) == 0;
    }
    constexpr int shift() const { return mask == 0 ? 0 : std::countr_zero(mask); }
    constexpr uint32_t classified() const { return std::bit_floor(mask); }
    constexpr uint32_t enforced() const { return classified() >> 1; }
    // Kits number with 16 bits, however many a wide run has.
    constexpr uint32_t maxApplication() const { return std::min((enforced() >> shift()) - 1, kMaxNumber); }

    // The verdict's bits.  A number that the run has no room for is left out: the connection counts as
    // classified, and no policy's set holds a mark without a number.
    constexpr uint32_t verdict(uint32_t application, bool enforce) const {
        if (application > maxApplication()) return classified();
        return classified() | (enforce ? enforced() : 0) | application << shift();
    }
    // At most maxApplication(): what others have written into the run may be anything, and counts as 0
    // beyond.
    constexpr uint32_t application(uint32_t mark) const {
        const uint32_t number = (mark & mask & ~(classified() | enforced())) >> shift();
        return number <= maxApplication() ? number : 0;
    }
};

inline constexpr MarkLayout kDefaultMarkLayout{0x3ffff};
static_assert(kDefaultMarkLayout.valid() && kDefaultMarkLayout.maxApplication() == 0xffff);

}  // namespace am
