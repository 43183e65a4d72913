// The daemon's side towards the kernel: where verdicts go.
#pragma once
#include "appmodel/app_pool.h"

struct capture_flow_info;

// Sends the result message and, with a match, records the flow, whether or not the send succeeded.  Always 1.
// Called by the callback, which has checked the id.
int amSendResultMessage(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock);
int amSendResultMessage6(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock);
