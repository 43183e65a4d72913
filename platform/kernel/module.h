// The DPI kernel module's behaviour: who gets packets, in what shape, what becomes of verdicts, what is
// reported.
//
// Nothing is mirrored before a daemon has registered its packet socket and switched mirroring on.  When
// either of a daemon's two sockets closes, both the registration and the mirror setting end with it; the
// flows stay.
//
// One thread.  Times are milliseconds of the monotonic clock.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "client.h"
#include "flow_table.h"
#include "output.h"
#include "packet_source.h"
#include "settings.h"

namespace dpimod {

struct Counters {
    uint64_t offered = 0;  // IP packets that the input had
    uint64_t mirrored = 0, mirroredBytes = 0;
    uint64_t validFrames = 0, copyFrames = 0, zeroFrames = 0, datagrams = 0;
    uint64_t beyondBuffer = 0;  // messages above 4096 bytes, which the daemon's receive cuts
    uint64_t droppedRing = 0, droppedQueue = 0, droppedNoReader = 0;
    uint64_t snapped = 0;
    uint64_t configs = 0, results = 0, matches = 0, unusable = 0, otherMessages = 0, problems = 0;
    uint64_t reports = 0, reportMessages = 0, aged = 0, reportsSkipped = 0;
    uint64_t faults = 0, overruns = 0, waits = 0;
};

class Module {
  public:
    enum class Delivery { done, full, noReader };
    Module(Settings &settings, Output &output);

    // From the clients.
    void message(Client &from, ByteView datagram, uint64_t now);
    void changed(const Client &client, const char *what);
    void useServer(ClientServer &server) { server_ = &server; }

    // True when packets have somewhere to go.
    [[nodiscard]] bool mirroring() const;
    // Mirrors a packet.  `full`: nothing happened, try again; with `drop` it is counted and dropped instead.
    Delivery deliver(ByteView ip, bool drop, uint64_t now);
    // Ends a burst of packets: hands over what was put together, and wakes the reader.
    void endBurst();
    // Asks to be woken when the ring has room; false if it has.
    bool waitForSpace();
    // True when the readers have taken everything that was sent, and everything they sent was taken here.
    [[nodiscard]] bool quiet() const;
    // Moves queued reports on.
    void flush();

    void reportNow();
    void age(uint64_t now, bool all);

    // Commands; false with a text in `error` when there is nobody to send to or no room.
    bool injectFrame(ByteView message, std::string &error);
    bool injectCopy(const Bytes *message, std::string &error);  // null: the frame alone, its message missing
    bool injectZero(std::string &error);
    bool injectControl(ByteView datagram, std::string &error);
    // ENOBUFS on one of the sockets; `bare`: without the unread message that always comes with it.
    bool overrun(bool control, bool bare, std::string &error);
    bool fault(bool report, const std::string &kind, std::string &error);
    void restart();
    void clear();

    [[nodiscard]] Json totals(const InputCounters &input) const;
    // Classified flows, those that have aged too, in the order of their first verdict.
    [[nodiscard]] std::vector<Flow> verdicts() const;
    void printTotals(FILE *out, const InputCounters &input) const;

    FlowTable flows;
    Counters counters;

  private:
    [[nodiscard]] Client *packetClient() const;
    [[nodiscard]] Client *controlClient() const;
    Client *needPacketClient(std::string &error) const;
    bool toFrame(Client &client, ByteView ip);
    bool toQueue(Client &client, ByteView message, bool copyFrame);
    bool closeBatch(Client &client);
    void afterPacket(Client &client, ByteView ip);
    void sendReports(const std::vector<FlowReport> &reports);
    [[nodiscard]] FlowReport reportOf(const Flow &flow, bool aged) const;
    void note(const std::vector<std::string> &problems);

    Settings &settings_;
    Output &output_;
    ClientServer *server_ = nullptr;
    uint32_t packetPort_ = 0, controlPort_ = 0;  // 0: nobody registered
    bool mirror_ = false;
    // Frame that is being filled with several messages.
    size_t batchUsed_ = 0;
    uint64_t batchCount_ = 0;
    uint64_t faultClock_ = 0, reportClock_ = 0, copyClock_ = 0, zeroClock_ = 0;
    std::vector<Flow> past_;
    Bytes scratch_;
};

}  // namespace dpimod
