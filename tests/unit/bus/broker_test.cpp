// The broker as its clients see it: real process, hand-made frames.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

using namespace bustest;
using Ids = std::vector<unsigned int>;

namespace {

class BusBroker : public testing::Test {
  protected:
    Broker broker;
};

Peer::Fill pathOnly(const char *path) {
    return [path](blob_buf *buf) { blob_put_string(buf, UBUS_ATTR_OBJPATH, path); };
}

}  // namespace

TEST_F(BusBroker, CallsAndAnswersArePassedOn) {
    Peer provider(broker.path());
    Peer caller(broker.path());
    const uint32_t object = provider.addObject("demo");
    const auto data = [](blob_buf *buf) {
        void *nest = blob_nest_start(buf, UBUS_ATTR_DATA);
        blobmsg_add_u32(buf, "level", 3);
        blob_nest_end(buf, nest);
    };
    const uint16_t seq = caller.send(UBUS_MSG_INVOKE, object, [&](blob_buf *buf) {
        blob_put_u8(buf, UBUS_ATTR_NO_REPLY, 1);  // not for the provider: it would not answer
        data(buf);
        blob_put_string(buf, UBUS_ATTR_METHOD, "set");
        blob_put_u32(buf, UBUS_ATTR_OBJID, 5);  // of several with one id the last counts
        blob_put_u32(buf, UBUS_ATTR_OBJID, object);
    });
    const Message call = provider.read();
    EXPECT_EQ(call.type, UBUS_MSG_INVOKE);
    EXPECT_EQ(call.seq, seq);
    EXPECT_EQ(call.peer, caller.id());
    EXPECT_EQ(call.ids(),
              (Ids{UBUS_ATTR_OBJID, UBUS_ATTR_METHOD, UBUS_ATTR_USER, UBUS_ATTR_GROUP, UBUS_ATTR_DATA}));
    EXPECT_FALSE(call.text(UBUS_ATTR_USER).empty());
    EXPECT_EQ(call.members(), R"({"level":3})");

    Buffer reply;
    blob_put_u32(&reply, UBUS_ATTR_OBJID, object);
    data(&reply);
    Buffer status;
    blob_put_int32(&status, UBUS_ATTR_STATUS, -77);
    blob_put_u32(&status, UBUS_ATTR_OBJID, object);
    const std::string replyBytes = bytesOf(reply->head);
    const std::string statusBytes = bytesOf(status->head);
    Peer stranger(broker.path());
    stranger.write(frame(UBUS_MSG_DATA, seq, caller.id(), replyBytes));         // not its object
    provider.write(frame(UBUS_MSG_DATA, seq, caller.id(), statusBytes));        // no DATA in it
    provider.write(frame(UBUS_MSG_STATUS, seq, caller.id() + 1, statusBytes));  // nobody
    provider.write(frame(UBUS_MSG_DATA, seq, caller.id(), replyBytes));
    provider.write(frame(UBUS_MSG_STATUS, seq, caller.id(), statusBytes));
    for (const auto &[type, bytes] :
         {std::pair{UBUS_MSG_DATA, replyBytes}, std::pair{UBUS_MSG_STATUS, statusBytes}}) {
        const Message answer = caller.read();
        EXPECT_EQ(answer.type, type);
        EXPECT_EQ(answer.seq, seq);
        EXPECT_EQ(answer.peer, object);
        EXPECT_EQ(toHex(answer.body), toHex(bytes));
    }
}

