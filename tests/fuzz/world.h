// What the daemon's parsers act on, the same for every target: seven applications and no group, a log that is
// written at every level and kept nowhere, and an outside that refuses: netlink messages go nowhere,
// transfers and shell commands fail.
#pragma once

namespace fuzz {

// Once, from LLVMFuzzerInitialize.
void makeWorld();

// After each input: lists and groups empty, enforcement flows gone, queues empty, mirroring off.
void resetModel();

}  // namespace fuzz
