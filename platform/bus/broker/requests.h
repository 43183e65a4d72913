// What the broker does with a message: its own answers, and passing calls on.  It keeps no record of calls in
// flight: a provider that dies leaves its callers to their timeouts.
#pragma once

#include "client.h"

namespace bus {

void handleMessage(Client &client, const ubus_msghdr &header, const Body &body);

// Answers as many objects as fit, and ends the lookup once all are out.
void continueLookup(Client &client);

// Takes away all objects of a client that is going.
void removeObjects(Client &client);

// A copy of a message for each client that monitors.
void copyToMonitors(const Client &client, const ubus_msghdr &header, const std::string &body, bool sent);

// What is being built, as a message.
Body finished(const blob_buf &buffer);

}  // namespace bus
