#include "ubus_internal.h"

namespace {

using bus::outgoing;

void sendStatus(ubus_context *ctx, const ubus_request_data &req, int status) {
    blob_buf_init(&outgoing, 0);
    blob_put_int32(&outgoing, UBUS_ATTR_STATUS, status);
    blob_put_u32(&outgoing, UBUS_ATTR_OBJID, req.object);
    bus::send(ctx, UBUS_MSG_STATUS, req.seq, req.peer);
}

ubus_object *findObject(ubus_context *ctx, uint32_t id) {
    ubus_object *object;
    list_for_each_entry(object, &ctx->objects, avl) {
        if (object->id == id) return object;
    }
    return nullptr;
}

const ubus_method *findMethod(const ubus_object &object, const char *name) {
    for (int i = 0; i < object.n_methods; i++) {
        const ubus_method &method = object.methods[i];
        if (!method.name || strcmp(method.name, name) == 0) return &method;
    }
    return nullptr;
}

int invoke(ubus_context *ctx, bus::MessageAttrs &attrs, ubus_request_data *req) {
    ubus_object *object = findObject(ctx, req->object);
    if (!object) return UBUS_STATUS_NOT_FOUND;
    if (!attrs[UBUS_ATTR_METHOD]) return UBUS_STATUS_INVALID_ARGUMENT;
    const char *name = blob_get_string(attrs[UBUS_ATTR_METHOD]);
    const ubus_method *method = findMethod(*object, name);
    if (!method) return UBUS_STATUS_METHOD_NOT_FOUND;
    if (!attrs[UBUS_ATTR_DATA]) return UBUS_STATUS_INVALID_ARGUMENT;
    req->acl.object = object->name;
    return method->handler(ctx, object, req, name, attrs[UBUS_ATTR_DATA]);
}

void putMethod(const ubus_method &method) {
    void *table = blobmsg_open_table(&outgoing, method.name);
    for (int i = 0; i < method.n_policy; i++) {
        if (!method.policy[i].name || (method.mask && !(method.mask >> i & 1))) continue;
        blobmsg_add_u32(&outgoing, method.policy[i].name, static_cast<uint32_t>(method.policy[i].type));
    }
    blobmsg_close_table(&outgoing, table);
}

void putSignature(const ubus_object_type &type) {
    void *signature = blob_nest_start(&outgoing, UBUS_ATTR_SIGNATURE);
    for (int i = 0; i < type.n_methods; i++) putMethod(type.methods[i]);
    blob_nest_end(&outgoing, signature);
}

void unlinkObject(ubus_context *ctx, const ubus_object *wanted) {
    ubus_object *object;
    list_for_each_entry(object, &ctx->objects, avl) {
        if (object != wanted) continue;
        list_del(&object->avl);
        return;
    }
}

void onObjectAdded(ubus_request *req, int, blob_attr *data) {
    auto *object = static_cast<ubus_object *>(req->priv);
    bus::MessageAttrs attrs;
    bus::parseMessage(data, attrs);
    if (!attrs[UBUS_ATTR_OBJID]) return;
    object->id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
    if (attrs[UBUS_ATTR_OBJTYPE] && object->type) object->type->id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]);
    unlinkObject(req->ctx, object);
    list_add_tail(&object->avl, &req->ctx->objects);
}

void onObjectRemoved(ubus_request *req, int, blob_attr *data) {
    auto *object = static_cast<ubus_object *>(req->priv);
    bus::MessageAttrs attrs;
    bus::parseMessage(data, attrs);
    if (!attrs[UBUS_ATTR_OBJID]) return;
    object->id = 0;
    if (attrs[UBUS_ATTR_OBJTYPE] && object->type) object->type->id = 0;
    unlinkObject(req->ctx, object);
}

int onEvent(ubus_context *ctx, ubus_object *object, ubus_request_data *, const char *method, blob_attr *msg) {
    auto *handler = container_of(object, ubus_event_handler, obj);
    handler->cb(ctx, handler, method, msg);
    return UBUS_STATUS_OK;
}

constexpr ubus_method kEventMethod = {nullptr, onEvent, 0, 0, nullptr, 0};

}  // namespace

