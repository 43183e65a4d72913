// The subcommands.  Each does what was typed and returns what the program ends with.
#pragma once
#include "ctl/command_line.h"

namespace ctl {

int statusCommand(const CommandLine &line);
int countersCommand(const CommandLine &line);
int explainCommand(const CommandLine &line);
int appsCommand(const CommandLine &line);
int groupsCommand(const CommandLine &line);
int flowsCommand(const CommandLine &line);
int topCommand(const CommandLine &line);
int metricsCommand(const CommandLine &line);
int enforceCommand(const CommandLine &line);
int monitorCommand(const CommandLine &line);
int groupCommand(const CommandLine &line);
int saveCommand(const CommandLine &line);
int enableCommand(const CommandLine &line);
int disableCommand(const CommandLine &line);
int exportCommand(const CommandLine &line);
int kitCommand(const CommandLine &line);
int configCommand(const CommandLine &line);

}  // namespace ctl
