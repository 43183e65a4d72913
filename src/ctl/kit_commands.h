// What is done with kits without the daemon.
#pragma once
#include "ctl/command_line.h"

namespace ctl {

int offlineKitCommand(const CommandLine &line);  // kit check, kit keys

// Puts a kit and the signature beside it where the daemon looks for them.  False: told on standard error.
bool bringKit(const char *file);

}  // namespace ctl
