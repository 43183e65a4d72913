// Messages on the bus socket: this header, then one outer blob (id 0) of plain attributes.
//
//   offset  size
//   0       1     version, 0
//   1       1     type, UBUS_MSG_*
//   2       2     sequence number, big-endian: chosen by who asks, repeated in each answer
//   4       4     peer, big-endian
//   8       4     word of the outer blob; its length is 4..UBUS_MAX_MSGLEN, padding does not follow
#pragma once

#include <libubox/blob.h>
#include <stdint.h>

#define UBUS_MAX_MSGLEN 1048576

#define UBUS_SYSTEM_OBJECT_EVENT 1
#define UBUS_SYSTEM_OBJECT_ACL 2
#define UBUS_SYSTEM_OBJECT_MONITOR 3
#define UBUS_SYSTEM_OBJECT_MAX 1024  // ids below are reserved

struct ubus_msghdr {
    uint8_t version;
    uint8_t type;
    uint16_t seq;   // network byte order
    uint32_t peer;  // network byte order
} __packed;

enum ubus_msg_type {
    UBUS_MSG_HELLO = 0,   // from the broker, first on each connection; peer = the client's id
    UBUS_MSG_STATUS = 1,  // ends a request
    UBUS_MSG_DATA = 2,    // reply data
    UBUS_MSG_PING = 3,    // answered with the same bytes
    UBUS_MSG_LOOKUP = 4,
    UBUS_MSG_INVOKE = 5,  // call of a method, delivery of an event
    UBUS_MSG_ADD_OBJECT = 6,
    UBUS_MSG_REMOVE_OBJECT = 7,
    UBUS_MSG_SUBSCRIBE = 8,
    UBUS_MSG_UNSUBSCRIBE = 9,
    UBUS_MSG_NOTIFY = 10,
    UBUS_MSG_MONITOR = 11,  // copy of traffic
    __UBUS_MSG_LAST = 12
};

enum ubus_msg_attr {
    UBUS_ATTR_UNSPEC = 0,
    UBUS_ATTR_STATUS = 1,        // int32
    UBUS_ATTR_OBJPATH = 2,       // string
    UBUS_ATTR_OBJID = 3,         // int32
    UBUS_ATTR_METHOD = 4,        // string
    UBUS_ATTR_OBJTYPE = 5,       // int32
    UBUS_ATTR_SIGNATURE = 6,     // a table per method: argument name to type number
    UBUS_ATTR_DATA = 7,          // blobmsg members
    UBUS_ATTR_TARGET = 8,        // int32
    UBUS_ATTR_ACTIVE = 9,        // int8
    UBUS_ATTR_NO_REPLY = 10,     // int8
    UBUS_ATTR_SUBSCRIBERS = 11,  // int32 attributes
    UBUS_ATTR_USER = 12,         // string
    UBUS_ATTR_GROUP = 13,        // string
    UBUS_ATTR_MAX = 14
};

// Attributes of UBUS_MSG_MONITOR.
enum ubus_monitor_attr {
    UBUS_MONITOR_CLIENT = 0,  // int32, id
    UBUS_MONITOR_PEER = 1,    // int32, of the message's header
    UBUS_MONITOR_SEND = 2,    // int8, 1 = sent by the broker
    UBUS_MONITOR_SEQ = 3,     // int32
    UBUS_MONITOR_TYPE = 4,    // int32, UBUS_MSG_*
    UBUS_MONITOR_DATA = 5,    // the message's attributes
    UBUS_MONITOR_MAX = 6
};

enum ubus_msg_status {
    UBUS_STATUS_OK = 0,
    UBUS_STATUS_INVALID_COMMAND = 1,
    UBUS_STATUS_INVALID_ARGUMENT = 2,
    UBUS_STATUS_METHOD_NOT_FOUND = 3,
    UBUS_STATUS_NOT_FOUND = 4,
    UBUS_STATUS_NO_DATA = 5,
    UBUS_STATUS_PERMISSION_DENIED = 6,
    UBUS_STATUS_TIMEOUT = 7,
    UBUS_STATUS_NOT_SUPPORTED = 8,
    UBUS_STATUS_UNKNOWN_ERROR = 9,
    UBUS_STATUS_CONNECTION_FAILED = 10,
    UBUS_STATUS_NO_MEMORY = 11,
    UBUS_STATUS_PARSE_ERROR = 12,
    UBUS_STATUS_SYSTEM_ERROR = 13,
    __UBUS_STATUS_LAST = 14
};
