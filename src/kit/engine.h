// Loads, starts, stops and unloads the engine library that comes in the kit, and lets the capture thread in.
//
//   no engine --amLoadQsKit--> loaded --amQsCleanUp--> stopped --amUnLoadQsKit--> no engine
//
// Threads: load, exit and unload run on the event-loop thread; the per-packet entry is called on the capture
// thread only, between amEngineEnter and amEngineLeave.  The gate is what keeps the two apart: the event-loop
// thread takes it to clear or publish the entry, and holds no lock while engine code runs there, since an
// engine may report its last flows from its exit entry.
#pragma once
#include <sys/time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "appmodel/app_pool.h"
#include "core/lock.h"

struct capture_flow_info;

// The packet descriptor that the engine takes; the layout is the engine's.
struct capture_pkt {
    const uint8_t *data;  // first byte of the packet, its IP header; null for an empty packet
    uint64_t len;         // the packet's bytes and kPacketLengthExtra more; 0 without a packet
};
inline constexpr uint64_t kPacketLengthExtra = 4;  // the switch's kernel counts the header of its attribute
static_assert(sizeof(void *) != 8 || (sizeof(capture_pkt) == 16 && offsetof(capture_pkt, len) == 8));

using PcapPacketFn = void (*)(const capture_pkt *pkt, const struct timeval *ts);
using CaptureFlowFn = int (*)(const capture_flow_info *info);

// The engine looks these up by name in the executable: the callback it reports classified flows to, set by
// main before any engine is loaded, and a slot of its own that the daemon never touches.
extern "C" __attribute__((visibility("default"))) CaptureFlowFn capture_flow_func;
extern "C" __attribute__((visibility("default"))) void *pcap;

extern AmMutex amEngineGate ACQUIRED_BEFORE(amModelLock);
extern void *amQsLibHandle;  // event-loop thread only
extern PcapPacketFn process_pktptr GUARDED_BY(amEngineGate);
extern int fail;  // how far the last load came: 0 not opened, 1 opened, 2 started, 3 per-packet entry found

// Set while the event-loop thread wants the gate: the capture thread, which holds it for a burst of packets,
// looks at this before every packet and steps out.
extern std::atomic<bool> amEngineGateWanted;

// Capture thread: hold the gate over a burst of packets, and let go of it before waiting for the next.  A
// wish of the event-loop thread goes first in either case: the gate is unfair, so a thread that lets go and
// comes straight back would keep the other out for as long as packets come.
void amEngineEnter() ACQUIRE(amEngineGate);
void amEngineLeave() RELEASE(amEngineGate);
void amEngineStepAside() REQUIRES(amEngineGate);  // returns with the gate held, the wish served

// Before every packet; process_pktptr is read after it.  One relaxed load while nobody wants the gate.
inline void amEngineYield() REQUIRES(amEngineGate) {
    if (amEngineGateWanted.load(std::memory_order_relaxed)) [[unlikely]]
        amEngineStepAside();
}

// Event-loop thread: takes the gate as soon as the capture thread is between two packets, however many come.
void amEngineSeize() ACQUIRE(amEngineGate);
void amEngineRelease() RELEASE(amEngineGate);

// For the event-loop thread, which alone loads and unloads: whether an engine is loaded.
bool amEngineLoaded();

// -1 when the library file is missing, and nothing has changed; otherwise 0, also when it could not be
// opened. Blocks for at least a second.  The file is gone afterwards.  It is the file's engine that is
// loaded, also where the C library has kept the one before (kit/kit_libraries.h).
int amLoadQsKit() EXCLUDES(amEngineGate);

// Takes the entry away from the capture thread, then runs the engine's exit entry, if one is loaded; 1.
int amQsCleanUp() EXCLUDES(amEngineGate);

// Unloads the library; 1, also when the loader could not: its handle is forgotten all the same.  Its code may
// stay mapped even so.
int amUnLoadQsKit() EXCLUDES(amEngineGate);

// The engine step of a kit update: stop, unload, copy the kit's libraries, load, rebuild the active array.
void dpiQsKitUpdate() EXCLUDES(amEngineGate);
