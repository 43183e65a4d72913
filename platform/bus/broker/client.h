// A connection to the broker: frames in, queued messages out.
//
//   accepted -> greeted -> serves requests -> doomed (end of stream, broken frame, write error) -> reaped
//
// Doomed clients are only marked: a send deep inside a delivery may doom a client that somebody still walks
// over.  reapClients() runs when the callback is done.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "libubox/uloop.h"
#include "ubusmsg.h"

namespace bus {

struct Client;
struct Object;

// The outer blob of a message with all its attributes; shared, because it may wait in several queues.
using Body = std::shared_ptr<const std::string>;

struct Outgoing {
    ubus_msghdr header;
    Body body;
    size_t sent;  // bytes of header and body that are out
};

// A LOOKUP whose answers did not all fit: it goes on when the queue is empty again.  Until then nothing more
// is read from the client.
struct Lookup {
    uint16_t seq;
    uint32_t peer;
    std::string prefix;
    std::optional<std::string> last;  // path of the last answer
    bool needsMatch;                  // answer "not found" if there is none
};

struct Client {
    uloop_fd sock{};
    uint32_t id = 0;
    std::string user, group;  // names, or numbers as text
    std::string input;        // received, not yet handled
    std::deque<Outgoing> queue;
    size_t queued = 0;  // bytes in it that are not out
    std::vector<Object *> objects;
    std::optional<Lookup> lookup;
    bool monitors = false;
    uint16_t monitorSeq = 0;
    bool doomed = false;
};

extern std::map<uint32_t, std::unique_ptr<Client>> clients;  // by id

// Takes over a connected socket.
void addClient(int fd);

// Null if there is no such client, or it is going.
Client *findClient(uint32_t id);

// Ends all clients that are doomed, with their objects.
void reapClients();

// Sends or queues; a message that finds no room in the queue is dropped.
void send(Client &client, ubus_msg_type type, uint16_t seq, uint32_t peer, const Body &body);

// A random id that the map does not hold.
template <class Map>
uint32_t freeId(const Map &map);
uint32_t randomId();  // UBUS_SYSTEM_OBJECT_MAX or more

template <class Map>
uint32_t freeId(const Map &map) {
    uint32_t id;
    do id = randomId();
    while (map.count(id));
    return id;
}

}  // namespace bus
