// korvid-report: a page of record files, or of what has been collected of many boxes.
#include <getopt.h>

#include <cstdio>
#include <ctime>

#include "common/arguments.h"
#include "report/page.h"
#include "report/sources.h"

namespace {

constexpr char kUsage[] =
    R"(usage: korvid-report [OPTION...] FOLDER        of the record files in FOLDER, and of boxes in folders below it
       korvid-report [OPTION...] --server URL    of what korvid-collect has loaded
Writes one HTML file that needs nothing else.

  -o, --output FILE      (korvid-report.html; - for standard output)
  --period LENGTH        such as 90m, 24h, 7d (24h)
  --to TIME              end of the period, seconds since the epoch (the newest record)
  --site NAME            only boxes whose folders lie in this one
  --box NAME             whose files lie in FOLDER itself (this host's name)
  --database NAME        (korvid)
  --user NAME            and its password from the first line of a file:
  --password-file FILE
)";

enum Option : int { kServer = 256, kDatabase, kUser, kPassword, kPeriod, kTo, kSite, kBox };

constexpr option kOptions[] = {{"server", required_argument, nullptr, kServer},
                               {"database", required_argument, nullptr, kDatabase},
                               {"user", required_argument, nullptr, kUser},
                               {"password-file", required_argument, nullptr, kPassword},
                               {"period", required_argument, nullptr, kPeriod},
                               {"to", required_argument, nullptr, kTo},
                               {"site", required_argument, nullptr, kSite},
                               {"box", required_argument, nullptr, kBox},
                               {"output", required_argument, nullptr, 'o'},
                               {"help", no_argument, nullptr, 'h'},
                               {}};

struct Arguments {
    fleet::Server server;
    fleet::Wanted wanted;
    std::string output = "korvid-report.html";
    std::string folder;  // empty: the server
    bool asksServer = false;
};

bool readLength(const std::string &text, int64_t &seconds) {
    const size_t unit = std::string("smhd").find(text.empty() ? '?' : text.back());
    if (unit == std::string::npos) return false;
    constexpr int64_t kSeconds[] = {1, 60, 3600, 86400}, kLongest = 3660LL * 86400;
    if (!fleet::readWithin(text.substr(0, text.size() - 1).c_str(), 1, kLongest, seconds)) return false;
    seconds *= kSeconds[unit];
    return seconds >= 60 && seconds <= kLongest;
}

bool take(int option, const char *value, Arguments &out) {
    switch (option) {
        case kServer:
            out.asksServer = true;
            out.server.url = value;
            return true;
        case kDatabase:
            out.server.database = value;
            return true;
        case kUser:
            out.server.user = value;
            return true;
        case kPassword:
            return fleet::readFirstLine(value, out.server.password);
        case kPeriod:
            return readLength(value, out.wanted.seconds);
        case kTo:
            return fleet::readWithin(value, 1, UINT32_MAX, out.wanted.to);
        case kSite:
            out.wanted.site = value;
            // As a shell completes a folder's name.
            out.wanted.site.erase(out.wanted.site.find_last_not_of('/') + 1);
            return true;
        case kBox:
            out.wanted.box = value;
            return true;
        case 'o':
            out.output = value;
            return true;
        default:
            return false;
    }
}

// The exit status that the program is to end with, or -1.
int readArguments(int argc, char **argv, Arguments &out) {
    for (int option = 0; (option = getopt_long(argc, argv, "o:h", kOptions, nullptr)) != -1;) {
        if (option == 'h') {
            (void)fputs(kUsage, stdout);
            return 0;
        }
        if (option == '?') return 2;
        if (!take(option, optarg, out)) {
            (void)fprintf(stderr, "korvid-report: cannot take %s\n", optarg);
            return 2;
        }
    }
    if (argc - optind != (out.asksServer ? 0 : 1)) {
        (void)fputs(kUsage, stderr);
        return 2;
    }
    if (!out.asksServer) out.folder = argv[optind];
    return -1;
}

bool writeFile(const std::string &path, const std::string &text) {
    FILE *const file = path == "-" ? stdout : fopen(path.c_str(), "we");
    if (!file) return false;
    const bool written = fwrite(text.data(), 1, text.size(), file) == text.size();
    return fclose(file) == 0 && written;
}

}  // namespace

int main(int argc, char **argv) {
    Arguments arguments;
    if (const int status = readArguments(argc, argv, arguments); status >= 0) return status;
    fleet::Facts facts;
    std::string error;
    const bool good = arguments.asksServer
                          ? fleet::factsFromClickHouse(arguments.server, arguments.wanted, facts, error)
                          : fleet::factsFromFolder(arguments.folder, arguments.wanted, facts, error);
    if (!good) {
        (void)fprintf(stderr, "korvid-report: %s\n", error.c_str());
        return 1;
    }
    facts.fit();
    if (writeFile(arguments.output, fleet::pageOf(fleet::toJson(facts, time(nullptr))))) return 0;
    perror(("korvid-report: " + arguments.output).c_str());
    return 1;
}
