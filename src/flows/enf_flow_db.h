// Enforcement flow database: one record per live flow of an enforced application, IPv4 and IPv6 in separate
// trees, ordered by five-tuple.
//   absent --classified--> live --kernel reports it aged--> aged --next sweep--> absent
//                           ^-------- classified again -------'
// Switching mirroring off empties both trees.  Nothing else bounds them but memory.
//
// Threads: the engine's threads insert and renew.  The event-loop thread searches, marks and sweeps, and
// alone frees.  amEnfFlowLock covers both trees and every field of every record.  Walks of the event-loop
// thread let go of the lock between records as soon as another thread waits for it.
#pragma once
#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

extern "C" {
#include <libubox/uloop.h>
}

#include "appmodel/app_pool.h"
#include "appmodel/rbt.h"
#include "core/lock.h"

struct capture_flow_info;

// Addresses in network byte order, ports in host byte order.  Keys compare as the bytes of these fields; what
// comes after the protocol is no part of the order, as a queue entry has data of its own there.
struct AmEnfKey4 {
    uint32_t fst_ip, secnd_ip;
    uint16_t fstPort, scndPort;
    uint8_t proto;  // IP protocol number
    uint8_t zero[3];
};
static_assert(sizeof(AmEnfKey4) == 16 && offsetof(AmEnfKey4, proto) == 12);

struct AmEnfKey6 {
    in6_addr fst_ip, secnd_ip;
    uint16_t fstPort, scndPort;
    uint8_t proto;
    uint8_t zero[3];
};
static_assert(sizeof(AmEnfKey6) == 40 && offsetof(AmEnfKey6, proto) == 36);

template <class Key>
struct AmEnfFlow {
    RbtNode node;  // first: the tree hands out RbtNode pointers
    Key key;
    uint16_t appId;    // low 16 bits of the engine's id
    uint16_t aged;     // 0 = live, else the kernel's value
    uint8_t untold;    // 1 = the kernel did not take the last verdict
    time_t startTime;  // seconds since the epoch: created, or renewed after ageing
};
using AmEnfFlow4 = AmEnfFlow<AmEnfKey4>;
using AmEnfFlow6 = AmEnfFlow<AmEnfKey6>;
static_assert(sizeof(AmEnfFlow4) == 64 && sizeof(AmEnfFlow6) == 88);
static_assert(offsetof(AmEnfFlow4, node) == 0 && offsetof(AmEnfFlow6, node) == 0);

extern AmMutex amEnfFlowLock ACQUIRED_AFTER(amModelLock);
extern RbtTree amEnfFlowDb GUARDED_BY(amEnfFlowLock);        // of AmEnfFlow4
extern RbtTree amEnfFlowDb6 GUARDED_BY(amEnfFlowLock);       // of AmEnfFlow6
extern std::atomic<uint64_t> amFlowCounter, amFlowCounter6;  // records ever inserted

extern uloop_timeout amEnfFlowDbTimer;
extern int amEnfFlowDbTimerActive;

// Comparators: bytewise over the key, up to its protocol.
int amEnf_key4_compare(const RbtNode *a, const RbtNode *b);
int amEnf_key6_compare(const RbtNode *a, const RbtNode *b);

// Initialises both trees: main thread, before the capture thread runs.
void amInitEnfFlowDb() EXCLUDES(amEnfFlowLock);

// Record the flow, or renew its record if that had aged; a live record keeps its application and start time.
// Always 1: a flow for which there is no memory is logged and left out.  The caller has
// checked the id against the active array, whose names the FLOW lines show.
int amUpdateEnfFlowDb(const capture_flow_info *info) REQUIRES_SHARED(amModelLock) EXCLUDES(amEnfFlowLock);
int amUpdateEnfFlowDb6(const capture_flow_info *info) REQUIRES_SHARED(amModelLock) EXCLUDES(amEnfFlowLock);

// The flow's record, null if there is none; a null key is logged and finds nothing.  The database keeps the
// record, which may go once the lock is released, unless the caller is the event-loop thread.
[[nodiscard]] AmEnfFlow4 *amSearchEnfFlowDb(const AmEnfKey4 *key) REQUIRES(amEnfFlowLock);
[[nodiscard]] AmEnfFlow6 *amSearchEnfFlowDb6(const AmEnfKey6 *key) REQUIRES(amEnfFlowLock);

// Event-loop thread: free the aged records, or all of them.
void amCleanAgedEnfFlowDb() EXCLUDES(amEnfFlowLock);
void amCleanAgedEnfFlowDb6() EXCLUDES(amEnfFlowLock);
void amCleanAllEnfFlowDb() EXCLUDES(amEnfFlowLock);
void amCleanAllEnfFlowDb6() EXCLUDES(amEnfFlowLock);

namespace am {

// A copy of the record that comes after `key` in tree order, the first one for null.  False after the last.
// Event-loop thread.
[[nodiscard]] bool nextEnfFlow(const AmEnfKey4 *after, AmEnfFlow4 &flow) EXCLUDES(amEnfFlowLock);
[[nodiscard]] bool nextEnfFlow(const AmEnfKey6 *after, AmEnfFlow6 &flow) EXCLUDES(amEnfFlowLock);

// A copy of the flow's record; false if there is none.  Event-loop thread.
[[nodiscard]] bool findEnfFlow(const AmEnfKey4 &key, AmEnfFlow4 &flow) EXCLUDES(amEnfFlowLock);
[[nodiscard]] bool findEnfFlow(const AmEnfKey6 &key, AmEnfFlow6 &flow) EXCLUDES(amEnfFlowLock);

// Notes in the flow's record, if it has one, that the kernel did not take its verdict.  Any thread.
void noteUntold(const AmEnfKey4 &key) EXCLUDES(amEnfFlowLock);
void noteUntold(const AmEnfKey6 &key) EXCLUDES(amEnfFlowLock);
void noteUntold4(const capture_flow_info &info) EXCLUDES(amEnfFlowLock);
void noteUntold6(const capture_flow_info &info) EXCLUDES(amEnfFlowLock);

// Records held, aged ones included.  Any thread.
struct EnfFlowsHeld {
    uint32_t ipv4, ipv6;
};
EnfFlowsHeld enfFlowsHeld() EXCLUDES(amEnfFlowLock);

}  // namespace am

// Call `visit` with a copy of every record in tree order, outside the lock; records younger than the walk are
// left out.  Event-loop thread.
void forEachEnfFlow4(void (*visit)(const AmEnfFlow4 &flow)) EXCLUDES(amEnfFlowLock);
void forEachEnfFlow6(void (*visit)(const AmEnfFlow6 &flow)) EXCLUDES(amEnfFlowLock);

// The aging timer, every 5 minutes for the life of the process.
void amStartEnfFlowDbTimer();
int amRemoveEnfFlowDbTimer(uloop_timeout *timer);
void amProcessEnfFlowDbTimer(uloop_timeout *timer);
