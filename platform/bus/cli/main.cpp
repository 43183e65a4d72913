// ubus: command-line tool of the message bus.
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "commands.h"

namespace bus {

Options options = {-1, false, false, 0, -1};

}  // namespace bus

namespace {

struct Command {
    const char *name;
    int (*run)(ubus_context *ctx, const bus::Arguments &args);
};

constexpr Command kCommands[] = {
    {"list", bus::listCommand},     {"call", bus::callCommand},        {"send", bus::sendCommand},
    {"listen", bus::listenCommand}, {"wait_for", bus::waitForCommand}, {"monitor", bus::monitorCommand},
};

int usage(const char *program) {
    fprintf(stderr,
            "Usage: %s [<options>] <command> [arguments...]\n"
            "Options:\n"
            " -s <socket>:\t\tSet the unix domain socket to connect to\n"
            " -t <timeout>:\t\tSet the timeout (in seconds) for a command to complete\n"
            " -S:\t\t\tUse simplified output (for scripts)\n"
            " -v:\t\t\tMore verbose output\n"
            " -m <type>:\t\t(for monitor): include a specific message type\n"
            "\t\t\t(can be used more than once)\n"
            " -M <r|t>\t\t(for monitor): only capture received or transmitted traffic\n"
            "\n"
            "Commands:\n"
            " - list [<path>]\t\t\tList objects\n"
            " - call <path> <method> [<message>]\tCall an object method\n"
            " - listen [<path>...]\t\t\tListen for events\n"
            " - send <type> [<message>]\t\tSend an event\n"
            " - wait_for <object> [<object>...]\tWait for multiple objects to appear on ubus\n"
            " - monitor\t\t\t\tMonitor ubus traffic\n"
            "\n",
            program);
    return 1;
}

// False on a value that the option does not take.
bool readOption(int option, const char *value, const char **socketPath) {
    bus::Options &options = bus::options;
    switch (option) {
        case 's':
            *socketPath = value;
            return true;
        case 't':
            options.timeoutSeconds = static_cast<int>(strtol(value, nullptr, 10));
            return true;
        case 'S':
            options.simple = true;
            return true;
        case 'v':
            options.verbose = true;
            return true;
        case 'm': {
            const int type = bus::messageTypeNumber(value);
            if (type < 0) return false;
            options.monitorTypes |= 1U << type;
            return true;
        }
        case 'M':
            if (strcmp(value, "r") != 0 && strcmp(value, "t") != 0) return false;
            options.monitorDirection = *value == 't';
            return true;
        default:
            return false;
    }
}

int runCommand(ubus_context *ctx, const char *name, const bus::Arguments &args) {
    for (const Command &command : kCommands)
        if (strcmp(command.name, name) == 0) return command.run(ctx, args);
    return bus::kUsage;
}

}  // namespace

int main(int argc, char **argv) {
    const char *socketPath = nullptr;
    int option;
    while ((option = getopt(argc, argv, "m:M:s:t:vS")) != -1)
        if (!readOption(option, optarg, &socketPath)) return usage(argv[0]);
    if (optind >= argc) return usage(argv[0]);
    ubus_context *ctx = ubus_connect(socketPath);
    if (!ctx) {
        if (!bus::options.simple) fprintf(stderr, "Failed to connect to ubus\n");
        return 255;
    }
    const int result = runCommand(ctx, argv[optind], {argc - optind - 1, argv + optind + 1});
    if (result == bus::kUsage)
        usage(argv[0]);
    else if (result > 0 && !bus::options.simple)
        fprintf(stderr, "Command failed: %s\n", ubus_strerror(result));
    ubus_free(ctx);
    return result & 0xff;
}
