// How large the batches are in which packets shall come: a packet on its own comes at once, since a verdict
// waits for it; of many, those of a few milliseconds come together, since each batch is a wake-up and a
// buffer.
//
// Threads: whoever reads the packets.
#pragma once
#include <algorithm>
#include <bit>
#include <cstdint>

#include "netfilter/nflog.h"

namespace am {

class NflogPace {
  public:
    // So many packets came.  True when they shall come in batches of another size from now on.
    bool see(uint32_t packets, int64_t nowMs) {
        count_ += packets;
        const int64_t elapsed = nowMs - since_;
        // A burst is met at once: its packets are the ones that cost.
        if (elapsed < kWindowMs && count_ < kBurst) return false;
        const int64_t inBatch = count_ * kBatchMs / std::max<int64_t>(elapsed, 1);
        const auto wanted = static_cast<uint32_t>(std::clamp<int64_t>(inBatch, 1, kMost));
        count_ = 0;
        since_ = nowMs;
        if (wanted < 2 * packets_ && 2 * wanted > packets_) return false;
        packets_ = std::bit_floor(wanted);
        return true;
    }

    NflogBatch batch() const {
        // Half a kilobyte is a short connection's mean packet with its attributes.  The kernel's own part of
        // a buffer takes it to a power of two; one that is not half full is copied once more.
        return {packets_, std::max<uint32_t>(packets_ * 512, 8192) - 512};
    }

  private:
    static constexpr int64_t kWindowMs = 20;
    static constexpr int64_t kBatchMs = 4;
    static constexpr int64_t kBurst = 128;  // packets
    static constexpr int64_t kMost = 256;   // what the kernel's largest buffer has room for
    int64_t since_ = 0;
    int64_t count_ = 0;
    uint32_t packets_ = 1;
};

}  // namespace am
