// Registered objects, their types (signatures) and the event patterns that they listen to.
#pragma once

#include "client.h"
#include "message_attrs.h"

namespace bus {

// Ids are handed out for each registration: equal signatures of two clients are two types.
struct ObjectType {
    uint32_t id;
    std::string signature;  // members of the SIGNATURE attribute
};

struct Object;

struct Pattern {
    bool prefix;
    Object *object;
};

using Patterns = std::multimap<std::string, Pattern>;  // equal ones stay in order of registration

struct Object {
    uint32_t id;
    Client *owner;
    std::shared_ptr<ObjectType> type;  // null: never shown in a lookup
    std::string path;                  // empty: anonymous
    uint64_t lastEvent;                // number of the event delivered last
    std::vector<Patterns::iterator> patterns;
};

extern std::map<std::string, Object *> objectPaths;  // bytewise order

// Null if the path is taken.
Object *addObject(Client &owner, std::string_view path, std::shared_ptr<ObjectType> type);
Object *findObject(uint32_t id);
// Also its patterns.  The object is gone afterwards.
void dropObject(Object &object);

// A new type; null if a method has no name.
std::shared_ptr<ObjectType> addType(blob_attr *signature);
std::shared_ptr<ObjectType> findType(uint32_t id);

// The two methods of the event object; a UBUS_STATUS number.
int registerEvent(Client &client, blob_attr *data);
int sendEvent(Client &client, blob_attr *data);
// ubus.object.add and ubus.object.remove, for objects with a path.
void announceObject(const Object &object, const char *event);

}  // namespace bus
