// Where a verdict lies in a connection's mark: a run of bits that the administrator sets aside, the rest of
// the mark belonging to others (VPNs, load balancers, containers).  From the highest bit of the run down:
// classified, enforced, the application's number.
//
//   shift 0:  0x20000 classified   0x10000 enforced   0x0ffff application
//
// Pure functions, any thread.
#pragma once
#include <bit>
#include <cstdint>

namespace am {

struct MarkLayout {
    uint32_t mask;  // the run

    static constexpr int kFlagBits = 2;

    // A run without gaps that has room for the flags and at least one application.
    constexpr bool valid() const {
        const uint32_t run = mask >> shift();
        return std::popcount(mask) > kFlagBits && (run & (run + 1)) == 0;
    }
    constexpr int shift() const { return mask == 0 ? 0 : std::countr_zero(mask); }
    constexpr uint32_t classified() const { return std::bit_floor(mask); }
    constexpr uint32_t enforced() const { return classified() >> 1; }
    constexpr uint32_t maxApplication() const { return (enforced() >> shift()) - 1; }

    // The verdict's bits.  A number that the run has no room for is left out: the connection counts as
    // classified, and no policy's set holds a mark without a number.
    constexpr uint32_t verdict(uint32_t application, bool enforce) const {
        if (application > maxApplication()) return classified();
        return classified() | (enforce ? enforced() : 0) | application << shift();
    }
    constexpr uint32_t application(uint32_t mark) const {
        return (mark & mask) >> shift() & maxApplication();
    }
};

inline constexpr MarkLayout kDefaultMarkLayout{0x3ffff};
static_assert(kDefaultMarkLayout.valid() && kDefaultMarkLayout.maxApplication() == 0xffff);

}  // namespace am
