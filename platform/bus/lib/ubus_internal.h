// Shared by the parts of the bus client: connection (ubus_connection.cpp), requests (ubus_request.cpp),
// objects and events (ubus_object.cpp).
#pragma once

#include "libubus.h"
#include "message_attrs.h"

// One message as it came: header and outer blob in wire order.
struct ubus_received {
    list_head list;
    size_t total;  // bytes of the message
    size_t have;   // of which have come
    char bytes[];

    ubus_msghdr *header() { return reinterpret_cast<ubus_msghdr *>(bytes); }
    blob_attr *data() { return reinterpret_cast<blob_attr *>(bytes + sizeof(ubus_msghdr)); }
};

namespace bus {

inline constexpr size_t kMessageHeader = sizeof(ubus_msghdr) + sizeof(blob_attr);

// The buffer in which every outgoing message is built: nothing else runs between building and sending.
extern blob_buf outgoing;

// The next message, which the caller frees with free(); null if none is complete, or the connection has ended
// (sock.eof).  mayRead: also look for it in the socket, not only in what was already read.
[[nodiscard]] ubus_received *receive(ubus_context *ctx, bool mayRead);

// The first of a list that is not empty, no longer part of it.
inline ubus_received *takeFirst(list_head *messages) {
    list_head *node = messages->next;
    messages->next = node->next;
    node->next->prev = messages;
    return list_entry(node, ubus_received, list);
}

void freeMessages(list_head *messages);

// Sends what outgoing holds.  A failure marks the connection as ended.
bool send(ubus_context *ctx, ubus_msg_type type, uint16_t seq, uint32_t peer);

// Handles one message and takes it over.
void dispatch(ubus_context *ctx, ubus_received *message);

// A call or event from the broker; the message stays the caller's.
void processInvoke(ubus_context *ctx, ubus_received *message);

// STATUS or DATA of a request of ours; takes the message over.
void processAnswer(ubus_context *ctx, ubus_received *message);

// Ends all requests and reports the loss: each time that the end is met.
void connectionEnded(ubus_context *ctx);
void failRequests(ubus_context *ctx);

// Handles what came while a call or handler was active, now or from the loop.
void servePending(ubus_context *ctx);

// Sends outgoing as a new request; UBUS_STATUS_INVALID_ARGUMENT if it is too long or cannot be sent.
int startRequest(ubus_context *ctx, ubus_request *req, ubus_msg_type type, uint32_t peer);

// DATA with the members of msg, null means none; false if there is no room.
[[nodiscard]] bool putData(const blob_attr *msg);

}  // namespace bus
