#include "module.h"

#include <algorithm>
#include <cstring>

#include "faults.h"

namespace dpimod {
namespace {

constexpr size_t kMaxPast = 200000;     // aged verdicts kept for the table at the end
constexpr size_t kMaxBacklog = 100000;  // report messages kept for a reader that does not read

}  // namespace

Module::Module(Settings &settings, Output &output)
    : flows({settings.ageIdle, settings.ageClosed, settings.flows}), settings_(settings), output_(output) {}

Client *Module::packetClient() const {
    return server_->byPort(packetPort_);
}
Client *Module::controlClient() const {
    return server_->byPort(controlPort_);
}

bool Module::mirroring() const {
    return packetPort_ != 0 && (mirror_ || settings_.ignoreMirror) && packetClient() != nullptr;
}

void Module::note(const std::vector<std::string> &problems) {
    if (problems.empty()) return;
    ++counters.problems;
    if (counters.problems <= 20)
        for (const std::string &problem : problems)
            std::fprintf(stderr, "dpimod: message: %s\n", problem.c_str());
}

void Module::message(Client &from, ByteView datagram, uint64_t now) {
    std::string problem;
    for (const Message &message : splitDatagram(datagram, problem)) {
        if (message.type == kMsgResult) {
            const Result result = decodeResult(message);
            ++counters.results;
            if (result.match != 0) ++counters.matches;
            if (result.usable)
                flows.record(result, now);
            else
                ++counters.unusable;
            note(result.problems);
            if (output_.wantsLines()) output_.line(resultJson(result, message.raw));
        } else if (message.type == kMsgConfig) {
            const Config config = decodeConfig(message);
            ++counters.configs;
            if (config.packetPortid) {
                packetPort_ = *config.packetPortid;
                controlPort_ = from.portid;
            }
            if (config.mirror) mirror_ = *config.mirror != 0;
            note(config.problems);
            output_.line(configJson(config, from.portid, message.raw));
        } else {
            ++counters.otherMessages;
            Json json;
            json.text("event", "message").number("from", from.portid).number("type", message.type);
            output_.line(json.text("raw", hexText(message.raw)));
        }
    }
    if (problem.empty()) return;
    note({problem});
    Json json;
    output_.line(json.text("event", "bad-datagram").text("problem", problem).text("raw", hexText(datagram)));
}

void Module::changed(const Client &client, const char *what) {
    Json json;
    json.text("event", "client")
        .text("action", what)
        .number("pid", client.pid)
        .number("portid", client.portid);
    output_.line(json);
    if (std::strcmp(what, "close") != 0) return;
    counters.overruns += client.overruns;
    if (client.portid == 0 || (client.portid != packetPort_ && client.portid != controlPort_)) return;
    packetPort_ = controlPort_ = 0;
    mirror_ = false;
    batchUsed_ = 0;
    batchCount_ = 0;
}

Module::Delivery Module::deliver(ByteView ip, bool drop, uint64_t now) {
    Client *client = mirroring() ? packetClient() : nullptr;
    if (!client) return Delivery::noReader;
    const size_t wireBytes = ip.size();
    const bool snapped = ip.size() > settings_.snap;
    if (snapped) ip = ip.first(settings_.snap);
    const size_t size = packetMessageSize(ip.size());
    const bool forced = settings_.copyEvery != 0 && copyClock_ + 1 >= settings_.copyEvery;
    bool sent;
    if (client->ring && !forced && size <= client->ring->room()) {
        sent = toFrame(*client, ip);
    } else {
        scratch_.resize(size);
        writePacketMessage(scratch_.data(), ip);
        sent = (!client->ring || closeBatch(*client)) && toQueue(*client, scratch_, client->ring != nullptr);
    }
    if (!sent && !drop) return Delivery::full;
    ++counters.offered;
    if (snapped) ++counters.snapped;
    if (const auto info = inspect(ip)) flows.count(*info, wireBytes, now);
    if (!sent) {
        ++(client->ring && !client->ring->nextFrame() ? counters.droppedRing : counters.droppedQueue);
        client->overrun();
        return Delivery::done;
    }
    ++counters.mirrored;
    counters.mirroredBytes += ip.size();
    copyClock_ = forced ? 0 : copyClock_ + 1;
    afterPacket(*client, ip);
    return Delivery::done;
}

bool Module::toFrame(Client &client, ByteView ip) {
    RingWriter &ring = *client.ring;
    const size_t size = packetMessageSize(ip.size());
    if (batchUsed_ + size > ring.room()) closeBatch(client);
    uint8_t *payload = ring.nextFrame();
    if (!payload) return false;
    writePacketMessage(payload + batchUsed_, ip);
    batchUsed_ += size;
    if (++batchCount_ >= settings_.batch) closeBatch(client);
    return true;
}

bool Module::closeBatch(Client &client) {
    if (batchUsed_ == 0) return true;
    client.ring->publish(kFrameValid, static_cast<uint32_t>(batchUsed_));
    ++counters.validFrames;
    batchUsed_ = 0;
    batchCount_ = 0;
    return true;
}

bool Module::toQueue(Client &client, ByteView message, bool copyFrame) {
    // The message first: a reader that sees the frame finds it.
    if (copyFrame && !client.ring->nextFrame()) return false;
    if (client.kept() > 0 || !client.queue(message)) return false;
    if (message.size() > kMaxDatagram) ++counters.beyondBuffer;
    if (copyFrame) {
        client.ring->publish(kFrameCopy, static_cast<uint32_t>(message.size()));
        ++counters.copyFrames;
    } else {
        ++counters.datagrams;
    }
    return true;
}

// The faults that were asked for at intervals.
void Module::afterPacket(Client &client, ByteView ip) {
    std::string error;
    if (settings_.zeroEvery != 0 && ++zeroClock_ >= settings_.zeroEvery && client.ring && injectZero(error))
        zeroClock_ = 0;
    if (settings_.packetFaultEvery == 0 || ++faultClock_ < settings_.packetFaultEvery) return;
    const auto bytes = faultyPacket(settings_.packetFault, ip);
    if (bytes && injectFrame(*bytes, error)) {
        faultClock_ = 0;
        ++counters.faults;
    }
}

void Module::endBurst() {
    Client *client = packetClient();
    if (!client || !client->ring) return;
    closeBatch(*client);
    client->wakeReader();
}

bool Module::waitForSpace() {
    Client *client = packetClient();
    ++counters.waits;
    // With a free frame at hand it is the queue that is full, which nobody announces.
    if (!client || !client->ring || client->ring->nextFrame()) return true;
    return client->ring->waitForSpace();
}

bool Module::quiet() const {
    const auto &clients = server_->clients();
    const bool read = std::all_of(clients.begin(), clients.end(), [](const auto &client) {
        return client->gone() ||
               (client->kept() == 0 && client->unread() == 0 && (!client->ring || client->ring->drained()));
    });
    // Looked at last: a verdict is sent before its packet's frame is handed back.
    return read && std::all_of(clients.begin(), clients.end(),
                               [](const auto &client) { return client->gone() || client->unserved() == 0; });
}

void Module::flush() {
    for (const auto &client : server_->clients()) client->flush();
}

FlowReport Module::reportOf(const Flow &flow, bool aged) const {
    FlowReport report;
    report.flow = flow.tuple;
    report.aged = aged ? 1 : 0;
    report.bytes = static_cast<uint32_t>(flow.bytes);  // 32-bit counters, as the message has them
    report.packets = static_cast<uint32_t>(flow.packets);
    report.accessProfile = settings_.accessProfile;
    report.qosRule = settings_.qosRule;
    return report;
}

void Module::sendReports(const std::vector<FlowReport> &reports) {
    Client *client = controlClient();
    if (reports.empty()) return;
    if (!client || client->kept() > kMaxBacklog) {
        counters.reportsSkipped += reports.size();
        return;
    }
    for (Bytes &message : encodeReports(reports, kMaxDatagram, settings_.reportsPerMessage)) {
        client->queueLater(std::move(message));
        ++counters.reportMessages;
        if (settings_.reportFaultEvery == 0 || ++reportClock_ < settings_.reportFaultEvery) continue;
        reportClock_ = 0;
        if (auto bytes = faultyReport(settings_.reportFault, reports.front())) {
            client->queueLater(std::move(*bytes));
            ++counters.faults;
        }
    }
    counters.reports += reports.size();
    if (!output_.wantsLines()) return;
    for (const FlowReport &report : reports) output_.line(reportJson(report));
}

void Module::reportNow() {
    std::vector<FlowReport> reports;
    flows.forEach([&](const Flow &flow) {
        if (flow.classified && flow.match != 0) reports.push_back(reportOf(flow, false));
    });
    sendReports(reports);
}

void Module::age(uint64_t now, bool all) {
    std::vector<FlowReport> reports;
    flows.limits().idle = settings_.ageIdle;
    flows.limits().closed = settings_.ageClosed;
    flows.age(now, all, [&](const Flow &flow) {
        if (!flow.classified) return;
        if (past_.size() < kMaxPast) past_.push_back(flow);
        if (flow.match == 0) return;
        ++counters.aged;
        reports.push_back(reportOf(flow, true));
    });
    sendReports(reports);
}

void Module::restart() {
    endBurst();
    packetPort_ = controlPort_ = 0;
    mirror_ = false;
    flows.clear();
}

void Module::clear() {
    flows.clear();
    past_.clear();
    counters = {};
}

std::vector<Flow> Module::verdicts() const {
    std::vector<Flow> all = past_;
    flows.forEach([&](const Flow &flow) {
        if (flow.classified) all.push_back(flow);
    });
    std::sort(all.begin(), all.end(), [](const Flow &a, const Flow &b) { return a.number < b.number; });
    return all;
}

}  // namespace dpimod
