// The broker's side of the bus: what two clients send, in turn.
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "client.h"
#include "fuzz.h"
#include "objects.h"

namespace {

constexpr size_t kLongestTurn = 16384;  // fits into the socket's buffer

uint32_t lastId;

struct Peer {
    int end = -1;  // ours
    uint32_t id = 0;
};

Peer connectPeer() {
    int ends[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    bus::addClient(ends[0]);
    return {ends[1], bus::clients.rbegin()->first};
}

// Makes room for more.
void readAnswers(const Peer &peer) {
    static char answers[1 << 20];
    while (recv(peer.end, answers, sizeof(answers), MSG_DONTWAIT) > 0) continue;
}

void serve(const Peer &peer, unsigned int events) {
    if (bus::Client *client = bus::findClient(peer.id)) client->sock.cb(&client->sock, events);
}

void takeTurn(const Peer &peer, const uint8_t *data, size_t size) {
    if (size && send(peer.end, data, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size)) return;
    serve(peer, ULOOP_READ);
}

}  // namespace

// Ids that inputs can name.
extern "C" ssize_t getrandom(void *buffer, size_t size, unsigned int) {
    FUZZ_CHECK(size == sizeof(lastId));
    lastId++;
    std::memcpy(buffer, &lastId, size);
    return static_cast<ssize_t>(size);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    return uloop_init();
}

// Turns: a byte that names the client and a big-endian length of two bytes, then what that client sends.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    lastId = 0x1000;
    const Peer peers[2] = {connectPeer(), connectPeer()};
    while (size >= 3) {
        const Peer &peer = peers[fuzz::takeByte(data, size) & 1];
        const size_t high = fuzz::takeByte(data, size);
        const size_t length = std::min({high << 8 | fuzz::takeByte(data, size), size, kLongestTurn});
        takeTurn(peer, data, length);
        data += length;
        size -= length;
        for (const Peer &each : peers) {
            readAnswers(each);
            serve(each, ULOOP_WRITE);
        }
    }
    for (const Peer &peer : peers) {
        close(peer.end);
        serve(peer, ULOOP_READ | ULOOP_WRITE);
    }
    // A client whose lookup waits for room is not read from: the loop would report the end of its stream.
    for (const auto &[id, client] : bus::clients) client->doomed = true;
    bus::reapClients();
    FUZZ_CHECK(bus::clients.empty() && bus::objectPaths.empty());
    return 0;
}
