// Keeps what the kernel holds in step with the lists, the groups and the kit: the policy's sets, and the
// marks of connections that were classified before their application came onto the enforcement list.
//
// A set holds the marks of applications that are on the enforcement list now, while mirroring is on; so a
// rule stops matching the moment that an application is taken off the list, for running connections, too.
//
// Threads: the event-loop thread.
#pragma once

namespace am {

int openPolicy();  // 0, or a negative error number; with the loop set up
void closePolicy();
void abandonPolicy();  // descriptors only, for a process that ends at once

// Fills the sets by what is so at this moment.  False: they hold what they held before.
[[nodiscard]] bool fillPolicy();

}  // namespace am
