#include "ctl/command_line.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

namespace ctl {

namespace {

enum LongOption {
    kJson = 256,
    kSave,
    kAll,
    kColour,
    kNoColour,
    kList,
    kSort,
    kName,
    kApplication,
    kAddress,
    kGroup,
    kUrl,
    kUser,
    kPasswordFile,
    kKey,
    kKit
};

constexpr option kOptions[] = {
    {"json", no_argument, nullptr, kJson},
    {"save", no_argument, nullptr, kSave},
    {"all", no_argument, nullptr, kAll},
    {"color", no_argument, nullptr, kColour},
    {"no-color", no_argument, nullptr, kNoColour},
    {"limit", required_argument, nullptr, 'n'},
    {"delay", required_argument, nullptr, 'd'},
    {"list", required_argument, nullptr, kList},
    {"sort", required_argument, nullptr, kSort},
    {"name", required_argument, nullptr, kName},
    {"application", required_argument, nullptr, kApplication},
    {"address", required_argument, nullptr, kAddress},
    {"group", required_argument, nullptr, kGroup},
    {"url", required_argument, nullptr, kUrl},
    {"user", required_argument, nullptr, kUser},
    {"password-file", required_argument, nullptr, kPasswordFile},
    {"key", required_argument, nullptr, kKey},
    {"kit", required_argument, nullptr, kKit},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

bool readNumber(const char *text, uint32_t &number) {
    char *end = nullptr;
    const unsigned long value = strtoul(text, &end, 10);
    if (end == text || *end != '\0' || *text == '-' || value == 0 || value > 1'000'000) {
        fprintf(stderr, "korvidctl: '%s' is no number from 1 to 1000000\n", text);
        return false;
    }
    number = static_cast<uint32_t>(value);
    return true;
}

bool addGroup(CommandLine &line, const char *name) {
    if (line.groupCount == kMostWords) return false;
    line.groups[line.groupCount++] = name;
    return true;
}

bool take(int which, const char *value, CommandLine &line) {
    switch (which) {
        case 's':
            line.socket = value;
            return true;
        case '1':
            line.once = true;
            return true;
        case 'n':
            return readNumber(value, line.limit);
        case 'd':
            return readNumber(value, line.delay);
        case kJson:
            line.json = true;
            return true;
        case kSave:
            line.save = true;
            return true;
        case kAll:
            line.all = true;
            return true;
        case kColour:
            line.colour = 1;
            return true;
        case kNoColour:
            line.colour = 0;
            return true;
        case kList:
            line.list = value;
            return true;
        case kSort:
            line.sort = value;
            return true;
        case kName:
            line.name = value;
            return true;
        case kApplication:
            line.application = value;
            return true;
        case kAddress:
            line.address = value;
            return true;
        case kGroup:
            return addGroup(line, value);
        case kUrl:
            line.url = value;
            return true;
        case kUser:
            line.user = value;
            return true;
        case kPasswordFile:
            line.passwordFile = value;
            return true;
        case kKey:
            line.key = value;
            return true;
        case kKit:
            line.kit = value;
            return true;
        default:
            return false;
    }
}

}  // namespace

bool readCommandLine(int argc, char **argv, CommandLine &line) {
    for (int which; (which = getopt_long(argc, argv, "s:1n:d:h", kOptions, nullptr)) != -1;)
        if (!take(which, optarg, line)) return false;
    for (; optind < argc; optind++) {
        if (line.wordCount == kMostWords) {
            fprintf(stderr, "korvidctl: more than %zu words\n", kMostWords);
            return false;
        }
        line.words[line.wordCount++] = argv[optind];
    }
    return true;
}

}  // namespace ctl