TEST_F(BusBroker, RequestsThatCannotBeServedGetTheirStatus) {
    Peer peer(broker.path());
    const auto invoke = [](uint32_t id, const char *method) {
        return [=](blob_buf *buf) {
            if (id) blob_put_u32(buf, UBUS_ATTR_OBJID, id);
            if (method) blob_put_string(buf, UBUS_ATTR_METHOD, method);
        };
    };
    const struct {
        int status;
        uint8_t type;
        Peer::Fill fill;
    } kCases[] = {
        {UBUS_STATUS_INVALID_COMMAND, UBUS_MSG_HELLO, nullptr},
        {UBUS_STATUS_INVALID_COMMAND, UBUS_MSG_MONITOR, nullptr},
        {UBUS_STATUS_INVALID_COMMAND, 12, nullptr},
        {UBUS_STATUS_INVALID_COMMAND, 255, nullptr},
        {UBUS_STATUS_NOT_SUPPORTED, UBUS_MSG_SUBSCRIBE, nullptr},
        {UBUS_STATUS_NOT_SUPPORTED, UBUS_MSG_UNSUBSCRIBE, nullptr},
        {UBUS_STATUS_NOT_SUPPORTED, UBUS_MSG_NOTIFY, nullptr},
        {UBUS_STATUS_INVALID_ARGUMENT, UBUS_MSG_INVOKE, invoke(0, "x")},
        {UBUS_STATUS_INVALID_ARGUMENT, UBUS_MSG_INVOKE, invoke(5000, nullptr)},
        {UBUS_STATUS_NOT_FOUND, UBUS_MSG_INVOKE, invoke(5000, "x")},
        {UBUS_STATUS_NOT_FOUND, UBUS_MSG_INVOKE, invoke(UBUS_SYSTEM_OBJECT_ACL, "query")},
        {UBUS_STATUS_INVALID_COMMAND, UBUS_MSG_INVOKE, invoke(UBUS_SYSTEM_OBJECT_EVENT, "x")},
        {UBUS_STATUS_INVALID_ARGUMENT, UBUS_MSG_INVOKE, invoke(UBUS_SYSTEM_OBJECT_EVENT, "send")},
        {UBUS_STATUS_INVALID_ARGUMENT, UBUS_MSG_INVOKE, invoke(UBUS_SYSTEM_OBJECT_EVENT, "register")},
        {UBUS_STATUS_METHOD_NOT_FOUND, UBUS_MSG_INVOKE, invoke(UBUS_SYSTEM_OBJECT_MONITOR, "x")},
    };
    uint32_t headerPeer = 0xfedcba98;  // repeated in the answer, whatever it is
    for (const auto &c : kCases) {
        SCOPED_TRACE(&c - kCases);
        EXPECT_EQ(peer.request(c.type, headerPeer++, c.fill), c.status);
    }
    // A ping comes back as data.
    peer.send(UBUS_MSG_PING, 9, pathOnly("anything"));
    EXPECT_EQ(peer.read().text(UBUS_ATTR_OBJPATH), "anything");
    EXPECT_EQ(peer.read().number(UBUS_ATTR_STATUS), UBUS_STATUS_OK);
}

TEST_F(BusBroker, SlowClientLosesMessagesButStaysConnected) {
    Peer slow(broker.path());
    Peer sender(broker.path());
    EXPECT_EQ(slow.listenTo(slow.addObject(), "*"), UBUS_STATUS_OK);
    const std::string text(10000, 'x');
    const auto data = [&](blob_buf *buf) { blobmsg_add_string(buf, "text", text.c_str()); };
    for (int i = 0; i < 400; i++)
        EXPECT_EQ(sender.sendEvent(std::to_string(i).c_str(), data), UBUS_STATUS_OK);
    int next = 0;
    slow.send(UBUS_MSG_PING, 0);
    for (Message message = slow.read(); message.type == UBUS_MSG_INVOKE; message = slow.read())
        EXPECT_EQ(message.text(UBUS_ATTR_METHOD), std::to_string(next++));  // the first ones, none missing
    EXPECT_GT(next, 100);
    EXPECT_LT(next, 400);
    slow.read();  // status of the ping
    EXPECT_EQ(sender.sendEvent("late", data), UBUS_STATUS_OK);
    EXPECT_EQ(slow.read().text(UBUS_ATTR_METHOD), "late");
}

TEST_F(BusBroker, LookupAnswersWaitForASlowReader) {
    constexpr int kObjects = 300;
    Peer provider(broker.path());
    const std::string method(10000, 'm');
    const auto big = [&](blob_buf *buf) {
        blobmsg_close_table(buf, blobmsg_open_table(buf, method.c_str()));
    };
    for (int i = 0; i < kObjects; i++) provider.addObject(("o" + std::to_string(i)).c_str(), big);
    Peer caller(broker.path());
    caller.send(UBUS_MSG_LOOKUP, 0);
    caller.send(UBUS_MSG_LOOKUP, 0, pathOnly("o7"));
    // Others are served meanwhile, and the objects may change.
    EXPECT_EQ(provider.request(UBUS_MSG_LOOKUP, 0, pathOnly("x")), UBUS_STATUS_NOT_FOUND);
    int found = 0;
    Message message = caller.read();
    for (; message.type == UBUS_MSG_DATA; message = caller.read()) found++;
    EXPECT_EQ(found, kObjects);
    EXPECT_EQ(message.seq, 1);
    EXPECT_EQ(caller.read().text(UBUS_ATTR_OBJPATH), "o7");
}

