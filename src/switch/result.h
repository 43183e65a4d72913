// The engine's verdicts: the per-flow callback, and the result messages that it sends to the kernel.
//
// Threads: the callback runs on whatever thread the engine calls it from, mostly the capture thread, also on
// the event-loop thread from the engine's exit entry.  It holds amModelLock shared for its whole run.
#pragma once
#include <libmnl/libmnl.h>

#include <cstddef>

#include "appmodel/app_pool.h"
#include "flows/flow_info.h"

// One result message for every flow of a known family and an id in range while mirroring is on; a record in
// the enforcement flow database, a monitoring entry and a count where the application's lists say so.  Always
// 0. Exported for engines that look the function up rather than the pointer capture_flow_func.
extern "C" __attribute__((visibility("default"))) int am_capture_flow_func(const capture_flow_info *info)
    EXCLUDES(amModelLock);

// Sends the result message and, with a match, records the flow, whether or not the send succeeded.  Always 1.
// Called by the callback, which has checked the id.
int amSendResultMessage(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock);
int amSendResultMessage6(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock);

namespace am {

inline constexpr size_t kResultSize = 256;  // bytes: no result message is longer

// Build the message in a zero-filled, aligned buffer of kResultSize bytes.  `app` is looked at with a match
// only; names that are absent are sent empty.
const nlmsghdr *buildResultMessage(void *buffer, const capture_flow_info &info, unsigned match,
                                   const AmActiveApp *app) REQUIRES_SHARED(amModelLock);
const nlmsghdr *buildResultMessage6(void *buffer, const capture_flow_info &info, unsigned match,
                                    const AmActiveApp *app) REQUIRES_SHARED(amModelLock);

}  // namespace am
