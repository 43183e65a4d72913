#include "requests.h"

#include "libubox/blobmsg.h"
#include "objects.h"

namespace bus {

namespace {

// No STATUS of the broker's follows.
constexpr int kNoStatus = -1;

struct Request {
    Client &client;
    const ubus_msghdr &header;
    const Body &body;
    MessageAttrs attrs;
    uint16_t seq;
    uint32_t peer;
};

blob_buf answer{};

const char *textOf(const blob_attr *attr) {
    return attr ? blob_get_string(attr) : nullptr;
}

void sendStatus(Client &client, uint16_t seq, uint32_t peer, int status) {
    blob_buf_init(&answer, 0);
    blob_put_int32(&answer, UBUS_ATTR_STATUS, status);
    send(client, UBUS_MSG_STATUS, seq, peer, finished(answer));
}

void sendAnswer(const Request &request) {
    send(request.client, UBUS_MSG_DATA, request.seq, request.peer, finished(answer));
}

// ---- lookup

void sendObject(Client &client, uint16_t seq, uint32_t peer, const Object &object) {
    if (!object.type) return;
    const std::string &signature = object.type->signature;
    blob_buf_init(&answer, 0);
    blob_put_string(&answer, UBUS_ATTR_OBJPATH, object.path.c_str());
    blob_put_u32(&answer, UBUS_ATTR_OBJID, object.id);
    blob_put_u32(&answer, UBUS_ATTR_OBJTYPE, object.type->id);
    blob_put(&answer, UBUS_ATTR_SIGNATURE, signature.data(), static_cast<unsigned int>(signature.size()));
    // Path and signature came in one message, but ids come on top.
    if (blob_raw_len(answer.head) <= UBUS_MAX_MSGLEN)
        send(client, UBUS_MSG_DATA, seq, peer, finished(answer));
}

int lookup(Request &request) {
    const char *path = textOf(request.attrs[UBUS_ATTR_OBJPATH]);
    const std::string_view wanted = path ? path : "*";
    if (wanted.empty()) return UBUS_STATUS_INVALID_ARGUMENT;
    if (!wanted.ends_with('*')) {
        const auto found = objectPaths.find(std::string(wanted));
        if (found == objectPaths.end()) return UBUS_STATUS_NOT_FOUND;
        sendObject(request.client, request.seq, request.peer, *found->second);
        return UBUS_STATUS_OK;
    }
    request.client.lookup =
        Lookup{request.seq, request.peer, std::string(wanted.substr(0, wanted.size() - 1)), std::nullopt,
               path != nullptr};
    continueLookup(request.client);
    return kNoStatus;
}

// ---- objects

int addObjectOf(Request &request) {
    blob_attr *path = request.attrs[UBUS_ATTR_OBJPATH];
    blob_attr *signature = request.attrs[UBUS_ATTR_SIGNATURE];
    if (path && !*blob_get_string(path)) return UBUS_STATUS_INVALID_ARGUMENT;
    if (path && objectPaths.count(blob_get_string(path))) return UBUS_STATUS_INVALID_ARGUMENT;
    std::shared_ptr<ObjectType> type;
    if (request.attrs[UBUS_ATTR_OBJTYPE])
        type = findType(blob_get_u32(request.attrs[UBUS_ATTR_OBJTYPE]));
    else if (signature)
        type = addType(signature);
    const Object *object = addObject(request.client, path ? blob_get_string(path) : "", std::move(type));
    if (!object) return UBUS_STATUS_INVALID_ARGUMENT;
    announceObject(*object, "ubus.object.add");
    blob_buf_init(&answer, 0);
    blob_put_u32(&answer, UBUS_ATTR_OBJID, object->id);
    if (signature && object->type) blob_put_u32(&answer, UBUS_ATTR_OBJTYPE, object->type->id);
    sendAnswer(request);
    return UBUS_STATUS_OK;
}

// The object is gone for everybody before they hear of it.
void removeAndAnnounce(Object &object) {
    const Object copy = object;
    dropObject(object);
    announceObject(copy, "ubus.object.remove");
}

int removeObject(Request &request) {
    if (!request.attrs[UBUS_ATTR_OBJID]) return UBUS_STATUS_INVALID_ARGUMENT;
    Object *object = findObject(blob_get_u32(request.attrs[UBUS_ATTR_OBJID]));
    if (!object) return UBUS_STATUS_NOT_FOUND;
    if (object->owner != &request.client) return UBUS_STATUS_PERMISSION_DENIED;
    blob_buf_init(&answer, 0);
    blob_put_u32(&answer, UBUS_ATTR_OBJID, object->id);
    if (object->type && object->type.use_count() == 1)
        blob_put_u32(&answer, UBUS_ATTR_OBJTYPE, object->type->id);
    sendAnswer(request);
    removeAndAnnounce(*object);
    return UBUS_STATUS_OK;
}

// ---- calls

int invokeEventObject(Request &request, std::string_view method) {
    blob_attr *data = request.attrs[UBUS_ATTR_DATA];
    if (method == "register") return registerEvent(request.client, data);
    if (method == "send") return sendEvent(request.client, data);
    return UBUS_STATUS_INVALID_COMMAND;
}

int invokeMonitorObject(Request &request, std::string_view method) {
    if (method != "add" && method != "remove") return UBUS_STATUS_METHOD_NOT_FOUND;
    request.client.monitors = method == "add";
    request.client.monitorSeq = 0;
    return UBUS_STATUS_OK;
}

int invoke(Request &request) {
    const MessageAttrs &attrs = request.attrs;
    if (!attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_METHOD]) return UBUS_STATUS_INVALID_ARGUMENT;
    const uint32_t id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
    const char *method = blob_get_string(attrs[UBUS_ATTR_METHOD]);
    if (id == UBUS_SYSTEM_OBJECT_EVENT) return invokeEventObject(request, method);
    if (id == UBUS_SYSTEM_OBJECT_MONITOR) return invokeMonitorObject(request, method);
    const Object *object = findObject(id);
    if (!object) return UBUS_STATUS_NOT_FOUND;
    blob_buf_init(&answer, 0);
    blob_put_u32(&answer, UBUS_ATTR_OBJID, id);
    blob_put_string(&answer, UBUS_ATTR_METHOD, method);
    blob_put_string(&answer, UBUS_ATTR_USER, request.client.user.c_str());
    blob_put_string(&answer, UBUS_ATTR_GROUP, request.client.group.c_str());
    if (const blob_attr *data = attrs[UBUS_ATTR_DATA])
        blob_put(&answer, UBUS_ATTR_DATA, blob_data(data), static_cast<unsigned int>(blob_len(data)));
    // The names may push a call over the limit, for which the provider would give up its connection.
    if (blob_raw_len(answer.head) > UBUS_MAX_MSGLEN) return UBUS_STATUS_INVALID_ARGUMENT;
    send(*object->owner, UBUS_MSG_INVOKE, request.seq, request.client.id, finished(answer));
    return kNoStatus;
}

// STATUS and DATA of a provider go to the caller that the header names, as they are.
int passOn(Request &request) {
    const bool status = request.header.type == UBUS_MSG_STATUS;
    const blob_attr *id = request.attrs[UBUS_ATTR_OBJID];
    if (!id || !request.attrs[status ? UBUS_ATTR_STATUS : UBUS_ATTR_DATA]) return kNoStatus;
    const Object *object = findObject(blob_get_u32(id));
    Client *caller = findClient(request.peer);
    if (!object || object->owner != &request.client || !caller) return kNoStatus;
    send(*caller, static_cast<ubus_msg_type>(request.header.type), request.seq, object->id, request.body);
    return kNoStatus;
}

int ping(Request &request) {
    send(request.client, UBUS_MSG_DATA, request.seq, request.peer, request.body);
    return UBUS_STATUS_OK;
}

int handle(Request &request) {
    switch (request.header.type) {
        case UBUS_MSG_STATUS:
        case UBUS_MSG_DATA:
            return passOn(request);
        case UBUS_MSG_PING:
            return ping(request);
        case UBUS_MSG_LOOKUP:
            return lookup(request);
        case UBUS_MSG_INVOKE:
            return invoke(request);
        case UBUS_MSG_ADD_OBJECT:
            return addObjectOf(request);
        case UBUS_MSG_REMOVE_OBJECT:
            return removeObject(request);
        case UBUS_MSG_SUBSCRIBE:
        case UBUS_MSG_UNSUBSCRIBE:
        case UBUS_MSG_NOTIFY:
            return UBUS_STATUS_NOT_SUPPORTED;
        default:
            return UBUS_STATUS_INVALID_COMMAND;
    }
}

}  // namespace