TEST_F(BusBroker, BrokenFramesEndOnlyTheirConnection) {
    for (const char *hex : {"000500010000000000000003", "000500010000000000000000",
                            "000500010000000000100001", "0005000100000000ffffffff"}) {
        SCOPED_TRACE(hex);
        Peer peer(broker.path());
        peer.write(fromHex(hex));
        EXPECT_TRUE(peer.closed());
    }
    EXPECT_TRUE(broker.alive());
}

TEST_F(BusBroker, MessagesMayBeCutAnywhere) {
    Peer peer(broker.path());
    Buffer buffer;
    blob_put_string(&buffer, UBUS_ATTR_OBJPATH, "nobody");
    const std::string bytes = frame(UBUS_MSG_LOOKUP, 1, 0, bytesOf(buffer->head));
    for (const char &byte : bytes) peer.write({&byte, 1});
    EXPECT_EQ(peer.read().number(UBUS_ATTR_STATUS), UBUS_STATUS_NOT_FOUND);
    peer.write(bytes + bytes + bytes.substr(0, 5));
    EXPECT_EQ(peer.read().number(UBUS_ATTR_STATUS), UBUS_STATUS_NOT_FOUND);
    EXPECT_EQ(peer.read().number(UBUS_ATTR_STATUS), UBUS_STATUS_NOT_FOUND);
    // The largest message that there may be.
    const std::string largest(UBUS_MAX_MSGLEN - 4, '\0');
    peer.write(bytes.substr(5));
    EXPECT_EQ(peer.read().number(UBUS_ATTR_STATUS), UBUS_STATUS_NOT_FOUND);
    peer.write(frame(UBUS_MSG_LOOKUP, 2, 0, fromHex("00100000") + largest));
    EXPECT_EQ(peer.read().number(UBUS_ATTR_STATUS), UBUS_STATUS_OK);
}

TEST_F(BusBroker, PassedDescriptorsAreClosed) {
    Peer peer(broker.path());
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::string bytes = frame(UBUS_MSG_LOOKUP, 1, 0, fromHex("00000004"));
    iovec part{bytes.data(), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr *rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(rights), &ends[1], sizeof(int));
    ASSERT_EQ(sendmsg(peer.fd(), &message, 0), static_cast<ssize_t>(bytes.size()));
    close(ends[1]);
    EXPECT_EQ(peer.read().number(UBUS_ATTR_STATUS), UBUS_STATUS_OK);
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), 0);  // the broker holds no end of it
    close(ends[0]);
}

TEST_F(BusBroker, StartsAndEndsAsAService) {
    struct stat status {};
    ASSERT_EQ(stat(broker.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0666U);
    broker.process().signal(SIGHUP);
    EXPECT_TRUE(broker.alive());
    // A second broker takes the path over without asking.
    Process second({UBUSD_PROGRAM, "-s", broker.path()});
    const ino_t first = status.st_ino;
    for (int i = 0; i < 5000 && (stat(broker.path().c_str(), &status) != 0 || status.st_ino == first); i++)
        usleep(1000);
    broker.stop(SIGKILL);
    EXPECT_NE(Peer(broker.path()).id(), 0U);
    second.end(SIGTERM);
    broker.start();
    EXPECT_EQ(broker.stop().exitCode, 0);
    EXPECT_NE(access(broker.path().c_str(), F_OK), 0);

    const Ended unbound = Process({UBUSD_PROGRAM, "-s", broker.path() + "/none/sock"}).wait();
    EXPECT_EQ(unbound.exitCode, 255);
    EXPECT_EQ(unbound.err.rfind("usock:", 0), 0U) << unbound.err;
    EXPECT_EQ(Process({UBUSD_PROGRAM, "-x"}).wait().exitCode, 1);
}
