#include "settings.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "faults.h"

namespace dpimod {
namespace {

// One option.  Exactly one of the targets is set.
struct Option {
    const char *name = nullptr, *argument = nullptr, *help = nullptr;
    std::string Settings::*text = nullptr;
    uint64_t Settings::*number = nullptr;
    bool Settings::*flag = nullptr;
    uint64_t Settings::*seconds = nullptr;  // given in seconds, fractions allowed; kept in milliseconds
    bool running = false;                   // may change while packets flow
};

using S = Settings;
const Option kOptions[] = {
    {.name = "socket",
     .argument = "PATH",
     .help = "where daemons connect (their KORVID_DPIMOD_SOCKET)",
     .text = &S::socket},
    {.name = "control",
     .argument = "PATH",
     .help = "Unix socket for commands, one a line, answers in JSON",
     .text = &S::control},
    {.name = "json",
     .argument = "FILE",
     .help = "one JSON line per event; '-' is standard output",
     .text = &S::json},
    {.name = "interface",
     .argument = "IFACE",
     .help = "mirror a live interface (also -i)",
     .text = &S::interface},
    {.name = "generate",
     .argument = "SETTINGS",
     .help = "make packets up: \"flows=N packets=M family=4|6|both proto=udp|tcp|both ports=80,443 "
             "payload=64 first=0 close=0|1\""},
    {.name = "rate",
     .argument = "N",
     .help = "packets a second; 0 (default) is as fast as the reader keeps up",
     .number = &S::rate,
     .running = true},
    {.name = "loop",
     .argument = "N",
     .help = "read the files N times, 0 for ever (default 1)",
     .number = &S::loops},
    {.name = "when-full",
     .argument = "wait|drop",
     .help = "when the ring or queue is full: wait for the reader (default for files and made-up packets "
             "without a rate) or drop, count and report the overrun, as the kernel does"},
    {.name = "ignore-mirror",
     .help = "send packets as soon as a socket is registered, mirroring on or not",
     .flag = &S::ignoreMirror},
    {.name = "exit-when-done",
     .help = "when the input has ended and was read: age all flows, report, exit",
     .flag = &S::exitWhenDone},
    {.name = "no-ring",
     .help = "refuse the receive ring, as current kernels do; packets are queued",
     .flag = &S::noRing},
    {.name = "quiet", .help = "no table at the end", .flag = &S::quiet},
    {.name = "queue-bytes",
     .argument = "N",
     .help = "size of a socket's queue (default 212992)",
     .number = &S::queueBytes},
    {.name = "batch",
     .argument = "N",
     .help = "up to N messages in one frame (default 1)",
     .number = &S::batch,
     .running = true},
    {.name = "copy-every",
     .argument = "N",
     .help = "every Nth packet as a COPY frame with a queued message",
     .number = &S::copyEvery,
     .running = true},
    {.name = "zero-every",
     .argument = "N",
     .help = "a frame of length 0 after every N packets",
     .number = &S::zeroEvery,
     .running = true},
    {.name = "snap", .argument = "N", .help = "cut packets to N bytes", .number = &S::snap, .running = true},
    {.name = "report-interval",
     .argument = "SECONDS",
     .help = "statistics reports of matched flows (default 10, 0: none)",
     .seconds = &S::reportInterval,
     .running = true},
    {.name = "reports-per-message",
     .argument = "N",
     .help = "at most N reports in a message (it never exceeds 4096 bytes)",
     .number = &S::reportsPerMessage,
     .running = true},
    {.name = "age-idle",
     .argument = "SECONDS",
     .help = "a flow without packets ages (default 60)",
     .seconds = &S::ageIdle,
     .running = true},
    {.name = "age-closed",
     .argument = "SECONDS",
     .help = "a TCP flow ages after FIN both ways or RST (default 1)",
     .seconds = &S::ageClosed,
     .running = true},
    {.name = "max-flows",
     .argument = "N",
     .help = "unclassified flows beyond N are not counted (default 1048576)",
     .number = &S::flows},
    {.name = "access-profile",
     .argument = "NAME",
     .help = "access profile name in the reports",
     .text = &S::accessProfile,
     .running = true},
    {.name = "qos-rule",
     .argument = "NAME",
     .help = "QoS policy rule name in the reports",
     .text = &S::qosRule,
     .running = true},
    {.name = "fault-packet", .argument = "KIND:N", .help = "a faulty packet message after every N packets"},
    {.name = "fault-report",
     .argument = "KIND:N",
     .help = "a faulty statistics message after every N messages"},
};

bool parseNumber(const std::string &text, uint64_t &value) {
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end;
}

bool parseSeconds(const std::string &text, uint64_t &milliseconds) {
    double value = 0;
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc() || result.ptr != end || !(value >= 0 && value < 1e9)) return false;
    milliseconds = static_cast<uint64_t>(std::llround(value * 1000));
    return true;
}

// "KIND:N"; an empty value switches it off.
bool parseFault(const std::string &value, const std::vector<std::string> &kinds, std::string &kind,
                uint64_t &every) {
    const size_t colon = value.find(':');
    every = 0;
    kind = value.substr(0, colon);
    if (value.empty()) return true;
    for (const std::string &known : kinds) {
        if (known != kind) continue;
        if (colon == std::string::npos) every = 1;
        return colon == std::string::npos || (parseNumber(value.substr(colon + 1), every) && every > 0);
    }
    return false;
}

bool parseWords(const std::string &text, std::vector<std::string> &words) {
    size_t at = 0;
    while ((at = text.find_first_not_of(' ', at)) != std::string::npos) {
        const size_t end = text.find(' ', at);
        words.push_back(text.substr(at, end - at));
        at = end == std::string::npos ? text.size() : end;
    }
    return true;
}

bool apply(const Option &option, const std::string &value, Settings &settings) {
    if (option.text) {
        settings.*option.text = value;
        return true;
    }
    if (option.number) return parseNumber(value, settings.*option.number);
    if (option.seconds) return parseSeconds(value, settings.*option.seconds);
    if (option.flag) {
        settings.*option.flag = true;
        return true;
    }
    const std::string name = option.name;
    if (name == "fault-packet")
        return parseFault(value, packetFaultKinds(), settings.packetFault, settings.packetFaultEvery);
    if (name == "fault-report")
        return parseFault(value, reportFaultKinds(), settings.reportFault, settings.reportFaultEvery);
    if (name == "when-full") {
        settings.whenFull = value == "wait" ? WhenFull::wait : WhenFull::drop;
        return value == "wait" || value == "drop";
    }
    settings.generated = true;  // generate
    return parseWords(value, settings.generate);
}

const Option *findOption(const std::string &name) {
    for (const Option &option : kOptions)
        if (name == option.name) return &option;
    return nullptr;
}

void help() {
    std::printf(
        "Usage: dpimod [options] [FILE.pcap ...]\n"
        "       dpimod --ask CONTROL-SOCKET COMMAND...\n"
        "The DPI kernel module in user space: mirrors the packets of files, an interface or a generator to "
        "a\n"
        "daemon that runs with LD_PRELOAD=libnetlink26.so, takes its verdicts and reports statistics.\n\n");
    for (const Option &option : kOptions) {
        const std::string left = std::string("--") + option.name + (option.argument ? " " : "") +
                                 (option.argument ? option.argument : "");
        std::printf("  %-26s %s\n", left.c_str(), option.help);
    }
    std::printf("\nFaulty packets:");
    for (const std::string &kind : packetFaultKinds()) std::printf(" %s", kind.c_str());
    std::printf("\nFaulty reports:");
    for (const std::string &kind : reportFaultKinds()) std::printf(" %s", kind.c_str());
    std::printf("\n");
}

bool sensible(Settings &settings, std::string &error) {
    if (settings.batch == 0) settings.batch = 1;
    if (settings.reportsPerMessage == 0) settings.reportsPerMessage = 1;
    if (settings.snap == 0 || settings.snap > kMaxPacket) settings.snap = kMaxPacket;
    if (settings.queueBytes < 4096 || settings.queueBytes > (1U << 30)) error = "queue-bytes out of range";
    if (settings.accessProfile.size() > 1000 || settings.qosRule.size() > 1000) error = "name too long";
    return error.empty();
}

}  // namespace

