#include "world.h"

#include <curl/curl.h>
#include <libmnl/libmnl.h>

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "core/log.h"
#include "flows/enf_flow_db.h"
#include "flows/mirroring.h"
#include "fuzz.h"
#include "records/mon_records.h"
#include "switch/sockets.h"

// In place of the libraries' functions, which need the switch or a server, and would make runs slow and
// different from each other.
extern "C" {

ssize_t mnl_socket_sendto(const mnl_socket *, const void *, size_t length) {
    return static_cast<ssize_t>(length);
}

CURLcode curl_easy_perform(CURL *) {
    return CURLE_COULDNT_CONNECT;
}

int system(const char *) {
    return 1 << 8;
}

}  // extern "C"

namespace fuzz {
namespace {

constexpr const char *kApps[] = {"HTTP",
                                 "DNS",
                                 "Mail",
                                 "Video",
                                 "a",
                                 "a name with blanks, and a comma",
                                 "name_of_thirty-two_characters___"};

}  // namespace

void makeWorld() {
    rbtInit(&amAppPoolTree, amAppPoolNameCompare);
    rbtInit(&amAppGrpTree, amAppGrpNameCompare);
    amLogOpen("/dev/null", AM_LOG_STATS);
    print_debug = flow_debug = stats_debug = 1;
    amInitEnfFlowDb();
    uint16_t id = 0;
    for (const char *name : kApps) {
        AmAppNode record{};
        std::memcpy(record.name, name, std::strlen(name));
        record.appId = ++id;
        FUZZ_CHECK(amUpdateAppPool(&record));
    }
    amAppPoolShmSigCnt = id;
    amRebuildActiveAppArray("fuzz", 0);
    FUZZ_CHECK(amActData);
}

void resetModel() {
    amNetLinkMirrorState(0);
    amCleanAllEnfFlowDb();
    amCleanAllEnfFlowDb6();
    amClearAppMonList();
    amClearAppEnfList();
    amCleanAppGroup();
    amMonQueueLock.lock();
    amMonFlowCounter = amMonFlow6Counter = 0;
    amMonQueueLock.unlock();
    amLogOpen("/dev/null", AM_LOG_STATS);
    print_debug = flow_debug = stats_debug = 1;
}

}  // namespace fuzz
