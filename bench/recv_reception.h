// The daemon's reader of plain receives, which a build for the ring leaves out, under other names.
#pragma once
#include "switch/reception.h"

namespace am {
int recvSetUpReception(mnl_socket *socket);
Drained recvDrainPacketSocket() REQUIRES(amEngineGate);
}  // namespace am

namespace bench {
using am::recvDrainPacketSocket;
using am::recvSetUpReception;
}  // namespace bench
