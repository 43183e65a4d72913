// Habits of real engines that the daemon must cope with, each compiled into one variant of the scripted
// engine.
#pragma once

#include <cstdint>

namespace engine {

struct Tuple;

#ifdef ENGINE_HOLD_REPORTS
constexpr bool kHoldReports = true;
#else
constexpr bool kHoldReports = false;
#endif
#ifdef ENGINE_OWN_THREADS
constexpr bool kOwnThreads = true;
#else
constexpr bool kOwnThreads = false;
#endif
#ifdef ENGINE_CHECK_HANDOVER
constexpr bool kCheckHandover = true;
#else
constexpr bool kCheckHandover = false;
#endif
#ifdef ENGINE_OWN_OPERATORS
constexpr bool kOwnOperators = true;
#else
constexpr bool kOwnOperators = false;
#endif
#ifdef ENGINE_HELPED
constexpr bool kHelped = true;
#else
constexpr bool kHelped = false;
#endif

// Allocates and frees through every form of the global operators, which are the engine's own: memory that
// one of them gets from elsewhere ends the process.
void useOperators();

// From the kit's second library: the same number.
extern "C" __attribute__((visibility("default"))) uint32_t helperSame(uint32_t number);

// Reports kept until the engine is stopped, and then made from its exit entry; the first 1,024 flows.
void holdReport(const Tuple &tuple, uint32_t appId, uint32_t flowState);
void reportHeld();

// Two threads that report flows of their own, one a millisecond each: from 198.18.0.N (N the thread, 1 or 2),
// port counting up from 1, to 198.18.1.N port 10001 over UDP, application 1.  Stopped and joined before
// stopThreads returns.
void startThreads();
void stopThreads();

// Watches how the daemon hands the engine over.  A breach is written as a line to /flash/engine.violation:
// a packet before the start entry returned, during or after the exit entry, two packets at once, or the
// library taken down around a packet.  Start and exit take a fifth of a second, to give a breach its chance.
void noteStarted();
void noteEntered();
void noteLeft();
void noteStopping();
void noteUnloading();

}  // namespace engine
