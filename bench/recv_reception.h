// The daemon's reader of plain receives, which a build for the ring leaves out, under other names.
#pragma once
#include "flows/kernel_side.h"
#include "switch/reception.h"

namespace am {
int recvSetUpReception(mnl_socket *socket);
Drained recvDrainPackets() REQUIRES(amEngineGate);
}  // namespace am

namespace bench {
using am::recvDrainPackets;
using am::recvSetUpReception;
}  // namespace bench
