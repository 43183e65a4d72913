#include "objects.h"

#include <algorithm>
#include <unordered_map>

#include "libubox/blobmsg.h"
#include "requests.h"

namespace bus {

std::map<std::string, Object *> objectPaths;

namespace {

// In front of the objects, whose end takes the last user of a type away.
std::unordered_map<uint32_t, std::weak_ptr<ObjectType>> types;
std::unordered_map<uint32_t, std::unique_ptr<Object>> objects;
Patterns patterns;
uint64_t eventCount = 0;

void deliver(Object &object, const char *event, const blob_attr *members) {
    static blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    blob_put_u32(&buffer, UBUS_ATTR_OBJID, object.id);
    blob_put_string(&buffer, UBUS_ATTR_METHOD, event);
    if (!blob_put(&buffer, UBUS_ATTR_DATA, blobmsg_data(members),
                  static_cast<unsigned int>(blobmsg_data_len(members))))
        return;
    send(*object.owner, UBUS_MSG_INVOKE, static_cast<uint16_t>(eventCount), 0, finished(buffer));
}

// To each object once, however many of its patterns match; not to the sender's own (null: to all).
void deliverEvent(const Client *sender, const char *event, const blob_attr *members) {
    eventCount++;
    const std::string_view name = event;
    for (const auto &[text, pattern] : patterns) {
        if (!(pattern.prefix ? name.starts_with(text) : name == text)) continue;
        if (pattern.object->owner == sender || pattern.object->lastEvent == eventCount) continue;
        pattern.object->lastEvent = eventCount;
        deliver(*pattern.object, event, members);
    }
}

}  // namespace

Object *addObject(Client &owner, std::string_view path, std::shared_ptr<ObjectType> type) {
    std::string name(path);
    if (!name.empty() && objectPaths.count(name)) return nullptr;
    auto owned = std::make_unique<Object>(Object{freeId(objects), &owner, std::move(type), name, 0, {}});
    Object *object = owned.get();
    objects.emplace(object->id, std::move(owned));
    owner.objects.push_back(object);
    if (!name.empty()) objectPaths.emplace(std::move(name), object);
    return object;
}

Object *findObject(uint32_t id) {
    const auto found = objects.find(id);
    return found == objects.end() ? nullptr : found->second.get();
}

void dropObject(Object &object) {
    for (const auto &pattern : object.patterns) patterns.erase(pattern);
    if (!object.path.empty()) objectPaths.erase(object.path);
    std::erase(object.owner->objects, &object);
    objects.erase(object.id);
}

std::shared_ptr<ObjectType> addType(blob_attr *signature) {
    blob_attr *method;
    size_t rem;
    blob_for_each_attr(method, signature, rem) {
        if (!blobmsg_check_attr_len(method, true, rem)) return nullptr;
    }
    const auto forget = [](const ObjectType *type) {
        types.erase(type->id);
        delete type;
    };
    std::shared_ptr<ObjectType> type(
        new ObjectType{freeId(types),
                       std::string(static_cast<const char *>(blob_data(signature)), blob_len(signature))},
        forget);
    types.emplace(type->id, type);
    return type;
}

std::shared_ptr<ObjectType> findType(uint32_t id) {
    const auto found = types.find(id);
    return found == types.end() ? nullptr : found->second.lock();
}

int registerEvent(Client &client, blob_attr *data) {
    enum { kObject, kPattern, kCount };
    static constexpr blobmsg_policy kPolicy[kCount] = {{"object", BLOBMSG_TYPE_INT32},
                                                       {"pattern", BLOBMSG_TYPE_STRING}};
    blob_attr *members[kCount];
    blobmsg_parse_attr(kPolicy, kCount, members, data);
    if (!members[kObject] || !members[kPattern]) return UBUS_STATUS_INVALID_ARGUMENT;
    const uint32_t id = blobmsg_get_u32(members[kObject]);
    std::string pattern = blobmsg_get_string(members[kPattern]);
    if (id < UBUS_SYSTEM_OBJECT_MAX || pattern.empty()) return UBUS_STATUS_PERMISSION_DENIED;
    Object *object = findObject(id);
    if (!object) return UBUS_STATUS_NOT_FOUND;
    if (object->owner != &client) return UBUS_STATUS_PERMISSION_DENIED;
    const bool prefix = pattern.back() == '*';
    if (prefix) pattern.pop_back();
    object->patterns.push_back(patterns.emplace(std::move(pattern), Pattern{prefix, object}));
    return UBUS_STATUS_OK;
}

int sendEvent(Client &client, blob_attr *data) {
    enum { kId, kData, kCount };
    static constexpr blobmsg_policy kPolicy[kCount] = {{"id", BLOBMSG_TYPE_STRING},
                                                       {"data", BLOBMSG_TYPE_TABLE}};
    blob_attr *members[kCount];
    blobmsg_parse_attr(kPolicy, kCount, members, data);
    if (!members[kId] || !members[kData]) return UBUS_STATUS_INVALID_ARGUMENT;
    const char *event = blobmsg_get_string(members[kId]);
    if (std::string_view(event).starts_with("ubus.")) return UBUS_STATUS_PERMISSION_DENIED;
    deliverEvent(&client, event, members[kData]);
    return UBUS_STATUS_OK;
}

void announceObject(const Object &object, const char *event) {
    if (object.path.empty()) return;
    static blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    blobmsg_add_u32(&buffer, "id", object.id);
    blobmsg_add_string(&buffer, "path", object.path.c_str());
    deliverEvent(nullptr, event, buffer.head);
}

}  // namespace bus
