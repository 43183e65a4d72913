#include "client.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "requests.h"

namespace bus {

std::map<uint32_t, std::unique_ptr<Client>> clients;

namespace {

constexpr size_t kMaxQueued = 1048576;  // bytes for a client that does not read
constexpr int kReadsPerTurn = 4;        // then the others have their turn
constexpr size_t kFrameHeader = sizeof(ubus_msghdr) + sizeof(blob_attr);

// Reading stops while a lookup waits for room: the answers to what comes next could not be sent either.
void watch(Client &client) {
    unsigned int flags = 0;
    if (!client.lookup) flags |= ULOOP_READ;
    if (!client.queue.empty() || client.lookup) flags |= ULOOP_WRITE;
    if (!client.doomed && client.sock.flags != flags) uloop_fd_add(&client.sock, flags);
}

// Writes what the socket takes now; false if the connection is broken.
bool write(Client &client, Outgoing &message) {
    const size_t total = sizeof(message.header) + message.body->size();
    while (message.sent < total) {
        iovec parts[2];
        size_t count = 0;
        if (message.sent < sizeof(message.header))
            parts[count++] = {reinterpret_cast<char *>(&message.header) + message.sent,
                              sizeof(message.header) - message.sent};
        const size_t skip = message.sent < sizeof(message.header) ? 0 : message.sent - sizeof(message.header);
        parts[count++] = {const_cast<char *>(message.body->data()) + skip, message.body->size() - skip};
        msghdr request{};
        request.msg_iov = parts;
        request.msg_iovlen = count;
        const ssize_t sent = sendmsg(client.sock.fd, &request, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
        message.sent += static_cast<size_t>(sent);
    }
    return true;
}

void flush(Client &client) {
    while (!client.queue.empty()) {
        Outgoing &first = client.queue.front();
        const size_t before = first.sent;
        if (!write(client, first)) {
            client.doomed = true;
            return;
        }
        client.queued -= first.sent - before;
        if (first.sent < sizeof(first.header) + first.body->size()) return;
        client.queue.pop_front();
    }
}

// Handles the complete frames of the input, as far as the client may go on.
void handleInput(Client &client) {
    size_t pos = 0;
    while (!client.doomed && !client.lookup && client.input.size() - pos >= kFrameHeader) {
        const char *frame = client.input.data() + pos;
        ubus_msghdr header;
        memcpy(&header, frame, sizeof(header));
        const auto *outer = reinterpret_cast<const blob_attr *>(frame + sizeof(header));
        const size_t length = blob_raw_len(outer);
        if (length < sizeof(blob_attr) || blob_pad_len(outer) > UBUS_MAX_MSGLEN) {
            client.doomed = true;
            break;
        }
        if (client.input.size() - pos < sizeof(header) + length) break;
        pos += sizeof(header) + length;
        handleMessage(client, header, std::make_shared<const std::string>(frame + sizeof(header), length));
    }
    client.input.erase(0, pos);
}

void readInput(Client &client) {
    static char bytes[65536];
    for (int i = 0; i < kReadsPerTurn && !client.doomed && !client.lookup; i++) {
        // Without a control buffer: the kernel drops descriptors that come along.
        const ssize_t got = recv(client.sock.fd, bytes, sizeof(bytes), MSG_DONTWAIT);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (got <= 0) {
            client.doomed = true;
            return;
        }
        client.input.append(bytes, static_cast<size_t>(got));
        handleInput(client);
    }
}

void onEvent(uloop_fd *sock, unsigned int events) {
    Client &client = *container_of(sock, Client, sock);
    // What came together with the end of the stream is not read: nobody is there to be answered.
    if (sock->eof || sock->error) client.doomed = true;
    if (!client.doomed && (events & ULOOP_WRITE)) {
        flush(client);
        if (client.lookup && client.queue.empty()) {
            continueLookup(client);
            handleInput(client);
        }
    }
    if (!client.doomed && (events & ULOOP_READ)) readInput(client);
    watch(client);
    reapClients();
}

template <class Entry>
std::string nameOr(const Entry *entry, const char *name, unsigned int number) {
    return entry ? std::string(name) : std::to_string(number);
}

void readCredentials(Client &client) {
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(client.sock.fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return;
    const passwd *user = getpwuid(peer.uid);
    client.user = nameOr(user, user ? user->pw_name : nullptr, peer.uid);
    const ::group *group = getgrgid(peer.gid);
    client.group = nameOr(group, group ? group->gr_name : nullptr, peer.gid);
}

}  // namespace

uint32_t randomId() {
    uint32_t id = 0;
    while (id < UBUS_SYSTEM_OBJECT_MAX)
        if (getrandom(&id, sizeof(id), 0) != static_cast<ssize_t>(sizeof(id))) id = 0;
    return id;
}

void addClient(int fd) {
    auto owned = std::make_unique<Client>();
    Client &client = *owned;
    client.sock.fd = fd;
    client.sock.cb = onEvent;
    client.id = freeId(clients);
    readCredentials(client);
    clients.emplace(client.id, std::move(owned));
    if (uloop_fd_add(&client.sock, ULOOP_READ) != 0) client.doomed = true;
    static const Body kEmpty = std::make_shared<const std::string>("\0\0\0\4", 4);
    send(client, UBUS_MSG_HELLO, 0, client.id, kEmpty);
    reapClients();
}

Client *findClient(uint32_t id) {
    const auto found = clients.find(id);
    return found == clients.end() || found->second->doomed ? nullptr : found->second.get();
}

void reapClients() {
    // Removing objects sends events, which may doom others: look again after each.
    for (auto it = clients.begin(); it != clients.end();) {
        if (!it->second->doomed) {
            ++it;
            continue;
        }
        Client &client = *it->second;
        uloop_fd_delete(&client.sock);
        removeObjects(client);
        close(client.sock.fd);
        clients.erase(it);
        it = clients.begin();
    }
}

void send(Client &client, ubus_msg_type type, uint16_t seq, uint32_t peer, const Body &body) {
    if (client.doomed) return;
    const ubus_msghdr header{0, static_cast<uint8_t>(type), cpu_to_be16(seq), cpu_to_be32(peer)};
    copyToMonitors(client, header, *body, true);
    Outgoing message{header, body, 0};
    const size_t total = sizeof(header) + body->size();
    if (client.queue.empty()) {
        if (!write(client, message)) {
            client.doomed = true;
            return;
        }
        if (message.sent == total) return;
    }
    // A message of which a part is out must follow whole, or nothing after it could be understood.
    if (!message.sent && client.queued + total > kMaxQueued) return;
    client.queued += total - message.sent;
    client.queue.push_back(std::move(message));
    watch(client);
}

}  // namespace bus
