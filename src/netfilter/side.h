// What the parts of the netfilter side share: its settings, its counters, and a line of log with a failure's
// reason.
#pragma once
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "core/counts.h"
#include "core/log.h"
#include "netfilter/mark.h"
#include "netfilter/nflog.h"

namespace am {

// From the command line; written before any thread starts.
struct SideSettings {
    uint16_t group = NflogSettings{}.group;  // of NFLOG
    MarkLayout marks = kDefaultMarkLayout;   // the daemon's bits of connections' marks
};
extern SideSettings sideSettings;

// What came, went and was lost.  Relaxed, any thread.
struct SideCounts {
    std::atomic<uint64_t>
        packetsLost;               // by the kernel, for want of room in the socket; exact, by their numbers
    std::atomic<uint64_t> marked;  // verdicts that a connection carries
    std::atomic<uint64_t>
        markedLater;  // of those, at a second try or later: the connection was not there yet
    std::atomic<uint64_t> markedBySearch;  // of those, found by a walk over all connections: translated twice
    std::atomic<uint64_t> searches;        // such walks
    std::atomic<uint64_t> notFound;        // verdicts whose connection never turned up, or had ended
    std::atomic<uint64_t> notKept;         // verdicts for which there was no room to wait for a connection
    std::atomic<uint64_t> ofErrors;        // verdicts on ICMP errors, which have no connection of their own
    std::atomic<uint64_t> refused;         // verdicts that the kernel refused for another reason
    std::atomic<uint64_t> tooLarge;        // verdicts with a number that the mark has no room for
    std::atomic<uint64_t> ends;            // ends of marked connections
    std::atomic<uint64_t> endOverruns;     // how often ends were lost, and found by the next dump
};
extern SideCounts sideCounts;

// Why the kernel refuses a socket or a binding, by its negative error number, in words for an administrator.
// The text lasts until the next call of strerror(3).
const char *reasonOf(int error);

// Milliseconds of a clock that nobody sets.
int64_t steadyMs();

}  // namespace am
