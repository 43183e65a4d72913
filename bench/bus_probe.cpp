// Calls of bus methods, timed from outside.  Prints microseconds, one line of figures.
//   bus-probe SOCKET calls ROUNDS OBJECT METHOD JSON OBJECT METHOD JSON    p50 and p99 of both, by turns
//   bus-probe SOCKET start OBJECT METHOD PROGRAM [ARGUMENT...]             from the start to the first reply;
//   and pid
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubus.h>
}

namespace {

constexpr int kTimeout = 5000;  // milliseconds
constexpr double kPatience = 20e6;

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

struct Call {
    ubus_context *ctx = nullptr;
    uint32_t object = 0;
    const char *method = nullptr;
    blob_buf message{};
    std::vector<double> took;

    bool find(const char *name) { return ubus_lookup_id(ctx, name, &object) == 0; }
    bool run() {
        const double begin = now();
        const bool good = ubus_invoke(ctx, object, method, message.head, nullptr, nullptr, kTimeout) == 0;
        took.push_back(now() - begin);
        return good;
    }
    double at(double share) {
        std::sort(took.begin(), took.end());
        return took[static_cast<size_t>(share * static_cast<double>(took.size() - 1))];
    }
};

int fail(const char *what) {
    (void)fprintf(stderr, "bus-probe: %s\n", what);
    return 2;
}

int calls(ubus_context *ctx, int rounds, char **words) {
    Call both[2];
    for (Call &call : both) {
        call.ctx = ctx;
        if (!call.find(words[0])) return fail(words[0]);
        call.method = words[1];
        blob_buf_init(&call.message, 0);
        if (!blobmsg_add_json_from_string(&call.message, words[2])) return fail(words[2]);
        words += 3;
    }
    for (int i = 0; i < rounds; i++)
        for (Call &call : both)
            if (!call.run()) return fail(call.method);
    printf("%.1f %.1f %.1f %.1f\n", both[0].at(0.5), both[0].at(0.99), both[1].at(0.5), both[1].at(0.99));
    return 0;
}

int start(ubus_context *ctx, const char *object, const char *method, char **command) {
    Call call;
    call.ctx = ctx;
    call.method = method;
    blob_buf_init(&call.message, 0);
    const double begin = now();
    const pid_t child = fork();
    if (child < 0) return fail("fork");
    if (child == 0) {
        // Whoever reads this program's output waits for its end, not for the daemon's.
        if (!freopen("/dev/null", "w", stdout)) _exit(127);
        execv(command[0], command);
        _exit(127);
    }
    while (!call.find(object) || !call.run()) {
        if (now() - begin > kPatience || waitpid(child, nullptr, WNOHANG) != 0) return fail(command[0]);
        const timespec pause{0, 100'000};
        (void)nanosleep(&pause, nullptr);
    }
    printf("%.1f %d\n", now() - begin, static_cast<int>(child));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 6) return fail("too few arguments; see its source");
    ubus_context *ctx = ubus_connect(argv[1]);
    if (!ctx) return fail("no broker");
    if (strcmp(argv[2], "calls") == 0 && argc == 10) return calls(ctx, atoi(argv[3]), argv + 4);
    if (strcmp(argv[2], "start") == 0) return start(ctx, argv[3], argv[4], argv + 5);
    return fail("calls or start");
}