void bus::processInvoke(ubus_context *ctx, ubus_received *message) {
    bus::MessageAttrs attrs;
    parseMessage(message->data(), attrs);
    if (!attrs[UBUS_ATTR_OBJID]) return;
    ubus_request_data req{};
    req.object = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
    req.peer = be32_to_cpu(message->header()->peer);
    req.seq = be16_to_cpu(message->header()->seq);
    req.fd = req.req_fd = -1;
    if (attrs[UBUS_ATTR_USER] && attrs[UBUS_ATTR_GROUP]) {
        req.acl.user = blob_get_string(attrs[UBUS_ATTR_USER]);
        req.acl.group = blob_get_string(attrs[UBUS_ATTR_GROUP]);
    }
    const bool noReply = attrs[UBUS_ATTR_NO_REPLY] && blob_get_int8(attrs[UBUS_ATTR_NO_REPLY]);
    ctx->stack_depth++;
    const int status = invoke(ctx, attrs, &req);
    ctx->stack_depth--;
    if (!req.deferred && !noReply) sendStatus(ctx, req, status);
}

int ubus_add_object(ubus_context *ctx, ubus_object *obj) {
    blob_buf_init(&outgoing, 0);
    if (obj->name && obj->type) {
        blob_put_string(&outgoing, UBUS_ATTR_OBJPATH, obj->name);
        if (obj->type->id)
            blob_put_u32(&outgoing, UBUS_ATTR_OBJTYPE, obj->type->id);
        else
            putSignature(*obj->type);
    }
    ubus_request req;
    const int sent = bus::startRequest(ctx, &req, UBUS_MSG_ADD_OBJECT, 0);
    if (sent != UBUS_STATUS_OK) return sent;
    req.raw_data_cb = onObjectAdded;
    req.priv = obj;
    const int status = ubus_complete_request(ctx, &req, 0);
    if (status != UBUS_STATUS_OK) return status;
    return obj->id ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA;
}

int ubus_remove_object(ubus_context *ctx, ubus_object *obj) {
    blob_buf_init(&outgoing, 0);
    blob_put_u32(&outgoing, UBUS_ATTR_OBJID, obj->id);
    ubus_request req;
    const int sent = bus::startRequest(ctx, &req, UBUS_MSG_REMOVE_OBJECT, 0);
    if (sent != UBUS_STATUS_OK) return sent;
    req.raw_data_cb = onObjectRemoved;
    req.priv = obj;
    const int status = ubus_complete_request(ctx, &req, 0);
    if (status != UBUS_STATUS_OK) return status;
    return obj->id ? UBUS_STATUS_NO_DATA : UBUS_STATUS_OK;
}

int ubus_send_reply(ubus_context *ctx, ubus_request_data *req, blob_attr *msg) {
    blob_buf_init(&outgoing, 0);
    blob_put_u32(&outgoing, UBUS_ATTR_OBJID, req->object);
    if (!bus::putData(msg)) return UBUS_STATUS_NO_DATA;
    return bus::send(ctx, UBUS_MSG_DATA, req->seq, req->peer) ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA;
}

void ubus_complete_deferred_request(ubus_context *ctx, ubus_request_data *req, int ret) {
    sendStatus(ctx, *req, ret);
}

int ubus_register_event_handler(ubus_context *ctx, ubus_event_handler *ev, const char *pattern) {
    if (!ev->obj.id) {
        ev->obj.methods = &kEventMethod;
        ev->obj.n_methods = 1;
        const int status = ubus_add_object(ctx, &ev->obj);
        if (status != UBUS_STATUS_OK) return status;
    }
    blob_buf arguments{};
    blob_buf_init(&arguments, 0);
    blobmsg_add_u32(&arguments, "object", ev->obj.id);
    if (pattern) blobmsg_add_string(&arguments, "pattern", pattern);
    const int status =
        ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", arguments.head, nullptr, nullptr, 0);
    blob_buf_free(&arguments);
    return status;
}

int ubus_send_event(ubus_context *ctx, const char *id, blob_attr *data) {
    blob_buf_init(&outgoing, 0);
    blob_put_u32(&outgoing, UBUS_ATTR_OBJID, UBUS_SYSTEM_OBJECT_EVENT);
    blob_put_string(&outgoing, UBUS_ATTR_METHOD, "send");
    void *message = blob_nest_start(&outgoing, UBUS_ATTR_DATA);
    blobmsg_add_string(&outgoing, "id", id);
    const int added =
        blobmsg_add_field(&outgoing, BLOBMSG_TYPE_TABLE, "data", data ? blob_data(data) : nullptr,
                          data ? static_cast<unsigned int>(blob_len(data)) : 0);
    blob_nest_end(&outgoing, message);
    if (added != 0) return UBUS_STATUS_INVALID_ARGUMENT;
    ubus_request req;
    const int sent = bus::startRequest(ctx, &req, UBUS_MSG_INVOKE, UBUS_SYSTEM_OBJECT_EVENT);
    return sent == UBUS_STATUS_OK ? ubus_complete_request(ctx, &req, 0) : sent;
}
