// What the command line and the control socket's `set` can choose.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "channel.h"
#include "wire.h"

namespace dpimod {

enum class WhenFull { automatic, wait, drop };

struct Settings {
    std::string socket = kDefaultSocketPath, control, json;
    std::vector<std::string> files;
    std::string interface;
    std::vector<std::string> generate;  // words of a `generate` command
    bool generated = false;
    uint64_t rate = 0;  // packets a second, 0: as fast as the reader keeps up
    uint64_t loops = 1;
    WhenFull whenFull = WhenFull::automatic;
    bool ignoreMirror = false, exitWhenDone = false, noRing = false, quiet = false;
    uint64_t queueBytes = 212992;  // what net.core.rmem_default gives a netlink socket
    uint64_t batch = 1, copyEvery = 0, zeroEvery = 0, snap = kMaxPacket;
    uint64_t reportInterval = 10000, reportsPerMessage = 1000;  // ms; 0: no periodic reports
    uint64_t ageIdle = 60000, ageClosed = 1000;                 // ms
    uint64_t flows = 1U << 20;
    std::string accessProfile, qosRule;
    std::string packetFault, reportFault;  // kinds of faults.h
    uint64_t packetFaultEvery = 0, reportFaultEvery = 0;
};

// Reads the command line.  -1: go on; else the exit status, after help or a message.
int parseCommandLine(int argc, char **argv, Settings &settings);

// Changes one of the settings that may change while packets flow, by its option's name.  False with a
// message.
bool changeSetting(const std::string &name, const std::string &value, Settings &settings, std::string &error);

}  // namespace dpimod
