// The road of a verdict without a daemon: reads an NFLOG group, sets the mark of a connection as soon as a
// packet shows what it carries, fills the policy's sets, and reports ends of marked connections.  For tests
// of these parts on a real kernel, and as the reference that the daemon is measured against.
//
//   router_loop [-g group] [-s snap] [-b batch packets] [-t flush, 1/100 s] [-m mask]
//
// Applications: 1 HTTP, 2 DNS, 3 SSH, 4 ICMP, 5 TLS; one line of JSON per event on standard output.
#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <string>
#include <string_view>

#include "netfilter/attributes.h"
#include "netfilter/conntrack.h"
#include "netfilter/mark.h"
#include "netfilter/nflog.h"
#include "netfilter/policy_sets.h"
#include "netfilter/requests.h"

namespace {

constexpr const char *kApplications[] = {"none", "HTTP", "DNS", "SSH", "ICMP", "TLS"};
constexpr size_t kReceive = 131072 + 4096;

am::MarkLayout layout = am::kDefaultMarkLayout;
am::NflogSettings settings{
    .group = 26, .snapLength = 4072, .batchPackets = 8, .batchBytes = 65536, .batchHundredths = 1};
mnl_socket *packets, *requests, *ends, *firewall;
volatile sig_atomic_t ended = 0;
alignas(nlmsghdr) char received[kReceive];

struct Counts {
    uint64_t packets, receives, lost, overruns, marked, asSeen, turned, byConnection, bySearch, retried,
        notFound;
} counts;

struct Pending {
    am::ConnTuple tuple;
    uint32_t application;
    int tries;
};
std::deque<Pending> pending;  // verdicts on connections that the kernel has not entered yet

std::string textOf(const am::ConnTuple &tuple) {
    char source[INET6_ADDRSTRLEN], destination[INET6_ADDRSTRLEN], whole[160];
    inet_ntop(tuple.family, tuple.source, source, sizeof source);
    inet_ntop(tuple.family, tuple.destination, destination, sizeof destination);
    snprintf(whole, sizeof whole, "%u %s %u %s %u", tuple.proto, source, tuple.sourcePort, destination,
             tuple.destinationPort);
    return whole;
}

// What the packet shows, 0 for nothing yet.
uint32_t classify(std::span<const uint8_t> packet, const am::ConnTuple &tuple) {
    if (tuple.proto == IPPROTO_ICMP || tuple.proto == IPPROTO_ICMPV6) return 4;
    const size_t ip = tuple.family == AF_INET ? (packet[0] & 15U) * 4U : 40U;
    if (tuple.proto == IPPROTO_UDP) return tuple.sourcePort == 53 || tuple.destinationPort == 53 ? 2 : 0;
    if (tuple.proto != IPPROTO_TCP || packet.size() < ip + 20) return 0;
    const size_t header = ip + (packet[ip + 12] >> 4) * 4U;
    if (packet.size() <= header) return 0;
    const std::string_view text(reinterpret_cast<const char *>(packet.data()) + header,
                                packet.size() - header);
    if (text.starts_with("GET ")) return 1;
    if (text.starts_with("SSH-")) return 3;
    if (text.starts_with("\x16\x03")) return 5;
    return 0;
}

int mark(const am::ConnTuple &tuple, uint32_t application, uint16_t zone = 0) {
    return am::setConnectionMark(requests, tuple, zone, {layout.verdict(application, true), layout.mask});
}

void tellMarked(const char *how, const am::ConnTuple &tuple, uint32_t application) {
    counts.marked++;
    printf("{\"event\": \"marked\", \"how\": \"%s\", \"application\": \"%s\", \"tuple\": \"%s\"}\n", how,
           kApplications[application], textOf(tuple).c_str());
}

struct Search {
    am::ConnTuple seen;
    am::Connection found;
    unsigned matches, visited;
};

bool searchTable(const am::ConnTuple &seen, Search &search) {
    alignas(nlmsghdr) char buffer[am::kConntrackRequestSize] = {};
    static char room[32768];
    search = {seen, {}, 0, 0};
    const auto visit = [](const nlmsghdr *message, void *context) {
        auto &into = *static_cast<Search *>(context);
        am::Connection connection;
        into.visited++;
        if (!am::readConnection(message, connection) || !(am::forwardTuple(connection) == into.seen)) return;
        into.found = connection;
        into.matches++;
    };
    (void)am::runDump(requests, am::buildForwardSearch(buffer, seen), room, visit, &search);
    return search.matches == 1;
}

// Whether the verdict has found its connection.
bool deliver(const am::ConnTuple &seen, uint32_t application, const nlattr *connectionAttr, uint8_t family) {
    am::Connection connection;
    if (am::readConnection(connectionAttr, family, connection) &&
        mark(connection.original, application, connection.zone) == 0) {
        counts.byConnection++;
        tellMarked("connection", seen, application);
        return true;
    }
    if (mark(seen, application) == 0) {
        counts.asSeen++;
        tellMarked("as seen", seen, application);
        return true;
    }
    if (mark(am::inverse(seen), application) == 0) {
        counts.turned++;
        tellMarked("turned", seen, application);
        return true;
    }
    Search search;
    for (const am::ConnTuple &tuple : {seen, am::inverse(seen)})
        if (searchTable(tuple, search) && mark(search.found.original, application, search.found.zone) == 0) {
            counts.bySearch++;
            printf("{\"event\": \"searched\", \"visited\": %u}\n", search.visited);
            tellMarked("search", seen, application);
            return true;
        }
    return false;
}

void retryPending() {
    for (size_t left = pending.size(); left > 0; left--) {
        Pending verdict = pending.front();
        pending.pop_front();
        if (deliver(verdict.tuple, verdict.application, nullptr, verdict.tuple.family)) {
            counts.retried++;
            printf("{\"event\": \"retried\", \"tries\": %d}\n", verdict.tries);
        } else if (++verdict.tries < 50) {
            pending.push_back(verdict);
        } else {
            counts.notFound++;
            printf("{\"event\": \"not found\", \"tuple\": \"%s\"}\n", textOf(verdict.tuple).c_str());
        }
    }
}

void onPacket(const nlmsghdr *message) {
    static am::NflogLosses losses;
    am::NflogPacket packet;
    if (!am::readNflogPacket(message, packet)) return;
    counts.packets++;
    if (packet.numbered) counts.lost += losses.see(packet.sequence);
    am::ConnTuple tuple;
    if (!am::readTuple(packet.packet, tuple)) return;
    const uint32_t application = classify(packet.packet, tuple);
    if (application == 0) return;
    const uint8_t family = tuple.family;
    if (!deliver(tuple, application, packet.connection, family)) pending.push_back({tuple, application, 1});
}

void onEnd(const nlmsghdr *message) {
    am::Connection end;
    if (!am::isConnectionEnd(message) || !am::readConnection(message, end)) {
        printf("{\"event\": \"foreign\", \"type\": %u}\n", message->nlmsg_type);
        return;
    }
    printf(
        "{\"event\": \"end\", \"tuple\": \"%s\", \"mark\": %u, \"application\": \"%s\", \"packets\": "
        "[%" PRIu64 ", %" PRIu64 "], \"bytes\": [%" PRIu64 ", %" PRIu64
        "], \"counted\": %s, \"seconds\": %.3f}\n",
        textOf(end.original).c_str(), end.mark, kApplications[layout.application(end.mark) % 6],
        end.sent.packets, end.received.packets, end.sent.bytes, end.received.bytes,
        end.counted ? "true" : "false",
        end.start && end.stop ? static_cast<double>(end.stop - end.start) / 1e9 : -1.0);
}

size_t marksOf(am::PolicyKind kind, const char *name, std::span<uint32_t> room, void *) {
    for (uint32_t application = 1; application < 6; application++)
        if (kind == am::PolicyKind::application && std::string_view(name) == kApplications[application]) {
            room[0] = layout.verdict(application, true);
            return 1;
        }
    if (kind != am::PolicyKind::group || std::string_view(name) != "web") return 0;
    room[0] = layout.verdict(1, true);
    room[1] = layout.verdict(5, true);
    return 2;
}

void fillSets() {
    const am::PolicyFill fill = am::fillPolicySets(requests, marksOf, nullptr);
    printf("{\"event\": \"filled\", \"error\": %d, \"sets\": %u, \"empty\": %u, \"other\": %u}\n", fill.error,
           fill.sets, fill.empty, fill.other);
}

template <class Handle>
void readAll(const mnl_socket *socket, Handle handle) {
    for (;;) {
        const ssize_t got = recv(mnl_socket_get_fd(socket), received, sizeof received, MSG_DONTWAIT);
        if (got < 0 && errno == ENOBUFS) {
            counts.overruns++;
            continue;
        }
        if (got <= 0) return;
        counts.receives++;
        am::eachMessage({received, static_cast<size_t>(got)}, handle);
    }
}

mnl_socket *openOrFail(const char *what) {
    mnl_socket *socket = am::openNetfilterSocket();
    if (socket) return socket;
    perror(what);
    exit(1);
}

void readOptions(int argc, char **argv) {
    for (int option; (option = getopt(argc, argv, "g:s:b:t:m:")) != -1;) {
        const auto number = static_cast<uint32_t>(strtoul(optarg ? optarg : "0", nullptr, 0));
        switch (option) {
            case 'g':
                settings.group = static_cast<uint16_t>(number);
                break;
            case 's':
                settings.snapLength = number;
                break;
            case 'b':
                settings.batchPackets = number;
                break;
            case 't':
                settings.batchHundredths = number;
                break;
            case 'm':
                layout.mask = number;
                break;
            default:
                exit(2);
        }
    }
}

void bindOrFail() {
    int error = 0;
    am::NflogBound bound = am::bindNflog(packets, settings, error);
    // Once more: a group that was let go of can be taken again.
    if (bound != am::NflogBound::no) {
        error = am::unbindNflog(packets, settings.group);
        bound = error == 0 ? am::bindNflog(packets, settings, error) : am::NflogBound::no;
    }
    if (bound == am::NflogBound::no) {
        printf("{\"event\": \"refused\", \"error\": \"%s\"}\n", strerror(-error));
        exit(1);
    }
    const int size = 4 << 20;
    if (setsockopt(mnl_socket_get_fd(packets), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
        (void)setsockopt(mnl_socket_get_fd(packets), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    printf("{\"event\": \"bound\", \"connections\": %s}\n",
           bound == am::NflogBound::withConnections ? "true" : "false");
}

void tellCounts(int unbound) {
    printf("{\"event\": \"counts\", \"packets\": %" PRIu64 ", \"receives\": %" PRIu64 ", \"lost\": %" PRIu64
           ", \"overruns\": %" PRIu64 ", \"marked\": %" PRIu64 ", \"as seen\": %" PRIu64
           ", \"turned\": %" PRIu64 ", \"connection\": %" PRIu64 ", \"search\": %" PRIu64
           ", \"retried\": %" PRIu64 ", \"not found\": %" PRIu64 ", \"unbound\": %d}\n",
           counts.packets, counts.receives, counts.lost, counts.overruns, counts.marked, counts.asSeen,
           counts.turned, counts.byConnection, counts.bySearch, counts.retried, counts.notFound, unbound);
}

}  // namespace

int main(int argc, char **argv) {
    readOptions(argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    struct sigaction action {};
    action.sa_handler = [](int) { ended = 1; };
    sigaction(SIGTERM, &action, nullptr);

    packets = openOrFail("packets");
    requests = openOrFail("requests");
    ends = openOrFail("ends");
    firewall = openOrFail("firewall");
    if (am::subscribeEnds(ends, layout.enforced()) < 0 || am::subscribePolicySets(firewall) < 0) {
        perror("subscribe");
        return 1;
    }
    bindOrFail();
    fillSets();
    printf("{\"event\": \"ready\"}\n");
    pollfd waiting[] = {{mnl_socket_get_fd(packets), POLLIN, 0},
                        {mnl_socket_get_fd(ends), POLLIN, 0},
                        {mnl_socket_get_fd(firewall), POLLIN, 0}};
    while (!ended) {
        (void)poll(waiting, 3, pending.empty() ? -1 : 1);
        if (ended) break;
        retryPending();
        readAll(packets, onPacket);
        readAll(ends, onEnd);
        bool declared = false;
        readAll(firewall, [&](const nlmsghdr *message) {
            am::PolicySet set;
            declared |= am::readPolicySet(message, set) && set.ours;
        });
        if (declared) fillSets();
    }
    tellCounts(am::unbindNflog(packets, settings.group));
    return 0;
}