Body finished(const blob_buf &buffer) {
    return std::make_shared<const std::string>(reinterpret_cast<const char *>(buffer.head),
                                               blob_raw_len(buffer.head));
}

void handleMessage(Client &client, const ubus_msghdr &header, const Body &body) {
    copyToMonitors(client, header, *body, false);
    Request request{client, header, body, {}, be16_to_cpu(header.seq), be32_to_cpu(header.peer)};
    auto *outer = reinterpret_cast<blob_attr *>(const_cast<char *>(body->data()));
    parseMessage(outer, request.attrs);
    const int status = handle(request);
    if (status != kNoStatus) sendStatus(client, request.seq, request.peer, status);
}

void continueLookup(Client &client) {
    Lookup &lookup = *client.lookup;
    auto it = lookup.last ? objectPaths.upper_bound(*lookup.last) : objectPaths.lower_bound(lookup.prefix);
    for (; it != objectPaths.end() && it->first.starts_with(lookup.prefix); ++it) {
        if (!client.queue.empty()) return;
        sendObject(client, lookup.seq, lookup.peer, *it->second);
        lookup.last = it->first;
    }
    const Lookup done = std::move(lookup);
    client.lookup.reset();
    sendStatus(client, done.seq, done.peer,
               done.last || !done.needsMatch ? UBUS_STATUS_OK : UBUS_STATUS_NOT_FOUND);
}

