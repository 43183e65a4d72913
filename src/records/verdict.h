// The engine's verdicts: the callback that engines report every classified flow to.
//
// Threads: it runs on whatever thread the engine calls it from, mostly the capture thread, also on the
// event-loop thread from the engine's exit entry.  It holds amModelLock shared for its whole run.
#pragma once
#include "appmodel/app_pool.h"

struct capture_flow_info;

// One result message for every flow of a known family and an id in range while mirroring is on; a record in
// the enforcement flow database, a monitoring entry and a count where the application's lists say so.  Always
// 0. Exported for engines that look the function up rather than the pointer capture_flow_func.
extern "C" __attribute__((visibility("default"))) int am_capture_flow_func(const capture_flow_info *info)
    EXCLUDES(amModelLock);
