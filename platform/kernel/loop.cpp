#include "loop.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>

namespace dpimod {
namespace {

constexpr uint64_t kAgeTick = 100;  // ms between looks for aged flows
constexpr uint64_t kSettle = 300;   // ms for late verdicts after the last packet was read
constexpr uint64_t kTaken = 10;     // ms from a datagram's receive to what the reader does about it
constexpr int kRequestsPerTurn = 256;
constexpr int64_t kMillisecond = 1000000;

uint64_t nowNs() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1000000000U + static_cast<uint64_t>(time.tv_nsec);
}

uint64_t nowMs() {
    return nowNs() / 1000000;
}

bool dropWhenFull(const Settings &settings, bool live, uint64_t rate) {
    if (settings.whenFull != WhenFull::automatic) return settings.whenFull == WhenFull::drop;
    return live || rate != 0;
}

std::string join(const Words &words, size_t from) {
    std::string text;
    for (size_t i = from; i < words.size(); ++i) text += (i > from ? " " : "") + words[i];
    return text;
}

}  // namespace

Loop::Loop(Settings &settings)
    : settings_(settings),
      module_(settings, output_),
      server_({[this](Client &from, ByteView datagram) { module_.message(from, datagram, nowMs()); },
               [this](const Client &client, const char *what) { module_.changed(client, what); }},
              !settings.noRing, settings.queueBytes),
      control_([this](const Words &words, ControlServer::Peer &peer) { return command(words, peer); }),
      pump_(module_) {
    module_.useServer(server_);
}

bool Loop::open() {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signals_ = UniqueFd(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!output_.open(settings_.json) || !server_.listen(settings_.socket)) return false;
    if (!settings_.control.empty() && !control_.listen(settings_.control)) return false;
    std::string error;
    if (startInput(error)) return true;
    std::fprintf(stderr, "dpimod: %s\n", error.c_str());
    return false;
}

bool Loop::startInput(std::string &error) {
    std::unique_ptr<PacketSource> source;
    const bool live = !settings_.interface.empty();
    if (settings_.generated) {
        GeneratorSettings generator;
        if (!parseGenerator(settings_.generate, generator, error)) return false;
        source = openGenerator(generator);
    } else if (live) {
        source = openInterface(settings_.interface, error);
    } else if (!settings_.files.empty()) {
        source = openFiles(settings_.files, settings_.loops, error);
    } else {
        return true;  // commands bring the packets
    }
    if (!source) return false;
    hadInput_ = true;
    pump_.start(std::move(source), settings_.rate, dropWhenFull(settings_, live, settings_.rate));
    return true;
}

int Loop::run() {
    if (!open()) return 1;
    nextReport_ = nowMs() + settings_.reportInterval;
    while (!quit_ && !finished()) {
        const int64_t pumpNs = pump_.run(nowNs());
        timers();
        wait(pumpNs);
        server_.sweep();
        control_.sweep();
    }
    pump_.stop();
    Json totals;
    output_.line(totals.text("event", "totals").raw("totals", module_.totals(pump_.counters).done()));
    if (!settings_.quiet) printEnd();
    unlink(settings_.socket.c_str());
    if (!settings_.control.empty()) unlink(settings_.control.c_str());
    return 0;
}

void Loop::timers() {
    const uint64_t now = nowMs();
    if (now >= nextAge_) {
        module_.age(now, false);
        nextAge_ = now + kAgeTick;
    }
    if (settings_.reportInterval != 0 && now >= nextReport_) {
        module_.reportNow();
        nextReport_ = now + settings_.reportInterval;
    }
    module_.flush();
    const bool waiters = std::any_of(control_.peers().begin(), control_.peers().end(),
                                     [](const auto &peer) { return peer->waiting; });
    if (!waiters || pump_.active() || !module_.quiet())
        idleSince_ = 0;
    else if (idleSince_ == 0)
        idleSince_ = now;
    if (waiters) answerWaiters(idleSince_ != 0 && now - idleSince_ >= kTaken);
}

