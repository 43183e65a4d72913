// What the scripted engine answers: an application id for the destination port (or IP protocol) of a flow's
// first packet.  Without a rule file, port 10000 + N means application N and other ports are not reported.
//
// The file is read when the engine starts, one rule a line, '#' begins a comment:
//   port 443 91       application of a destination port
//   proto 1 81        application of an IP protocol, for flows whose port says nothing
//   default 0         application of all other flows; "default none": not reported
//   state 5           flow_state of every report
//   report packet     a report for every packet, not one for each flow ("report flow")
//   flows 2000000     flows remembered at most
#pragma once

#include <cstddef>
#include <cstdint>

namespace engine {

struct Tuple;

constexpr uint32_t kNotReported = UINT32_MAX;

struct Rules {
    uint32_t port[65536], proto[256], other;  // application ids, or kNotReported
    uint32_t flowState;
    bool everyPacket;
    size_t maxFlows;
};

// The rules that hold without a file; ports count from 10000 to idBase, idBase + 1, ...
void defaultRules(Rules &rules, uint32_t idBase);

// Applies a file's rules on top.  A missing file changes nothing; a line that cannot be read is named on
// standard error and skipped.
void readRules(Rules &rules, const char *path);

[[nodiscard]] uint32_t applicationOf(const Rules &rules, const Tuple &tuple);

}  // namespace engine
