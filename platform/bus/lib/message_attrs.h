// The attributes of a bus message and their types, for both ends of the wire.
#pragma once

#include "ubusmsg.h"

namespace bus {

using MessageAttrs = blob_attr *[UBUS_ATTR_MAX];

// Each entry is null when the attribute is absent, of the wrong length or type, or marked as one with a name:
// those are the members of DATA, and a reader of DATA itself would look for the name beyond its end.
inline void parseMessage(blob_attr *data, MessageAttrs &attrs) {
    static constexpr blob_attr_info kInfo[UBUS_ATTR_MAX] = {
        {BLOB_ATTR_UNSPEC, 0, 0, nullptr},  // UNSPEC
        {BLOB_ATTR_INT32, 0, 0, nullptr},   // STATUS
        {BLOB_ATTR_STRING, 0, 0, nullptr},  // OBJPATH
        {BLOB_ATTR_INT32, 0, 0, nullptr},   // OBJID
        {BLOB_ATTR_STRING, 0, 0, nullptr},  // METHOD
        {BLOB_ATTR_INT32, 0, 0, nullptr},   // OBJTYPE
        {BLOB_ATTR_NESTED, 0, 0, nullptr},  // SIGNATURE
        {BLOB_ATTR_NESTED, 0, 0, nullptr},  // DATA
        {BLOB_ATTR_INT32, 0, 0, nullptr},   // TARGET
        {BLOB_ATTR_INT8, 0, 0, nullptr},    // ACTIVE
        {BLOB_ATTR_INT8, 0, 0, nullptr},    // NO_REPLY
        {BLOB_ATTR_NESTED, 0, 0, nullptr},  // SUBSCRIBERS
        {BLOB_ATTR_STRING, 0, 0, nullptr},  // USER
        {BLOB_ATTR_STRING, 0, 0, nullptr},  // GROUP
    };
    blob_parse(data, attrs, kInfo, UBUS_ATTR_MAX);
    for (blob_attr *&attr : attrs)
        if (attr && blob_is_extended(attr)) attr = nullptr;
}

}  // namespace bus
