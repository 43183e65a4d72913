// The module's part that tests and people drive by hand, and its totals.
#include <cinttypes>

#include "faults.h"
#include "module.h"

namespace dpimod {

Client *Module::needPacketClient(std::string &error) const {
    Client *client = packetClient();
    if (!client) error = "no packet socket registered";
    return client;
}

bool Module::injectFrame(ByteView message, std::string &error) {
    Client *client = needPacketClient(error);
    if (!client) return false;
    if (client->ring) closeBatch(*client);
    if (!client->ring || message.size() > client->ring->room()) {
        if (toQueue(*client, message, client->ring != nullptr)) {
            client->wakeReader();
            return true;
        }
        error = "ring or queue full";
        return false;
    }
    uint8_t *payload = client->ring->nextFrame();
    if (!payload) {
        error = "ring full";
        return false;
    }
    std::copy(message.begin(), message.end(), payload);
    client->ring->publish(kFrameValid, static_cast<uint32_t>(message.size()));
    ++counters.validFrames;
    client->wakeReader();
    return true;
}

bool Module::injectCopy(const Bytes *message, std::string &error) {
    Client *client = needPacketClient(error);
    if (!client) return false;
    if (!client->ring) {
        error = "the packet socket has no ring";
        return false;
    }
    closeBatch(*client);
    if (message) {
        if (!toQueue(*client, *message, true)) error = "ring or queue full";
    } else if (client->ring->nextFrame()) {
        client->ring->publish(kFrameCopy, 0);
        ++counters.copyFrames;
    } else {
        error = "ring full";
    }
    client->wakeReader();
    return error.empty();
}

bool Module::injectZero(std::string &error) {
    Client *client = needPacketClient(error);
    if (!client) return false;
    if (client->ring) closeBatch(*client);
    if (!client->ring || !client->ring->nextFrame()) {
        error = client->ring ? "ring full" : "the packet socket has no ring";
        return false;
    }
    client->ring->publish(kFrameValid, 0);
    ++counters.zeroFrames;
    client->wakeReader();
    return true;
}

bool Module::injectControl(ByteView datagram, std::string &error) {
    Client *client = controlClient();
    if (client)
        client->queueLater(Bytes(datagram.begin(), datagram.end()));
    else
        error = "no daemon registered";
    return client != nullptr;
}

bool Module::overrun(bool control, bool bare, std::string &error) {
    Client *client = control ? controlClient() : packetClient();
    if (!client) {
        error = "no daemon registered";
        return false;
    }
    // The kernel reports an overrun when a queue is full, so there is always something to read besides.
    const Bytes unread = MessageBuilder::control(kMsgNoop, {});
    client->overrun(control && !bare ? ByteView(unread) : ByteView());
    return true;
}

bool Module::fault(bool report, const std::string &kind, std::string &error) {
    // A minimal UDP packet, and a flow that has a verdict if there is one.
    static const uint8_t kPacket[] = {0x45, 0,  0,   32, 0,    0,    0, 0,  64, 17, 0, 0, 192, 0, 2, 1,
                                      198,  51, 100, 1,  0x30, 0x39, 0, 53, 0,  12, 0, 0, 1,   2, 3, 4};
    FlowReport subject;
    const auto known = verdicts();
    if (!known.empty()) {
        subject = reportOf(known.back(), false);
    } else {
        subject.flow = inspect(kPacket)->flow;
    }
    const auto bytes = report ? faultyReport(kind, subject) : faultyPacket(kind, kPacket);
    if (!bytes) {
        error = "no fault '" + kind + "'";
        return false;
    }
    if (report ? !injectControl(*bytes, error) : !injectFrame(*bytes, error)) return false;
    ++counters.faults;
    return true;
}

Json Module::totals(const InputCounters &input) const {
    uint64_t overruns = counters.overruns;
    for (const auto &client : server_->clients()) overruns += client->overruns;
    Json json;
    json.flag("registered", packetPort_ != 0)
        .number("packet_portid", packetPort_)
        .number("control_portid", controlPort_)
        .flag("mirror", mirror_)
        .number("clients", server_->clients().size());
    const Counters &c = counters;
    const std::pair<const char *, uint64_t> numbers[] = {
        {"frames_read", input.frames},
        {"dropped_not_ip", input.notIp},
        {"dropped_too_short", input.tooShort},
        {"dropped_wrong_version", input.wrongVersion},
        {"dropped_before_reading", input.lostBefore},
        {"cut_in_capture", input.cut},
        {"offered", c.offered},
        {"mirrored", c.mirrored},
        {"mirrored_bytes", c.mirroredBytes},
        {"snapped", c.snapped},
        {"dropped_ring_full", c.droppedRing},
        {"dropped_queue_full", c.droppedQueue},
        {"dropped_no_reader", c.droppedNoReader},
        {"valid_frames", c.validFrames},
        {"copy_frames", c.copyFrames},
        {"zero_frames", c.zeroFrames},
        {"datagrams", c.datagrams},
        {"beyond_receive_buffer", c.beyondBuffer},
        {"overruns", overruns},
        {"waits_for_reader", c.waits},
        {"configs", c.configs},
        {"results", c.results},
        {"matches", c.matches},
        {"unusable_results", c.unusable},
        {"other_messages", c.otherMessages},
        {"messages_with_problems", c.problems},
        {"flows", flows.size()},
        {"classified_flows", flows.classified()},
        {"untracked_packets", flows.untracked()},
        {"reports", c.reports},
        {"report_messages", c.reportMessages},
        {"reports_skipped", c.reportsSkipped},
        {"aged", c.aged},
        {"faults", c.faults},
    };
    for (const auto &[name, value] : numbers) json.number(name, value);
    return json;
}

void Module::printTotals(FILE *out, const InputCounters &input) const {
    const Counters &c = counters;
    std::fprintf(out,
                 "packets   %" PRIu64 " read, %" PRIu64 " mirrored (%" PRIu64 " bytes), %" PRIu64 " cut\n",
                 input.frames, c.mirrored, c.mirroredBytes, c.snapped + input.cut);
    std::fprintf(out,
                 "dropped   %" PRIu64 " not IP, %" PRIu64 " too short, %" PRIu64 " wrong version, %" PRIu64
                 " before reading, %" PRIu64 " ring full, %" PRIu64 " queue full, %" PRIu64 " no reader\n",
                 input.notIp, input.tooShort, input.wrongVersion, input.lostBefore, c.droppedRing,
                 c.droppedQueue, c.droppedNoReader);
    std::fprintf(out,
                 "frames    %" PRIu64 " valid, %" PRIu64 " copy, %" PRIu64 " empty; %" PRIu64
                 " datagrams; %" PRIu64 " above 4096 bytes\n",
                 c.validFrames, c.copyFrames, c.zeroFrames, c.datagrams, c.beyondBuffer);
    std::fprintf(out,
                 "verdicts  %" PRIu64 " results, %" PRIu64 " matched, %" PRIu64 " unusable, %" PRIu64
                 " with problems\n",
                 c.results, c.matches, c.unusable, c.problems);
    std::fprintf(out,
                 "reports   %" PRIu64 " in %" PRIu64 " messages, %" PRIu64 " aged, %" PRIu64 " skipped\n",
                 c.reports, c.reportMessages, c.aged, c.reportsSkipped);
}

}  // namespace dpimod