// Sleeps until something happens, and serves it.
void Loop::wait(int64_t pumpNs) {
    std::vector<pollfd> fds;
    fds.push_back({signals_.get(), POLLIN, 0});
    fds.push_back({server_.fd(), POLLIN, 0});
    fds.push_back({control_.fd(), POLLIN, 0});  // -1 without a control socket: ignored
    fds.push_back({pumpNs < 0 ? pump_.fd() : -1, POLLIN, 0});
    const size_t firstClient = fds.size(), clients = server_.clients().size();
    for (const auto &client : server_.clients()) {
        fds.push_back({client->session.get(), POLLIN, 0});
        fds.push_back({client->spaceFd(), POLLIN, 0});
        // Writable once the daemon has read its queue, when reports are kept for it.
        fds.push_back({client->kept() > 0 ? client->queueFd() : -1, POLLOUT, 0});
    }
    const size_t firstPeer = fds.size(), peers = control_.peers().size();
    bool waiters = false;
    for (const auto &peer : control_.peers()) {
        waiters = waiters || peer->waiting;
        fds.push_back({peer->fd.get(), POLLIN, 0});
    }
    int64_t sleepNs = static_cast<int64_t>(kAgeTick) * kMillisecond;
    if (pumpNs >= 0) sleepNs = std::min(sleepNs, pumpNs);
    if (settings_.reportInterval != 0) {
        const auto left = static_cast<int64_t>(nextReport_) - static_cast<int64_t>(nowMs());
        sleepNs = std::min(sleepNs, std::max<int64_t>(left, 0) * kMillisecond);
    }
    if (waiters || doneSince_ != 0) sleepNs = std::min(sleepNs, kMillisecond);
    const timespec limit{sleepNs / 1000000000, static_cast<long>(sleepNs % 1000000000)};
    if (ppoll(fds.data(), fds.size(), &limit, nullptr) <= 0) return;
    if (fds[0].revents) quit_ = true;
    for (size_t i = 0; i < clients; ++i) {
        Client &client = *server_.clients()[i];
        if (fds[firstClient + 3 * i].revents) server_.serve(client, kRequestsPerTurn);
        if (fds[firstClient + 3 * i + 1].revents) client.clearSpaceEvent();
    }
    for (size_t i = 0; i < peers; ++i)
        if (fds[firstPeer + i].revents) control_.serve(*control_.peers()[i]);
    if (fds[1].revents) server_.acceptAll();
    if (fds[2].revents) control_.acceptAll();
}

// The input has ended, everything was read, and its flows have aged.
bool Loop::finished() {
    if (!settings_.exitWhenDone || !hadInput_ || pump_.active() || !module_.quiet()) {
        doneSince_ = 0;
        return false;
    }
    const uint64_t now = nowMs();
    if (doneSince_ == 0) doneSince_ = now;
    if (now - doneSince_ < kSettle) return false;
    if (agedAtEnd_) return true;
    module_.age(now, true);
    agedAtEnd_ = true;
    doneSince_ = 0;
    return false;
}

void Loop::printEnd() {
    FILE *out = output_.onStdout() ? stderr : stdout;
    printVerdicts(out, module_.verdicts());
    std::fputc('\n', out);
    module_.printTotals(out, pump_.counters);
}

void Loop::answerWaiters(bool idle) {
    const uint64_t now = nowMs();
    for (size_t i = 0; i < control_.peers().size(); ++i) {
        ControlServer::Peer &peer = *control_.peers()[i];
        if (!peer.waiting || (!idle && now < peer.deadline)) continue;
        Json json;
        json.flag("ok", idle);
        if (!idle) json.text("error", "packets or messages are still unread");
        control_.answer(peer, json.done());
    }
}

std::optional<std::string> Loop::command(const Words &words, ControlServer::Peer &peer) {
    if (words[0] == "wait") {
        uint64_t limit = 10000;
        if (words.size() > 1) std::from_chars(words[1].data(), words[1].data() + words[1].size(), limit);
        peer.waiting = true;
        peer.deadline = nowMs() + limit;
        return std::nullopt;
    }
    std::string error;
    Json answer, failure;
    answer.flag("ok", true);
    if (runCommand(words, error, answer)) return answer.done();
    return failure.flag("ok", false).text("error", error).done();
}

