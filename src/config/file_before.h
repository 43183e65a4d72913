// The safety net under a save: a daemon that was restarted while mirroring was disabled has applied nothing
// of its file, and the next save would leave an administrator's groups and lists out of it.  Event-loop
// thread.
#pragma once
#include <cstdint>

#include <cjson/cJSON.h>

#include "core/handle.h"

inline constexpr char kConfigBeforePath[] = "/var/config/dpi.conf.old";

namespace am {

// What the last save that left something out left out; empty if none of this process did.
extern char configDropped[96];

// The content of a regular file, with a zero behind it; null without one, or for one of an absurd size, which
// is logged.
CText readConfigFile(const char *path);

// Keeps the file as kConfigBeforePath where one of its groups, or a list that holds something, would be
// missing in the new configuration, or where it cannot be read as one.
void keepConfigBefore(const cJSON *newConfig);

}  // namespace am
