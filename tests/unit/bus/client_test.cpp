// The client library against the real broker.
#include <thread>

#include "support.h"

using namespace bustest;

namespace {

std::string heard;  // by handlers, in order

int echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    return ubus_send_reply(ctx, req, msg);
}

int replyTwice(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    ubus_send_reply(ctx, req, msg);
    ubus_send_reply(ctx, req, nullptr);
    return -5;
}

int deferInside(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg) {
    ubus_request_data copy;
    ubus_defer_request(ctx, req, &copy);
    ubus_send_reply(ctx, &copy, msg);
    ubus_complete_deferred_request(ctx, &copy, UBUS_STATUS_OK);
    return UBUS_STATUS_UNKNOWN_ERROR;  // ignored
}

// A synchronous call from within a handler.
int lookItself(ubus_context *ctx, ubus_object *obj, ubus_request_data *, const char *, blob_attr *) {
    uint32_t id = 0;
    const int status = ubus_lookup_id(ctx, obj->name, &id);
    return status == UBUS_STATUS_OK && id == obj->id ? 42 : status;
}

constexpr blobmsg_policy kArguments[] = {{"name", BLOBMSG_TYPE_STRING}, {"level", BLOBMSG_TYPE_INT32}};
const ubus_method kMethods[] = {
    UBUS_METHOD("echo", echo, kArguments),
    UBUS_METHOD_NOARG("twice", replyTwice),
    UBUS_METHOD_NOARG("defer", deferInside),
    UBUS_METHOD_NOARG("look", lookItself),
};

class BusClient : public testing::Test {
  protected:
    void SetUp() override {
        heard.clear();
        ctx = ubus_connect(broker.path().c_str());
        ASSERT_TRUE(ctx);
        ubus_add_uloop(ctx);
    }
    void TearDown() override {
        ubus_free(ctx);
        uloop_done();
    }
    // Publishes "demo".
    void serve() {
        type = UBUS_OBJECT_TYPE("create", kMethods);
        object = {};
        object.name = "demo";
        object.type = &type;
        object.methods = kMethods;
        object.n_methods = ARRAY_SIZE(kMethods);
        ASSERT_EQ(ubus_add_object(ctx, &object), UBUS_STATUS_OK);
    }
    static uint16_t call(Peer &caller, uint32_t id, const char *method) {
        return caller.send(UBUS_MSG_INVOKE, id, [&](blob_buf *buf) {
            blob_put_u32(buf, UBUS_ATTR_OBJID, id);
            blob_put_string(buf, UBUS_ATTR_METHOD, method);
            void *data = blob_nest_start(buf, UBUS_ATTR_DATA);
            blobmsg_add_u32(buf, "level", 1);
            blob_nest_end(buf, data);
        });
    }

    Broker broker;
    ubus_context *ctx = nullptr;
    ubus_object object{};
    ubus_object_type type{};
};

}  // namespace

TEST_F(BusClient, HandlersAnswerCalls) {
    serve();
    Peer caller(broker.path());
    const struct {
        const char *method;
        std::vector<std::string> replies;
        int status;
    } kCases[] = {
        {"echo", {R"({"level":1})"}, UBUS_STATUS_OK},  {"twice", {R"({"level":1})", "{}"}, -5},
        {"defer", {R"({"level":1})"}, UBUS_STATUS_OK}, {"look", {}, 42},
        {"none", {}, UBUS_STATUS_METHOD_NOT_FOUND},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.method);
        const uint16_t seq = call(caller, object.id, c.method);
        uloop_run_timeout(1000);
        for (const std::string &reply : c.replies) EXPECT_EQ(caller.read().members(), reply);
        const Message status = caller.read();
        EXPECT_EQ(status.seq, seq);
        EXPECT_EQ(static_cast<int>(status.number(UBUS_ATTR_STATUS)), c.status);
    }
    // Without DATA.
    caller.send(UBUS_MSG_INVOKE, object.id, [&](blob_buf *buf) {
        blob_put_u32(buf, UBUS_ATTR_OBJID, object.id);
        blob_put_string(buf, UBUS_ATTR_METHOD, "echo");
    });
    uloop_run_timeout(1000);
    EXPECT_EQ(caller.read().number(UBUS_ATTR_STATUS), UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(BusClient, LoopRunsOnWithoutItsBroker) {
    static int completed;
    completed = -1;
    ubus_request request;
    Peer provider(broker.path());
    ASSERT_EQ(ubus_invoke_async(ctx, provider.addObject("far"), "x", nullptr, &request), UBUS_STATUS_OK);
    request.complete_cb = [](ubus_request *, int status) { completed = status; };
    ubus_complete_request_async(ctx, &request);
    provider.read();
    broker.stop(SIGKILL);
    uloop_timeout later{};
    later.cb = [](uloop_timeout *) {
        heard += "later";
        uloop_end();
    };
    uloop_timeout_set(&later, 5);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(heard, "later");
    EXPECT_EQ(completed, UBUS_STATUS_TIMEOUT);
    EXPECT_FALSE(ctx->sock.registered);
    uint32_t id;
    EXPECT_EQ(ubus_lookup_id(ctx, "demo", &id), UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(BusClient, WaitingCallFailsWhenTheBrokerDies) {
    Peer provider(broker.path());
    const uint32_t id = provider.addObject("far");
    static int losses;
    losses = 0;
    ctx->connection_lost = [](ubus_context *) { losses++; };
    std::thread killer([&] {
        provider.read();  // the call is under way
        broker.stop(SIGKILL);
    });
    EXPECT_EQ(ubus_invoke(ctx, id, "x", nullptr, nullptr, nullptr, 0), UBUS_STATUS_CONNECTION_FAILED);
    killer.join();
    EXPECT_EQ(losses, 1);
    uloop_run_timeout(0);
    EXPECT_EQ(losses, 2) << "the loop meets the end, too";
}
