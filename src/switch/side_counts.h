// What came to nothing between the daemon and the DPI kernel module.  Relaxed, any thread.
#pragma once
#include <atomic>
#include <cstdint>

namespace am {

struct SideCounts {
    std::atomic<uint64_t> packetsMalformed;   // packet messages that hold no packet, or something beside it
    std::atomic<uint64_t> verdictsNotSent;    // verdicts that the control socket did not take
    std::atomic<uint64_t> reportsIncomplete;  // flow reports without what a report has to have
    std::atomic<uint64_t> reportOverruns;     // how often the control socket told of messages lost
};
extern SideCounts sideCounts;

}  // namespace am
