// Whether the kernel mirrors packets to the daemon: the administrative state.
#pragma once
#include <atomic>
#include <cstdint>

#include "appmodel/app_pool.h"

// 1 = mirroring enabled.  Written by amNetLinkMirrorState only, under amModelLock; relaxed reads elsewhere.
extern std::atomic<int> amAdminState;

namespace am {
extern int64_t mirroringSince;  // seconds since the epoch: the last change of the state; 0 before the first
}

// Switches the kernel's mirroring: 1 on, any other value off; nothing when that is the state already.
// Switching off empties both enforcement flow trees, for good: no verdict is in progress by then.  Event-loop
// thread.
void amNetLinkMirrorState(int state) EXCLUDES(amModelLock);
