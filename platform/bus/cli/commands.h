// Commands of the tool.  Each gives 0, a UBUS_STATUS number, or one of the negative results below; the
// process ends with its low eight bits.
#pragma once

#include "libubus.h"

namespace bus {

constexpr int kSetupFailed = -1;  // 255; the command has said why
constexpr int kUsage = -2;        // 254, and the usage text

struct Options {
    int timeoutSeconds;  // negative: not given
    bool simple;
    bool verbose;
    uint32_t monitorTypes;  // bit per UBUS_MSG number, 0 = all
    int monitorDirection;   // -1 = both, 0 = received by the broker, 1 = sent
};

struct Arguments {
    int count;
    char **values;
};

extern Options options;

int listCommand(ubus_context *ctx, const Arguments &args);
int callCommand(ubus_context *ctx, const Arguments &args);
int sendCommand(ubus_context *ctx, const Arguments &args);
int listenCommand(ubus_context *ctx, const Arguments &args);
int waitForCommand(ubus_context *ctx, const Arguments &args);
int monitorCommand(ubus_context *ctx, const Arguments &args);

// The number of a message type that -m may name; -1 for another text.
int messageTypeNumber(const char *name);

// Runs the loop until a signal, or until that many seconds have passed (0 or less: no limit).
void runLoop(ubus_context *ctx, int seconds);

}  // namespace bus
