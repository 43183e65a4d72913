// The command-line tool: what scripts read and the exit codes that they look at.
#include <sys/wait.h>
#include <unistd.h>

#include "support.h"

using namespace bustest;

namespace {

int answer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *) {
    Buffer reply;
    blobmsg_add_u8(&reply, "success", 1);
    blobmsg_close_table(&reply, blobmsg_open_table(&reply, "result"));
    return ubus_send_reply(ctx, req, reply->head);
}

int replyAndFail(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *method,
                 blob_attr *msg) {
    answer(ctx, obj, req, method, msg);
    return UBUS_STATUS_NOT_SUPPORTED;
}

int refuse(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) {
    return UBUS_STATUS_INVALID_ARGUMENT;
}

int neverAnswer(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *) {
    ubus_request_data copy;
    ubus_defer_request(ctx, req, &copy);
    return 0;
}

constexpr blobmsg_policy kPolicy[] = {
    {"name", BLOBMSG_TYPE_STRING}, {"n", BLOBMSG_TYPE_INT32},   {"on", BLOBMSG_TYPE_BOOL},
    {"list", BLOBMSG_TYPE_ARRAY},  {"tab", BLOBMSG_TYPE_TABLE}, {"big", BLOBMSG_TYPE_INT64},
};
const ubus_method kMethods[] = {
    UBUS_METHOD_NOARG("nothing", answer),    UBUS_METHOD("answer", answer, kPolicy),
    UBUS_METHOD_NOARG("fail", replyAndFail), UBUS_METHOD_NOARG("refuse", refuse),
    UBUS_METHOD_NOARG("never", neverAnswer),
};

// Publishes "demo" from a process of its own.
pid_t startProvider(const std::string &path) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    ubus_context *ctx = ubus_connect(path.c_str());
    ubus_object_type type = UBUS_OBJECT_TYPE("create", kMethods);
    ubus_object object{};
    object.name = "demo";
    object.type = &type;
    object.methods = kMethods;
    object.n_methods = ARRAY_SIZE(kMethods);
    if (!ctx || ubus_add_object(ctx, &object) != UBUS_STATUS_OK) _exit(1);
    ubus_add_uloop(ctx);
    uloop_run();
    _exit(0);
}

class BusTool : public testing::Test {
  protected:
    void TearDown() override {
        if (provider <= 0) return;
        kill(provider, SIGKILL);
        waitpid(provider, nullptr, 0);
    }
    void serve() {
        provider = startProvider(broker.path());
        ASSERT_EQ(run({"wait_for", "demo"}).exitCode, 0);
    }

    std::vector<std::string> command(const std::vector<std::string> &args) {
        std::vector<std::string> words = {UBUS_PROGRAM, "-s", broker.path()};
        words.insert(words.end(), args.begin(), args.end());
        return words;
    }
    Ended run(const std::vector<std::string> &args) { return Process(command(args)).wait(); }

    Broker broker;
    pid_t provider = -1;
};

}  // namespace

TEST_F(BusTool, TextsAndExitCodes) {
    serve();
    const char kIndented[] = "{\n\t\"success\": true,\n\t\"result\": {\n\t\t\n\t}\n}\n";
    const char kCompact[] = "{\"success\":true,\"result\":{}}\n";
    const struct {
        std::vector<std::string> args;
        int exitCode;
        const char *out, *err;  // err null: the usage text
    } kCases[] = {
        {{"list"}, 0, "demo\n", ""},
        {{"list", "de*"}, 0, "demo\n", ""},
        {{"-S", "-v", "list"}, 0, "demo\n", ""},
        {{"list", "none"}, 4, "", "Command failed: Not found\n"},
        {{"-S", "list", "none"}, 4, "", ""},
        {{"call", "demo", "answer"}, 0, kIndented, ""},
        {{"-S", "call", "demo", "answer", "{\"n\":-1}"}, 0, kCompact, ""},
        {{"call", "none", "x"}, 4, "", "Command failed: Not found\n"},
        {{"call", "demo", "none"}, 253, "", "Command failed: ubus call demo none (Method not found)\n"},
        {{"call", "demo", "fail", "{}"},
         248,
         kIndented,
         "Command failed: ubus call demo fail {} (Operation not supported)\n"},
        {{"-S", "call", "demo", "fail"}, 8, kCompact, ""},
        {{"call", "demo", "answer", "[1]"},
         244,
         "",
         "Command failed: ubus call demo answer [1] (Parsing message data failed)\n"},
        {{"-t", "1", "-S", "call", "demo", "never"}, 7, "", ""},
        {{"send", "some.event", "{\"a\":1}"}, 0, "", ""},
        {{"send", "some.event", "x"}, 12, "", "Command failed: Parsing message data failed\n"},
        {{"send", "ubus.event"}, 6, "", "Command failed: Permission denied\n"},
        {{"listen", ""}, 255, "", "Error while registering for event '': Permission denied\n"},
        {{"-S", "listen", ""}, 255, "", ""},
        {{"-t", "0", "wait_for", "demo", "none"}, 7, "", "Command failed: Request timed out\n"},
        {{}, 1, "", nullptr},
        {{"-x", "list"}, 1, "", nullptr},
        {{"-m", "none", "monitor"}, 1, "", nullptr},
        {{"-M", "x", "monitor"}, 1, "", nullptr},
        {{"none"}, 254, "", nullptr},
        {{"list", "a", "b"}, 254, "", nullptr},
        {{"call", "demo"}, 254, "", nullptr},
        {{"send"}, 254, "", nullptr},
        {{"wait_for"}, 254, "", nullptr},
    };
    for (const auto &c : kCases) {
        std::string words;
        for (const std::string &word : c.args) words += word + ' ';
        SCOPED_TRACE(words);
        const Ended ended = run(c.args);
        EXPECT_EQ(ended.exitCode, c.exitCode);
        EXPECT_EQ(ended.out, c.out);
        if (c.err)
            EXPECT_EQ(ended.err, c.err);
        else
            EXPECT_NE(ended.err.find("Usage: "), std::string::npos) << ended.err;
    }
    // Status 2 collides with the code for the usage text.
    const Ended refused = run({"call", "demo", "refuse"});
    EXPECT_EQ(refused.exitCode, 254);
    EXPECT_EQ(refused.err.rfind("Command failed: ubus call demo refuse (Invalid argument)\nUsage: ", 0), 0U);
    // Somebody who looks at a terminal gets the plain status.
    const Ended seen = Process(command({"call", "demo", "fail"}), Process::Stderr::kTerminal).wait();
    EXPECT_EQ(seen.exitCode, 8);
    EXPECT_EQ(seen.err, "Command failed: Operation not supported\r\n");
}

TEST_F(BusTool, MissingBrokerIsReported) {
    const std::string none = broker.path() + ".none";
    Ended ended = Process({UBUS_PROGRAM, "-s", none, "list"}).wait();
    EXPECT_EQ(ended.exitCode, 255);
    EXPECT_EQ(ended.err, "Failed to connect to ubus\n");
    ended = Process({UBUS_PROGRAM, "-S", "-s", none, "list"}).wait();
    EXPECT_EQ(ended.exitCode, 255);
    EXPECT_EQ(ended.err, "");
}

TEST_F(BusTool, WaitForSeesObjectsThatComeLater) {
    Process watcher(command({"-m", "lookup", "monitor"}));
    Process waiter(command({"wait_for", "late", "later"}));
    Peer peer(broker.path());
    peer.addObject("late");
    watcher.readLine();  // it has begun to look; the event it must hear is yet to come
    peer.addObject("later");
    EXPECT_EQ(waiter.wait().exitCode, 0);
}