bool Loop::play(const Words &words, std::string &error) {
    Words rest;
    uint64_t rate = settings_.rate, loops = 1;
    WhenFull whenFull = settings_.whenFull;
    for (size_t i = 1; i < words.size(); ++i) {
        const std::string &word = words[i];
        const size_t equals = word.find('=');
        const std::string name = word.substr(0, equals);
        if (equals == std::string::npos || (name != "rate" && name != "loop" && name != "when-full")) {
            rest.push_back(word);
            continue;
        }
        if (name == "when-full") {
            whenFull = word.substr(equals + 1) == "drop" ? WhenFull::drop : WhenFull::wait;
            continue;
        }
        uint64_t &number = name == "rate" ? rate : loops;
        if (std::from_chars(word.data() + equals + 1, word.data() + word.size(), number).ec != std::errc()) {
            error = "bad value '" + word + "'";
            return false;
        }
    }
    std::unique_ptr<PacketSource> source;
    if (words[0] == "generate") {
        GeneratorSettings generator;
        if (!parseGenerator(rest, generator, error)) return false;
        source = openGenerator(generator);
    } else if (rest.empty()) {
        error = "play needs a file";
    } else {
        source = openFiles(rest, loops, error);
    }
    if (!source) return false;
    Settings chosen = settings_;
    chosen.whenFull = whenFull;
    hadInput_ = true;
    agedAtEnd_ = false;
    pump_.start(std::move(source), rate, dropWhenFull(chosen, false, rate));
    return true;
}

bool Loop::inject(const Words &words, std::string &error) {
    const auto bytes = parseHex(join(words, 1));
    if (!bytes) {
        error = "not hexadecimal";
        return false;
    }
    if (words[0] == "inject-hex") return module_.injectFrame(*bytes, error);
    if (words[0] == "inject-copy") return module_.injectCopy(&*bytes, error);
    return module_.injectControl(*bytes, error);
}

bool Loop::runCommand(const Words &words, std::string &error, Json &answer) {
    const std::string &name = words[0];
    const std::string argument = words.size() > 1 ? words[1] : "";
    if (name == "play" || name == "generate") return play(words, error);
    if (name == "inject-hex" || name == "inject-copy" || name == "inject-control")
        return inject(words, error);
    if (name == "inject-copy-empty") return module_.injectCopy(nullptr, error);
    if (name == "inject-zero") return module_.injectZero(error);
    if (name == "overrun") return module_.overrun(argument == "control", words.back() == "bare", error);
    if (name == "fault") {
        if (argument == "packet" || argument == "report")
            return module_.fault(argument == "report", join(words, 2), error);
        error = "fault packet KIND or fault report KIND";
        return false;
    }
    if (name == "set") {
        if (!changeSetting(argument, join(words, 2), settings_, error)) return false;
        if (argument == "rate") pump_.setRate(settings_.rate);
        if (argument == "report-interval") nextReport_ = nowMs() + settings_.reportInterval;
        return true;
    }
    if (name == "stats") {
        answer.flag("input_active", pump_.active()).raw("stats", module_.totals(pump_.counters).done());
        return true;
    }
    if (name == "verdicts") {
        std::string list = "[";
        for (const Flow &flow : module_.verdicts())
            list += (list.size() > 1 ? "," : "") + flowJson(flow).done();
        answer.raw("verdicts", list + "]");
        return true;
    }
    if (name == "stop")
        pump_.stop();
    else if (name == "report-now")
        module_.reportNow();
    else if (name == "age-all")
        module_.age(nowMs(), true);
    else if (name == "restart")
        module_.restart();
    else if (name == "quit")
        quit_ = true;
    else if (name == "clear") {
        module_.clear();
        pump_.counters = {};
    } else {
        error = "unknown command '" + name + "'";
        return false;
    }
    return true;
}

}  // namespace dpimod
