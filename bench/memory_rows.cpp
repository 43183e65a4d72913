// What a flow record takes from the system.
#include <unistd.h>

#include <cstdio>

#include "rows.h"
#include "world.h"

namespace bench {
namespace {

constexpr size_t kFlows = 100'000;

double residentBytes() {
    unsigned long size = 0;
    unsigned long resident = 0;
    FILE *file = fopen("/proc/self/statm", "r");
    if (!file) return 0;
    if (fscanf(file, "%lu %lu", &size, &resident) != 2) resident = 0;
    (void)fclose(file);
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double recordBytes(capture_flow_info (*fresh)(uint32_t), int (*record)(const capture_flow_info *)) {
    amCleanAllEnfFlowDb();
    amCleanAllEnfFlowDb6();
    const double before = residentBytes();
    for (size_t i = 0; i < kFlows; i++) {
        const capture_flow_info info = fresh(kEnforcedApp);
        (void)record(&info);
    }
    return (residentBytes() - before) / static_cast<double>(kFlows);
}

}  // namespace

void addMemoryRows(Table &table) {
    // 64 bytes and a chunk's header: one part in a thousand.
    table.add(Figure{.what = "memory of an IPv4 flow record",
                     .unit = "B",
                     .limits = {.goal = 64, .gate = 64.5},
                     .measure = [] { return recordBytes(freshFlow, amUpdateEnfFlowDb); },
                     .rounds = 3});
    table.add(Figure{.what = "memory of an IPv6 flow record",
                     .unit = "B",
                     .limits = {.goal = 96},
                     .measure = [] { return recordBytes(freshFlow6, amUpdateEnfFlowDb6); },
                     .rounds = 3});
}

}  // namespace bench
