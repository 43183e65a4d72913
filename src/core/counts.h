// What came, went and was lost on the daemon's way from a packet to a record, where no header closer to it
// counts already.  Since the start of the process, never reset.
//
// Threads: anybody counts, anybody reads; numbers to be shown, so nothing is ordered by them.  On the packet
// path only what goes wrong is counted here.
#pragma once
#include <atomic>
#include <cstdint>

namespace am {

struct Counts {
    std::atomic<uint64_t> packetsWithoutEngine;  // received while no engine was there to take them
    std::atomic<uint64_t> packetOverruns;        // how often the packet socket told of packets lost
    std::atomic<uint64_t> verdictsWhileOff;      // reported by the engine with mirroring off
    std::atomic<uint64_t> verdictsUnknownApp;    // with a number that the kit's index does not have
    std::atomic<uint64_t> verdictsOther;         // neither IPv4 nor IPv6
    std::atomic<uint64_t> flowsRenewed;          // records that had aged and live again
    std::atomic<uint64_t> flowsRepeated;         // verdicts for flows that are recorded and live
    std::atomic<uint64_t> flowsNoMemory;         // flows left out of the database
    std::atomic<uint64_t> monitoredDrained;      // monitored flows taken from the queues
    std::atomic<uint64_t> monitoredLost;         // of those, not written to the records file
    std::atomic<uint64_t> reportsUnmatched;      // reports of flows that the database does not have
    std::atomic<uint64_t> reportsFlushed;        // matched reports that left the queues
};
extern Counts counts;

inline void countUp(std::atomic<uint64_t> &counter, uint64_t by = 1) {
    counter.fetch_add(by, std::memory_order_relaxed);
}
inline uint64_t valueOf(const std::atomic<uint64_t> &counter) {
    return counter.load(std::memory_order_relaxed);
}

}  // namespace am