void removeObjects(Client &client) {
    const std::vector<Object *> going = std::move(client.objects);
    client.objects.clear();
    for (Object *object : going) removeAndAnnounce(*object);
}

void copyToMonitors(const Client &client, const ubus_msghdr &header, const std::string &body, bool sent) {
    if (header.type == UBUS_MSG_MONITOR) return;
    static blob_buf copy{};
    Body message;
    for (const auto &entry : clients) {
        Client &monitor = *entry.second;
        if (!monitor.monitors || monitor.doomed) continue;
        if (!message) {
            const auto *outer = reinterpret_cast<const blob_attr *>(body.data());
            blob_buf_init(&copy, 0);
            blob_put_u32(&copy, UBUS_MONITOR_CLIENT, client.id);
            blob_put_u32(&copy, UBUS_MONITOR_PEER, be32_to_cpu(header.peer));
            blob_put_u32(&copy, UBUS_MONITOR_SEQ, be16_to_cpu(header.seq));
            blob_put_u32(&copy, UBUS_MONITOR_TYPE, header.type);
            blob_put_u8(&copy, UBUS_MONITOR_SEND, sent);
            blob_put(&copy, UBUS_MONITOR_DATA, blob_data(outer), static_cast<unsigned int>(blob_len(outer)));
            if (blob_raw_len(copy.head) > UBUS_MAX_MSGLEN) return;  // no frame can hold it
            message = finished(copy);
        }
        send(monitor, UBUS_MSG_MONITOR, ++monitor.monitorSeq, 0, message);
    }
}

}  // namespace bus
