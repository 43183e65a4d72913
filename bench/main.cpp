// The cost table: what the daemon's paths cost beside the least that does the same job.  Runs in
// tools/sandbox, since it writes /flash and /var/log.  Ends with status 1 when a gate is missed.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "rows.h"
#include "world.h"

namespace {

constexpr unsigned kRounds = 31;

[[noreturn]] void usage() {
    printf(
        "usage: korvid-bench [--only TEXT] [--rounds N]\n"
        "       korvid-bench --once NAME | --curves\n"
        "  --only TEXT   the rows that have TEXT in their name\n"
        "  --rounds N    rounds to measure (31), and as many again where the quartiles lie far apart\n"
        "  --once NAME   one stretch of that row, for counting instructions (bench/gate.py)\n"
        "  --curves      growth with flows, applications, groups and sizes, for tools/plot-curves\n");
    exit(2);
}

}  // namespace

int main(int argc, char **argv) {
    const char *only = "";
    const char *once = nullptr;
    bool curves = false;
    unsigned rounds = kRounds;
    for (int i = 1; i < argc; i++) {
        const bool more = i + 1 < argc;
        if (strcmp(argv[i], "--only") == 0 && more)
            only = argv[++i];
        else if (strcmp(argv[i], "--once") == 0 && more)
            once = argv[++i];
        else if (strcmp(argv[i], "--curves") == 0)
            curves = true;
        else if (strcmp(argv[i], "--rounds") == 0 && more && atoi(argv[i + 1]) > 0)
            rounds = static_cast<unsigned>(atoi(argv[++i]));
        else
            usage();
    }

    bench::makeWorld();
    if (curves) return bench::printCurves();
    bench::Table table;
    bench::addCaptureRows(table);
    bench::addVerdictRows(table);
    bench::addTreeRows(table);
    bench::addReportRows(table);
    bench::addRecordRows(table);
    bench::addLogRows(table);
    bench::addMemoryRows(table);
    bench::addWaitRows(table);
    if (once) {
        const size_t operations = table.once(once);
        printf("operations %zu\n", operations);
        return operations != 0 ? 0 : 2;
    }
    table.keepOnly(only);
    return table.run(rounds) == 0 ? 0 : 1;
}
