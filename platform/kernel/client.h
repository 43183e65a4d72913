// One netlink socket of a daemon, as the kernel module sees it, and the server that opens them.
//
// A client ends when its session does: the daemon closed the socket or died.  Port ids are unique among the
// clients; a second bind to one is refused with EADDRINUSE.
#pragma once
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "channel.h"
#include "ring_writer.h"
#include "unique_fd.h"
#include "wire.h"

namespace dpimod {

class Client {
  public:
    // Takes the accepted session; null with a message on standard error when out of descriptors.
    static std::unique_ptr<Client> open(UniqueFd session, size_t queueBytes);
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Queues a datagram on the socket now; false if the queue is full.
    bool queue(ByteView datagram);
    // Queues a datagram, keeping it until there is room.
    void queueLater(Bytes datagram);
    // Moves kept datagrams on; true when none is left.
    bool flush();
    // Bytes, in the kernel's own measure, that the daemon has not read, and that the daemon sent and nobody
    // served.
    [[nodiscard]] int unread() const;
    [[nodiscard]] int unserved() const;
    // The netlink overrun: the socket reports ENOBUFS once, until the reader comes back.
    // `unread`, if any, is queued with it.
    void overrun(ByteView unread = {});
    // Wakes a reader that sleeps in poll after frames were published.
    void wakeReader();
    void clearSpaceEvent() const;

    UniqueFd session;
    uint32_t pid = 0, portid = 0;  // 0: not bound
    std::unique_ptr<RingWriter> ring;
    uint64_t overruns = 0;

    [[nodiscard]] int queueFd() const { return queue_.get(); }
    [[nodiscard]] int spaceFd() const { return space_.get(); }
    [[nodiscard]] size_t kept() const { return kept_.size(); }
    [[nodiscard]] bool gone() const { return gone_; }
    void end() { gone_ = true; }
    int setRing(const RingRequest &request);
    // Sends the reply to `hello`, which carries the descriptors.
    bool welcome();

  private:
    Client() = default;
    void raiseError();
    UniqueFd queue_, daemonEnd_, memory_, wake_, space_;
    ControlPage *control_ = nullptr;
    uint8_t *ringMemory_ = nullptr;
    size_t ringBytes_ = 0;
    std::deque<Bytes> kept_;
    bool gone_ = false;
    friend class ClientServer;
};

class ClientServer {
  public:
    struct Events {
        std::function<void(Client &, ByteView)> message;            // a datagram for the kernel module
        std::function<void(const Client &, const char *)> changed;  // "open", "bind", "ring", "close"
    };
    ClientServer(Events events, bool allowRing, size_t queueBytes)
        : events_(std::move(events)), allowRing_(allowRing), queueBytes_(queueBytes) {}

    // Listens on a path; a socket that nobody answers any more is replaced.  False after a message on
    // standard error.
    bool listen(const std::string &path);
    [[nodiscard]] int fd() const { return listener_.get(); }
    void acceptAll();
    // Serves up to `limit` requests of a client.
    void serve(Client &client, int limit);
    // Drops clients whose session has ended.
    void sweep();
    [[nodiscard]] const std::vector<std::unique_ptr<Client>> &clients() const { return clients_; }
    [[nodiscard]] Client *byPort(uint32_t portid) const;

  private:
    void handle(Client &client, const Request &request, ByteView rest);
    [[nodiscard]] int bind(Client &client, uint32_t portid, uint32_t groups) const;
    Events events_;
    bool allowRing_;
    size_t queueBytes_;
    UniqueFd listener_;
    std::vector<std::unique_ptr<Client>> clients_;
    Bytes buffer_ = Bytes(256 * 1024);
};

// Binds and listens on a Unix socket of the given type, replacing a stale one.  Invalid after a message.
UniqueFd listenOn(const std::string &path, int type);

}  // namespace dpimod
