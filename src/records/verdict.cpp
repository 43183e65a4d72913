#include "records/verdict.h"

#include <ctime>

#include "appmodel/app_pool.h"
#include "core/counts.h"
#include "core/log.h"
#include "flows/flow_info.h"
#include "flows/kernel_side.h"
#include "flows/mirroring.h"
#include "records/mon_records.h"

namespace {

void noteSeen(AmActiveApp &app) {
    app.flowsSeen.fetch_add(1, std::memory_order_relaxed);
    app.lastSeen.store(static_cast<uint32_t>(time(nullptr)), std::memory_order_relaxed);
}

}  // namespace

int am_capture_flow_func(const capture_flow_info *info) {
    if (!info) return 0;
    // For the whole run: the entry stays where it is, the lists do not change halfway, and mirroring is not
    // switched off between the look at the state and the flow's record.
    const AmSharedGuard model(amModelLock);
    if (amAdminState.load(std::memory_order_relaxed) != 1) {
        am::countUp(am::counts.verdictsWhileOff);
        return 0;
    }
    if (info->app_id >= amMaxAppIdCount) {
        amLog(AM_LOG_ERROR, "%s:%d Out of appid:%d\n", __func__, __LINE__, info->app_id);
        am::countUp(am::counts.verdictsUnknownApp);
        return 0;
    }
    AmActiveApp *app = amActiveApp(info->app_id);
    if (!app) {
        am::countUp(am::counts.verdictsUnknownApp);
        return 0;
    }

    const unsigned match = app->isEnforcement ? 1 : 0;
    switch (info->ipproto) {
        case AM_IP_TYPE_IPV6:
            noteSeen(*app);
            amLog(AM_LOG_DEBUG, "%s:%d Capture flow Get package\n", __func__, __LINE__);
            amLog(AM_LOG_DEBUG, "%s:%d Capture flow Get package\n", __func__, __LINE__);
            (void)amSendResultMessage6(info, match);
            if (!app->isMonitoring) return 0;
            (void)amUpdateMonFlow6(info);
            break;
        case AM_IP_TYPE_IPV4:
            noteSeen(*app);
            (void)amSendResultMessage(info, match);
            if (!app->isMonitoring) return 0;
            (void)amUpdateMonFlow(info);
            break;
        default:
            am::countUp(am::counts.verdictsOther);
            return 0;
    }
    app->monFlowCount.fetch_add(1, std::memory_order_relaxed);
    return 0;
}
