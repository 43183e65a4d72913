// The libraries of an unpacked kit, read as files (elf(5)): nothing of them runs.
#pragma once
#include "ctl/findings.h"

namespace ctl {

// Architecture, the entries that the daemon calls, needed libraries, and symbols that nobody offers.
void checkEngine(const char *folder, Findings &findings);

}  // namespace ctl
