// The daemon's side towards the kernel: where packets come from, verdicts go to and flows' counters
// come from.  An executable is linked with one implementation: src/switch for korvid, src/netfilter for
// korvid-netfilter.
//
//   closed --amCreateNetLinkSockets--> open, mirroring or not --amCloseNetLinkSockets--> closed
//                                       |--withdrawFromKernel--> silent, the process ends at once
//                                       '--abandonKernelSide--> the process ends at once
//
// What it tells the daemon: packets by am::handPacket (flows/capture.h), counters by am::reportFlow4 and 6
// (flows/flow_report.h).  What it is told besides: that a kit gives numbers other meanings
// (kit/renumbering.h).
#pragma once
#include <atomic>
#include <cstdint>
#include <span>

#include "appmodel/app_pool.h"
#include "kit/engine.h"

struct capture_flow_info;

// Messages with flows' counters that were read.  Written by the implementation, on the event-loop thread.
extern std::atomic<uint64_t> amStatsCounter;

// Opens what it needs, registers with the event loop, takes SIGINT over, and mirrors at once if amAdminState
// says so.  Ends the process with status 1 where the daemon can do nothing without.  Event-loop thread.
void amCreateNetLinkSockets();

// Closes everything.  The capture thread must have ended; a verdict in progress on another of the engine's
// threads is waited for.  Event-loop thread.
void amCloseNetLinkSockets() EXCLUDES(amModelLock);

namespace am {

// One of this side's own counters, from the start of the process on.
struct SideCounter {
    const char *name;  // "kernel.", then what is counted
    const std::atomic<uint64_t> *value;
    const char *cure;  // of a loss: what helps, in one sentence; null for anything else
};
std::span<const SideCounter> sideCounters();  // any thread

extern const char *const kernelSideName;  // "switch" or "netfilter"

// Options of the command line, for getopt(3): the daemon's own, then this side's, which are taken one by one
// before anything else is called.  A value that makes no sense ends the process with status 1 and says so.
extern const char *const commandLineOptions;
void takeOption(int option, const char *value);

// Has the kernel mirror packets, or stop.  Nothing once the kernel side was withdrawn.  Event-loop thread; no
// verdict is in progress that saw another state.
void setMirroring(bool on) EXCLUDES(amEngineGate, amModelLock);

// What the capture thread waits on, the same for the life of the process.
int packetDescriptor();

enum class Drained {
    empty,    // nothing left: wait for the descriptor
    waiting,  // a packet that has not come yet, though poll calls the descriptor readable: wait a moment
    halted,   // the capture thread has been asked to end
};

// Hands on what packets there are until there are no more, the capture thread has been asked to end, or a
// packet is not complete yet.  Lets the event-loop thread take the gate between packets.  Capture thread.
Drained drainPackets() REQUIRES(amEngineGate);

// What an interrupt does, in this order: mirroring off, which is the last word to the kernel, the capture
// thread ended (am::endCaptureAtInterrupt), descriptors closed.  For the interrupt's own thread, while the
// others may still use the handles: these stay, the process ends at once.
void withdrawFromKernel();

// Closes the descriptors below threads that still use the handles: for a process that ends at once.
void abandonKernelSide();

// For a side whose policies are to outlast an exchange of kits, which empties groups and lists: remember
// them, and put them back for the applications that are still known.  Defined by the configuration.
// Event-loop thread.
void keepLists();
void restoreLists();

}  // namespace am

// Tells the kernel what a flow is and, with a match, records the flow, whether or not the kernel took it.
// Always 1.  Called by the callback, which has checked the id, on the engine's threads.
int amSendResultMessage(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock);
int amSendResultMessage6(const capture_flow_info *info, unsigned match) REQUIRES_SHARED(amModelLock);
