#include "collect/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "common/arguments.h"

namespace fleet {
namespace {

constexpr char kUsage[] =
    R"(usage: korvid-collect [OPTION...] SPOOL
Loads the record files of many boxes, a folder each below SPOOL, into ClickHouse.

  --server URL           HTTP interface of a node (http://localhost:8123/)
  --database NAME        (korvid)
  --user NAME            and its password from the first line of a file:
  --password-file FILE
  --settle SECONDS       a file is whole when it has not changed for so long (10)
  --sweep SECONDS        between looks at the whole spool (60)
  --linger SECONDS       lines wait for others so long at most (5)
  --batch LINES          of one insertion (200000)
  --keep HOURS           loaded files stay so long; 0: they go at once (24)
  --oldest DAYS          older lines are not loaded; 0: no limit (400)
  --largest MEGABYTES    of a file; larger ones are set aside (64)
  --quarantine FOLDER    where lines go that cannot be read (SPOOL/.quarantine)
  --once                 load what is there, then end
  --dry-run              tell what would be loaded, and change nothing
Exit status: 0; 1 when --once or --dry-run left or quarantined something; 2 for a wrong command line.
)";

enum Option : int {
    kServer = 256,
    kDatabase,
    kUser,
    kPassword,
    kSettle,
    kSweep,
    kLinger,
    kBatch,
    kKeep,
    kOldest,
    kLargest,
    kQuarantine,
    kOnce,
    kDryRun,
    kHelp
};

constexpr option kOptions[] = {{"server", required_argument, nullptr, kServer},
                               {"database", required_argument, nullptr, kDatabase},
                               {"user", required_argument, nullptr, kUser},
                               {"password-file", required_argument, nullptr, kPassword},
                               {"settle", required_argument, nullptr, kSettle},
                               {"sweep", required_argument, nullptr, kSweep},
                               {"linger", required_argument, nullptr, kLinger},
                               {"batch", required_argument, nullptr, kBatch},
                               {"keep", required_argument, nullptr, kKeep},
                               {"oldest", required_argument, nullptr, kOldest},
                               {"largest", required_argument, nullptr, kLargest},
                               {"quarantine", required_argument, nullptr, kQuarantine},
                               {"once", no_argument, nullptr, kOnce},
                               {"dry-run", no_argument, nullptr, kDryRun},
                               {"help", no_argument, nullptr, kHelp},
                               {}};

// False: the value is none that the option takes.
bool take(int option, const char *value, Options &options) {
    constexpr int64_t kYear = 366LL * 86400;
    switch (option) {
        case kServer:
            options.server.url = value;
            return true;
        case kDatabase:
            options.server.database = value;
            return true;
        case kUser:
            options.server.user = value;
            return true;
        case kPassword:
            return readFirstLine(value, options.server.password);
        case kSettle:
            return readWithin(value, 0, kYear, options.settle);
        case kSweep:
            return readWithin(value, 1, kYear, options.sweep);
        case kLinger:
            return readWithin(value, 0, kYear, options.linger);
        case kBatch:
            return readWithin(value, 1, 10'000'000, options.batch);
        case kKeep:
            return readWithin(value, 0, 24 * 366, options.keep);
        case kOldest:
            return readWithin(value, 0, 100'000, options.oldest);
        case kLargest:
            if (!readWithin(value, 1, 4096, options.largest)) return false;
            options.largest <<= 20;
            return true;
        case kQuarantine:
            options.quarantine = value;
            return true;
        case kOnce:
            options.once = true;
            return true;
        case kDryRun:
            options.dryRun = true;
            return true;
        default:
            return false;
    }
}

}  // namespace

bool readOptions(int argc, char **argv, Options &options, int &status) {
    status = 2;
    int index = 0;
    for (int option = 0; (option = getopt_long(argc, argv, "h", kOptions, &index)) != -1;) {
        if (option == kHelp || option == 'h') {
            status = 0;
            (void)fputs(kUsage, stdout);
            return false;
        }
        if (option == '?') return false;
        if (!take(option, optarg, options)) {
            (void)fprintf(stderr, "korvid-collect: --%s: cannot take %s\n", kOptions[index].name, optarg);
            return false;
        }
    }
    if (optind + 1 != argc) {
        (void)fputs(kUsage, stderr);
        return false;
    }
    options.spool = argv[optind];
    if (options.quarantine.empty()) options.quarantine = options.spool + "/.quarantine";
    return true;
}

}  // namespace fleet
