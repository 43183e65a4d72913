// What the loops share: an active array of applications, a control socket with somebody at the other end, and
// an enforcement flow database of a chosen size.  For the measuring thread alone.
#pragma once
#include <libmnl/libmnl.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "flows/enf_flow_db.h"
#include "flows/flow_info.h"

namespace bench {

inline constexpr uint32_t kApps = 64;
inline constexpr uint32_t kPlainApp = 1;      // on no list
inline constexpr uint32_t kEnforcedApp = 2;   // through a group
inline constexpr uint32_t kMonitoredApp = 3;  // both lists

extern std::mt19937_64 anyNumber;

// Applications, mirroring on, the log in /var/log, an empty flow database.
void makeWorld();

// A kit of so many applications, on no list, instead of the one before.
void installApplications(uint32_t count);
std::string applicationName(uint32_t id);

// A flow that has not been seen yet, for all that chance can do.
capture_flow_info freshFlow(uint32_t appId);
capture_flow_info freshFlow6(uint32_t appId);
AmEnfKey4 freshKey();
AmEnfKey4 keyOf(const capture_flow_info &info);
capture_flow_info flowOf(const AmEnfKey4 &key, uint32_t appId);

// Brings the IPv4 flow database to about `count` records, whatever it held: up to a twentieth more stay.
void holdFlows(size_t count);
// Keys of records held by the last holdFlows, at least that many.
const std::vector<AmEnfKey4> &heldKeys();

// The far end of control_nls: takes all datagrams that wait there.
void drainControl();

// Whether messages on control_nls go nowhere: for rows that are not about them.  Any thread.
void discardVerdicts(bool discard);

// Far end and near end of a datagram socket pair with room for a thousand small datagrams.
struct DatagramPair {
    int near, far;
};
DatagramPair datagramPair();

}  // namespace bench
