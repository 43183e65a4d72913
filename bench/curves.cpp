// How costs grow.  Nanoseconds of processor time per operation: to be compared along a curve, not between
// machines.
#include <cstdio>
#include <string>

#include "appmodel/app_lists.h"
#include "flows/kernel_side.h"
#include "kit/engine.h"
#include "records/verdict.h"
#include "ring_world.h"
#include "rows.h"
#include "switch/reception.h"
#include "switch/sockets.h"
#include "world.h"

namespace bench {
namespace {

constexpr int kRepeats = 5;

void point(const char *curve, size_t size, const Loop &loop) {
    std::vector<double> values;
    for (int i = 0; i < kRepeats; i++) values.push_back(nanosecondsEach(loop, 1e6));
    printf("%s %zu %.1f\n", curve, size, quartilesOf(values).median);
    (void)fflush(stdout);
}

void flows() {
    static capture_flow_info fresh[128];
    for (const size_t count : {1'000U, 3'000U, 10'000U, 30'000U, 100'000U, 300'000U, 1'000'000U}) {
        const auto prepare = [count] {
            drainControl();
            holdFlows(count);
            for (capture_flow_info &info : fresh) info = freshFlow(kEnforcedApp);
        };
        point("verdict", count, {prepare, [] {
                                     for (const auto &info : fresh) keep(am_capture_flow_func(&info));
                                     return std::size(fresh);
                                 }});
        point("search", count, {prepare, [] {
                                    const AmGuard guard(amEnfFlowLock);
                                    for (size_t i = 0; i < 512; i++)
                                        keep(amSearchEnfFlowDb(&heldKeys()[anyNumber() % heldKeys().size()]));
                                    return size_t{512};
                                }});
        point("sweep", count,
              {[count] { holdFlows(count); },
               [count] {
                   amCleanAgedEnfFlowDb();
                   return count;
               }});
    }
    amCleanAllEnfFlowDb();
}

void applications() {
    for (const uint32_t count : {10U, 100U, 1'000U, 10'000U, 65'536U}) {
        installApplications(count);
        static std::string names[256];
        point("find application", count,
              {[count] {
                   for (auto &name : names)
                       name = applicationName(static_cast<uint32_t>(anyNumber() % count));
               },
               [] {
                   for (const auto &name : names) keep(amIsAppNameValid(name.c_str()));
                   return std::size(names);
               }});
        point("put on a list", count,
              {[] { (void)amClearAppEnfList(); },
               [] {
                   for (const auto &name : names)
                       keep(amAddAppToAppList(name.c_str(), nullptr, AM_LIST_ENFORCEMENT));
                   return std::size(names);
               }});
        point("clear a list", count, {nullptr, [count] {
                                          (void)amClearAppEnfList();
                                          return size_t{count};
                                      }});
    }
}

void groups() {
    installApplications(kApps);
    uint32_t made = 0;
    for (const uint32_t count : {1U, 10U, 100U, 1'000U, 10'000U}) {
        for (; made < count; made++)
            (void)amAddAppToGrp(("group-" + std::to_string(made)).c_str(),
                                applicationName(made % kApps).c_str());
        static std::string names[256];
        point("find group", count,
              {[count] {
                   for (auto &name : names) name = "group-" + std::to_string(anyNumber() % count);
               },
               [] {
                   for (const auto &name : names) keep(amFindGrpNode(&amAppGrpTree, name.c_str()));
                   return std::size(names);
               }});
        point("group on a list", count, {nullptr, [] {
                                             for (const auto &name : names)
                                                 keep(amAddGrpToAppList(name.c_str(), AM_LIST_ENFORCEMENT));
                                             return std::size(names);
                                         }});
    }
}

void packets() {
    mapRing();
    {
        const AmGuard gate(amEngineGate);
        process_pktptr = [](const capture_pkt *pkt, const timeval *) { keep(pkt); };
    }
    for (const size_t length : {40U, 64U, 256U, 576U, 1'500U, 2'500U, 3'900U})
        point("packet", length,
              {[length] {
                   if (ringLength() != length) writeRing(length, kFrames);
                   offerRing();
               },
               [] {
                   amEngineEnter();
                   keep(am::drainPackets());
                   amEngineLeave();
                   return size_t{kFrames};
               }});
}

void reports() {
    for (const unsigned count : {1U, 2U, 5U, 10U, 20U, 30U}) point("report", count, reportLoop(count));
}

}  // namespace

int printCurves() {
    printf("# curve size nanoseconds\n");
    packets();
    reports();
    flows();
    groups();
    applications();
    return 0;
}

}  // namespace bench
