// What the command line of korvid-collect says; its manual page explains it.
#pragma once
#include <cstdint>
#include <string>

#include "common/clickhouse.h"

namespace fleet {

struct Options {
    Server server;
    std::string spool;
    std::string quarantine;             // folder
    int settle = 10;                    // seconds for which a file must not have changed
    int sweep = 60;                     // seconds between looks at the whole spool
    int linger = 5;                     // seconds that lines wait for others at most
    size_t batch = 200'000;             // lines of one insertion
    int keep = 24;                      // hours for which loaded files stay
    int oldest = 400;                   // days; older lines are not loaded.  0: no limit
    size_t largest = size_t{64} << 20;  // bytes of a file
    bool once = false;
    bool dryRun = false;
};

// False: the program is to end with `status`, and the user has been told why.
[[nodiscard]] bool readOptions(int argc, char **argv, Options &options, int &status);

}  // namespace fleet
