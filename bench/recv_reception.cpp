#define setUpReception recvSetUpReception
#define drainPackets recvDrainPackets
#include "switch/reception_recv.cpp"  // NOLINT(bugprone-suspicious-include): the same source beside the ring's
