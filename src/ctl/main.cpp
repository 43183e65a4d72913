// korvidctl: what operators ask the daemon, and tell it.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "ctl/client.h"
#include "ctl/commands.h"
#include "ctl/screen.h"

namespace {

struct Command {
    const char *name;
    int (*run)(const ctl::CommandLine &line);
    const char *what;
    bool offline = false;  // some of it works without the daemon, and connects by itself
};

constexpr Command kCommands[] = {
    {"status", ctl::statusCommand, "health, kernel, kit, configuration, records"},
    {"top", ctl::topCommand, "what is on the network now (-1: once)"},
    {"apps", ctl::appsCommand,
     "applications [NAME] [--list all|enforced|monitored|none|seen] [--sort flows|recent|name]"},
    {"groups", ctl::groupsCommand, "groups, or the members of GROUP"},
    {"flows", ctl::flowsCommand, "live enforced flows [--application NAME] [--address ADDRESS]"},
    {"explain", ctl::explainCommand, "why: APPLICATION, or tcp|udp|NUMBER SOURCE PORT DESTINATION PORT"},
    {"counters", ctl::countersCommand, "every packet, verdict, report and record, and what cures losses"},
    {"enforce", ctl::enforceCommand, "add|remove|set [--group GROUP]... [APPLICATION]..."},
    {"monitor", ctl::monitorCommand, "add|remove|set [--group GROUP]... [APPLICATION]..."},
    {"group", ctl::groupCommand, "add|remove GROUP APPLICATION..., delete GROUP"},
    {"save", ctl::saveCommand, "writes the configuration file"},
    {"enable", ctl::enableCommand, "switches mirroring on"},
    {"disable", ctl::disableCommand, "switches mirroring off"},
    {"kit", ctl::kitCommand, "check FILE [--key FILE], install FILE, keys", true},
    {"config", ctl::configCommand, "check FILE [--kit FILE]", true},
    {"metrics", ctl::metricsCommand, "text for Prometheus and its node exporter"},
    {"export", ctl::exportCommand, "enforcement|monitoring --url FOLDER [--user USER --password-file FILE]"},
};

int usage() {
    fprintf(
        stderr,
        "usage: korvidctl [-s SOCKET] [--json] [--save] [--color|--no-color] [--limit N|--all] COMMAND\n\n");
    for (const Command &command : kCommands) fprintf(stderr, "  %-9s %s\n", command.name, command.what);
    return ctl::kUsage;
}

bool needsDaemon(const Command &command, const ctl::CommandLine &line) {
    return !command.offline || strcmp(line.word(1), "install") == 0;
}

}  // namespace

int main(int argc, char **argv) {
    static ctl::CommandLine line;
    if (!ctl::readCommandLine(argc, argv, line) || line.wordCount == 0) return usage();
    ctl::chooseColour(line.colour);
    for (const Command &command : kCommands) {
        if (strcmp(command.name, line.word(0)) != 0) continue;
        if (needsDaemon(command, line)) ctl::connectBus(line.socket);
        const int result = command.run(line);
        ctl::disconnectBus();
        return fflush(stdout) == 0 ? result : ctl::kFailed;
    }
    fprintf(stderr, "korvidctl: no command '%s'\n", line.word(0));
    return usage();
}
