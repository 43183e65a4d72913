#define setUpReception recvSetUpReception
#define drainPacketSocket recvDrainPacketSocket
#include "netlink/reception_recv.cpp"  // NOLINT(bugprone-suspicious-include): the same source beside the ring's
