// A tiny engine that tells the test what becomes of it.  Which entries it has is decided when it is built.
#include <sys/time.h>

struct capture_pkt;

extern "C" {
void testEngineStarted(int *alive);
void testEnginePacket(const int *alive);
void testEngineStopped(int *alive);
void noSuchSymbolAnywhere();

#if defined(ENGINE_START)
__attribute__((visibility("default"))) void test_capture();
#endif
#if defined(ENGINE_PACKET)
__attribute__((visibility("default"))) void pcap_packet(const capture_pkt *pkt, const timeval *ts);
#endif
#if defined(ENGINE_EXIT)
__attribute__((visibility("default"))) void test_capture_exit();
#endif
}

namespace {
// Plain on purpose: the thread sanitizer sees a packet that overlaps a start or an exit.
[[maybe_unused]] int alive;
}  // namespace

#if defined(ENGINE_START)
void test_capture() {
    alive = 1;
    testEngineStarted(&alive);
}
#endif
#if defined(ENGINE_PACKET)
void pcap_packet(const capture_pkt *, const timeval *) {
    testEnginePacket(&alive);
}
#endif
#if defined(ENGINE_EXIT)
void test_capture_exit() {
    testEngineStopped(&alive);
    alive = 0;
}
#endif

#if defined(ENGINE_UNRESOLVED)
__attribute__((visibility("default"))) void unresolved();
void unresolved() {
    noSuchSymbolAnywhere();
}
#endif
