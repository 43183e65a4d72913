// Where the broker listens unless told otherwise.
#pragma once

#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"