int parseCommandLine(int argc, char **argv, Settings &settings) {
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--help" || word == "-h") {
            help();
            return 0;
        }
        if (word == "-i") word = "--interface";
        if (word.size() < 3 || word.compare(0, 2, "--") != 0) {
            settings.files.push_back(word);
            continue;
        }
        const size_t equals = word.find('=');
        const Option *option = findOption(word.substr(2, equals == std::string::npos ? equals : equals - 2));
        std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
        if (option && !option->flag && equals == std::string::npos) {
            if (++i == argc) {
                std::fprintf(stderr, "dpimod: %s needs a value\n", word.c_str());
                return 2;
            }
            value = argv[i];
        }
        if (!option || !apply(*option, value, settings)) {
            std::fprintf(stderr, "dpimod: %s %s: not understood (see --help)\n", word.c_str(), value.c_str());
            return 2;
        }
    }
    std::string error;
    if (!sensible(settings, error)) {
        std::fprintf(stderr, "dpimod: %s\n", error.c_str());
        return 2;
    }
    if (!settings.files.empty() + !settings.interface.empty() + settings.generated > 1) {
        std::fprintf(stderr, "dpimod: files, an interface or --generate: one of them at a time\n");
        return 2;
    }
    return -1;
}

bool changeSetting(const std::string &name, const std::string &value, Settings &settings,
                   std::string &error) {
    const Option *option = findOption(name);
    const bool fault = name == "fault-packet" || name == "fault-report";
    if (!option || !(option->running || fault)) {
        error = "no setting '" + name + "' that can change now";
        return false;
    }
    Settings changed = settings;
    if (!apply(*option, value, changed)) error = "bad value '" + value + "'";
    if (!error.empty() || !sensible(changed, error)) return false;
    settings = changed;
    return true;
}

}  // namespace dpimod
