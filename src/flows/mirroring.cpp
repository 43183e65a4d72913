#include "flows/mirroring.h"

#include <ctime>

#include "core/log.h"
#include "flows/enf_flow_db.h"
#include "flows/kernel_side.h"

constinit std::atomic<int> amAdminState{0};

namespace {

// A verdict looks at the state with the lock held and keeps it until its flow is recorded.
void setAdminState(int state) EXCLUDES(amModelLock) {
    const AmGuard model(amModelLock);
    amAdminState.store(state, std::memory_order_relaxed);
}

}  // namespace

constinit int64_t am::mirroringSince = 0;

void amNetLinkMirrorState(int state) {
    if (state == amAdminState.load(std::memory_order_relaxed)) return;
    am::mirroringSince = time(nullptr);
    if (state == 1) {
        setAdminState(1);
        am::setMirroring(true);
        amLog(AM_LOG_DEBUG, "%s:%d Enable the DPI-NetLink Mirror\n", __func__, __LINE__);
        return;
    }
    setAdminState(0);
    am::setMirroring(false);
    amLog(AM_LOG_DEBUG, "%s:%d Disable the DPI-NetLink Mirror\n", __func__, __LINE__);
    amCleanAllEnfFlowDb();
    amCleanAllEnfFlowDb6();
}
