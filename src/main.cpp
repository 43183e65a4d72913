// Start-up and shutdown.  No step looks at the result of an earlier one: a daemon without a bus or without a
// configuration still serves the kernel; only the kernel side is indispensable, and ends the process itself.
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

extern "C" {
#include <libubox/uloop.h>
}
#include <libubus.h>

#include "appmodel/app_lists.h"
#include "appmodel/app_pool.h"
#include "appmodel/rbt.h"
#include "config/config_file.h"
#include "core/log.h"
#include "core/paths.h"
#include "flows/capture.h"
#include "flows/enf_flow_db.h"
#include "flows/kernel_side.h"
#include "kit/engine.h"
#include "kit/upload.h"
#include "records/app_records.h"
#include "records/enf_records.h"
#include "records/mon_records.h"
#include "records/verdict.h"
#include "show/korvid_object.h"
#include "ubus/bus_object.h"

namespace {

// The bus socket named by the last -s, or null.  getopt itself complains about unknown options, which are
// skipped; -c is accepted for the sake of existing start scripts.
const char *busPath(int argc, char *const *argv) {
    const char *path = nullptr;
    for (int option; (option = getopt(argc, argv, am::commandLineOptions)) != -1;) {
        if (option == 's')
            path = optarg;
        else
            am::takeOption(option, optarg);
    }
    return path;
}

// A daemon that is started with standard error closed must not get the log in its place: libraries write
// there.  Shell commands inherit what is opened here.
void fillStandardDescriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
    if (fd > STDERR_FILENO) (void)close(fd);
}

void startUp(int argc, char *const *argv) {
    fillStandardDescriptors();
    rbtInit(&amAppPoolTree, amAppPoolNameCompare);
    rbtInit(&amAppGrpTree, amAppGrpNameCompare);
    amInitEnfFlowDb();
    capture_flow_func = am_capture_flow_func;
    amLogOpen(kLogPath, AM_LOG_ERROR);
    amLog(AM_LOG_ERROR, "korvid start 4MB\n");
    const char *path = busPath(argc, argv);

    amStartFlowDbLoggingTimer();
    amStartMonFlowDbLoggingTimer();
    startHourlyTimerAtFullHour();
    uloop_init();
    curl_global_init(CURL_GLOBAL_ALL);
    amConnectUbusSocket(path);
    amCreateNetLinkSockets();

    amStartEnfFlowDbTimer();  // before the capture thread, which must not touch the event loop
    amPktCaptureThread();
    amParseConfigFromFile();
    amPublishKorvidObject();
}

void shutDown() {
    if (ubus_ctx) ubus_free(ubus_ctx);
    const bool captureEnded = amStopCaptureThread();
    if (captureEnded)
        amCloseNetLinkSockets();
    else
        am::abandonKernelSide();
    if (!captureEnded || !uploadThreadsEnded()) {
        // Neither is waited for any longer, and what they run uses what the libraries' clean-up and exit's
        // handlers tear down.
        (void)fflush(stdout);
        amLogClose();
        _exit(0);
    }
    curl_global_cleanup();
    uloop_done();
    amLogClose();
}

}  // namespace

int main(int argc, char **argv) {
    startUp(argc, argv);
    // The loop forgets a SIGTERM that came before it runs: a configuration that installs a kit takes seconds.
    if (!uloop_cancelled) uloop_run();
    shutDown();
    return 0;
}
