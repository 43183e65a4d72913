#include <sys/stat.h>

#include <ctime>

#include "appmodel/app_pool.h"
#include "config/config_file.h"
#include "config/file_before.h"
#include "core/paths.h"
#include "flows/kernel_side.h"
#include "flows/mirroring.h"
#include "kit/engine.h"
#include "kit/kit_members.h"
#include "kit/kit_state.h"
#include "kit/md5.h"
#include "records/app_records.h"
#include "records/enf_records.h"
#include "records/mon_records.h"
#include "records/stats_report.h"
#include "show/health.h"
#include "show/methods.h"

namespace am {

namespace {

constinit time_t start = 0;

time_t steadySeconds() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

void addKit(Answer &answer) {
    answer.text("version", kitState.version);
    answer.number("level", static_cast<uint64_t>(qel_kit_compatability_version));
    Md5Digest digest;
    memcpy(digest.bytes, kitState.digest, sizeof digest.bytes);
    answer.text("digest", kitState.loadedAt ? md5Text(digest).text : "");
    answer.number("applications", rbtCount(&amAppPoolTree));
    answer.number("loaded_at", static_cast<uint64_t>(kitState.loadedAt));
    answer.flag("engine", amEngineLoaded());
    answer.flag("refused", kitState.refused);
    answer.text("refusal", kitState.refusal);
    answer.number("refused_at", static_cast<uint64_t>(kitState.refusedAt));
}

void addConfiguration(Answer &answer) {
    struct stat file {};
    const bool exists = stat(kConfigPath, &file) == 0;
    answer.text("file", kConfigPath);
    answer.number("saved_at", exists ? static_cast<uint64_t>(file.st_mtime) : 0);
    answer.flag("unsaved_changes", configChanged());
    if (stat(kConfigBeforePath, &file) != 0) return;
    answer.text("kept", kConfigBeforePath);
    answer.number("kept_at", static_cast<uint64_t>(file.st_mtime));
    answer.text("dropped", configDropped);
}

void addFile(Answer &answer, const char *path, const RecordState &state, uint64_t waiting) {
    struct stat file {};
    const bool exists = stat(path, &file) == 0;
    answer.table(nullptr, [&] {
        answer.text("file", path);
        answer.number("size", exists ? static_cast<uint64_t>(file.st_size) : 0);
        answer.number("lines_written", state.lines);
        answer.number("lines_waiting", waiting);
        answer.flag("failing", state.failing);
    });
}

uint64_t monitoredWaiting() {
    const AmGuard guard(amMonQueueLock);
    return uint64_t{amMonFlowCounter} + amMonFlow6Counter;
}

uint64_t countedApplications() {
    uint64_t applications = 0;
    amModelLock.soleWriterReads();
    for (uint32_t id = 0; const AmActiveApp *app = amActiveApp(id); id++)
        applications += app->isMonitoring && app->monFlowCount.load(std::memory_order_relaxed) != 0;
    return applications;
}

void addRecords(Answer &answer) {
    addFile(answer, kEnfRecords, amEnfRecordState,
            static_cast<uint64_t>(ft4CommonIndex) + static_cast<uint64_t>(ft6CommonIndex));
    addFile(answer, kMonRecords, amMonRecordState, monitoredWaiting());
    addFile(answer, kAppRecords, amAppRecordState, countedApplications());
}

struct Problems {
    Answer &answer;
    bool any = false;
};

void addProblem(const char *what, const char *cure, void *context) {
    auto &problems = *static_cast<Problems *>(context);
    problems.any = true;
    problems.answer.table(nullptr, [&] {
        problems.answer.text("what", what);
        problems.answer.text("cure", cure);
    });
}

}  // namespace

void startUptime() {
    start = steadySeconds();
}

int answerStatus(Answer &answer, const blob_attr *) {
    answer.text("version", KORVID_VERSION);
    answer.number("uptime", static_cast<uint64_t>(steadySeconds() - start));
    answer.table("kernel", [&] {
        answer.text("side", kernelSideName);
        answer.flag("mirroring", amAdminState.load(std::memory_order_relaxed) == 1);
        answer.number("since", static_cast<uint64_t>(mirroringSince));
    });
    answer.table("kit", [&] { addKit(answer); });
    answer.table("configuration", [&] { addConfiguration(answer); });
    answer.table("bus", [&] { answer.flag("connected", true); });
    answer.array("records", [&] { addRecords(answer); });
    Problems problems{answer};
    answer.array("problems", [&] { forEachProblem(addProblem, &problems); });
    answer.text("health", problems.any ? "problems" : "ok");
    return UBUS_STATUS_OK;
}

}  // namespace am
