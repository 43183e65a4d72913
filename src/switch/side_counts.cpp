#include "switch/side_counts.h"

#include "flows/kernel_side.h"

namespace am {

constinit SideCounts sideCounts{};

namespace {

constexpr char kModuleFits[] = "the kernel module and this daemon do not fit together: update the older one";

const SideCounter kCounters[] = {
    {"kernel.packets_malformed", &sideCounts.packetsMalformed, kModuleFits},
    {"kernel.verdicts_not_sent", &sideCounts.verdictsNotSent,
     "the kernel module does not take verdicts: see whether it is loaded, then disable and enable mirroring"},
    {"kernel.reports_incomplete", &sideCounts.reportsIncomplete, kModuleFits},
    {"kernel.report_overruns", &sideCounts.reportOverruns,
     "the daemon was held up while flows were reported: install kits and export records at quiet hours"},
};

}  // namespace

constinit const char *const kernelSideName = "switch";

std::span<const SideCounter> sideCounters() {
    return kCounters;
}

}  // namespace am
