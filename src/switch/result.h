// DPI_MSG_RESULT: what the kernel is told of a classified flow.  Sent by amSendResultMessage[6] of
// flows/kernel_side.h, on the engine's threads.
#pragma once
#include <libmnl/libmnl.h>

#include <cstddef>

#include "appmodel/app_pool.h"
#include "flows/flow_info.h"

namespace am {

inline constexpr size_t kResultSize = 256;  // bytes: no result message is longer

// Build the message in a zero-filled, aligned buffer of kResultSize bytes.  `app` is looked at with a match
// only; names that are absent are sent empty.
const nlmsghdr *buildResultMessage(void *buffer, const capture_flow_info &info, unsigned match,
                                   const AmActiveApp *app) REQUIRES_SHARED(amModelLock);
const nlmsghdr *buildResultMessage6(void *buffer, const capture_flow_info &info, unsigned match,
                                    const AmActiveApp *app) REQUIRES_SHARED(amModelLock);

}  // namespace am
