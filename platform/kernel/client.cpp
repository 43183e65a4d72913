#include "client.h"

#include <linux/sockios.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace dpimod {
namespace {

bool reply(int fd, int error, uint32_t value) {
    const Reply answer{error, value};
    return send(fd, &answer, sizeof answer, MSG_NOSIGNAL) == sizeof answer;
}

bool fillAddress(sockaddr_un &address, const std::string &path) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    return true;
}

}  // namespace

UniqueFd listenOn(const std::string &path, int type) {
    sockaddr_un address{};
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    if (!fillAddress(address, path)) {
        std::fprintf(stderr, "dpimod: %s: path too long\n", path.c_str());
        return {};
    }
    UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd && bind(fd.get(), generic, sizeof address) != 0 && errno == EADDRINUSE) {
        const UniqueFd probe(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
        if (connect(probe.get(), generic, sizeof address) == 0) {
            std::fprintf(stderr, "dpimod: %s: another dpimod is listening there\n", path.c_str());
            return {};
        }
        unlink(path.c_str());
        if (bind(fd.get(), generic, sizeof address) != 0) fd.reset();
    }
    if (!fd || ::listen(fd.get(), 64) != 0) {
        std::fprintf(stderr, "dpimod: %s: %s\n", path.c_str(), std::strerror(errno));
        return {};
    }
    return fd;
}

std::unique_ptr<Client> Client::open(UniqueFd session, size_t queueBytes) {
    std::unique_ptr<Client> client(new Client);
    client->session = std::move(session);
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) == 0) {
        client->queue_ = UniqueFd(pair[0]);
        client->daemonEnd_ = UniqueFd(pair[1]);
        // A name of its own, picked by the kernel, lets overrun() connect the pair again.
        const sockaddr_un unnamed{AF_UNIX, {}};
        if (::bind(pair[1], reinterpret_cast<const sockaddr *>(&unnamed), sizeof unnamed.sun_family) != 0)
            client->queue_.reset();
        const int bytes = static_cast<int>(queueBytes);
        if (setsockopt(pair[0], SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0)
            setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    }
    client->memory_ = UniqueFd(memfd_create("netlink26", MFD_CLOEXEC));
    client->wake_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    client->space_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    void *page = MAP_FAILED;
    if (client->memory_ && ftruncate(client->memory_.get(), kControlPageSize) == 0) {
        page = mmap(nullptr, kControlPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, client->memory_.get(), 0);
    }
    if (!client->queue_ || !client->wake_ || !client->space_ || page == MAP_FAILED) {
        std::perror("dpimod: new client");
        return nullptr;
    }
    client->control_ = static_cast<ControlPage *>(page);
    return client;
}

Client::~Client() {
    if (ringMemory_) munmap(ringMemory_, ringBytes_);
    if (control_) munmap(control_, kControlPageSize);
}

bool Client::welcome() {
    const Reply answer{0, 0};
    iovec part{const_cast<Reply *>(&answer), sizeof answer};
    const int fds[4] = {daemonEnd_.get(), memory_.get(), wake_.get(), space_.get()};
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof fds)]{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof space;
    cmsghdr *carried = CMSG_FIRSTHDR(&message);
    carried->cmsg_level = SOL_SOCKET;
    carried->cmsg_type = SCM_RIGHTS;
    carried->cmsg_len = CMSG_LEN(sizeof fds);
    std::memcpy(CMSG_DATA(carried), fds, sizeof fds);
    return sendmsg(session.get(), &message, MSG_NOSIGNAL) == sizeof answer;
}

int Client::setRing(const RingRequest &request) {
    if (ring) return EBUSY;
    if (const int error = RingWriter::check(request, static_cast<size_t>(sysconf(_SC_PAGESIZE))))
        return error;
    ringBytes_ = size_t{request.blockSize} * request.blockCount;
    if (ftruncate(memory_.get(), static_cast<off_t>(kControlPageSize + ringBytes_)) != 0) return errno;
    void *frames =
        mmap(nullptr, ringBytes_, PROT_READ | PROT_WRITE, MAP_SHARED, memory_.get(), kControlPageSize);
    if (frames == MAP_FAILED) return errno;
    ringMemory_ = static_cast<uint8_t *>(frames);
    ring = std::make_unique<RingWriter>(ringMemory_, request, control_);
    return 0;
}

bool Client::queue(ByteView datagram) {
    const ssize_t sent = send(queue_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(datagram.size());
}

void Client::queueLater(Bytes datagram) {
    kept_.push_back(std::move(datagram));
    flush();
}

bool Client::flush() {
    while (!kept_.empty() && queue(kept_.front())) kept_.pop_front();
    return kept_.empty();
}

int Client::unread() const {
    int bytes = 0;
    return ioctl(queue_.get(), SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

int Client::unserved() const {
    int bytes = 0;
    return ioctl(session.get(), SIOCINQ, &bytes) == 0 ? bytes : 0;
}

void Client::overrun(ByteView unread) {
    ++overruns;
    control_->raising.store(1);
    if (!unread.empty()) queueLater(Bytes(unread.begin(), unread.end()));
    raiseError();
    control_->raising.store(0);
}

void Client::raiseError() {
    if (control_->ignoreOverruns.load() != 0 || control_->congested.exchange(1) != 0) return;
    // A socket's error can be raised from outside only this way: when one end of a datagram pair disconnects
    // with a message unread, the kernel flags the other end.  That message is made here; the daemon's own
    // messages come through its session.
    sockaddr_un name{};
    socklen_t length = sizeof name;
    const sockaddr nowhere{AF_UNSPEC, {}};
    if (getsockname(daemonEnd_.get(), reinterpret_cast<sockaddr *>(&name), &length) != 0 ||
        send(daemonEnd_.get(), "", 1, MSG_DONTWAIT | MSG_NOSIGNAL) != 1 ||
        connect(queue_.get(), &nowhere, sizeof nowhere) != 0 ||
        connect(queue_.get(), reinterpret_cast<const sockaddr *>(&name), length) != 0) {
        std::perror("dpimod: overrun");
    }
}

void Client::wakeReader() {
    if (!ring || !ring->readerSleeps()) return;
    const uint64_t one = 1;
    if (write(wake_.get(), &one, sizeof one) < 0) return;  // full: the reader is being woken already
}

void Client::clearSpaceEvent() const {
    uint64_t count;
    if (read(space_.get(), &count, sizeof count) < 0) return;  // nothing there
}

bool ClientServer::listen(const std::string &path) {
    listener_ = listenOn(path, SOCK_SEQPACKET);
    if (listener_) chmod(path.c_str(), 0666);
    return static_cast<bool>(listener_);
}

void ClientServer::acceptAll() {
    for (;;) {
        UniqueFd session(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!session) return;
        if (auto client = Client::open(std::move(session), queueBytes_))
            clients_.push_back(std::move(client));
    }
}

void ClientServer::serve(Client &client, int limit) {
    while (limit-- > 0 && !client.gone()) {
        const ssize_t got = recv(client.session.get(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (got < static_cast<ssize_t>(sizeof(Request))) {
            client.end();
            return;
        }
        Request request{};
        std::memcpy(&request, buffer_.data(), sizeof request);
        handle(client, request,
               ByteView(buffer_).subspan(sizeof request, static_cast<size_t>(got) - sizeof request));
    }
}

void ClientServer::handle(Client &client, const Request &request, ByteView rest) {
    const uint32_t *argument = request.argument;
    switch (request.op) {
        case Op::hello:
            client.pid = argument[1];
            if (argument[0] != kChannelVersion) {
                reply(client.session.get(), EPROTONOSUPPORT, 0);
                client.end();
            } else if (client.welcome()) {
                events_.changed(client, "open");
            } else {
                client.end();
            }
            return;
        case Op::bind: {
            const int error = bind(client, argument[0], argument[1]);
            reply(client.session.get(), error, client.portid);
            if (error == 0) events_.changed(client, "bind");
            return;
        }
        case Op::setRing: {
            const int error = allowRing_
                                  ? client.setRing({argument[0], argument[1], argument[2], argument[3]})
                                  : ENOPROTOOPT;
            reply(client.session.get(), error, 0);
            if (error == 0) events_.changed(client, "ring");
            return;
        }
        case Op::send:
            events_.message(client, rest);
            return;
    }
    client.end();
}

int ClientServer::bind(Client &client, uint32_t portid, uint32_t groups) const {
    if (groups != 0) return EPERM;
    // Like the kernel: who names no port id gets the process id, or a high number if that is taken.
    if (portid == 0) {
        portid = client.pid;
        for (uint32_t high = 0xfffff000; byPort(portid) != nullptr; --high) portid = high;
    }
    if (byPort(portid) != nullptr) return EADDRINUSE;
    client.portid = portid;
    return 0;
}

Client *ClientServer::byPort(uint32_t portid) const {
    for (const auto &client : clients_)
        if (!client->gone() && client->portid == portid && portid != 0) return client.get();
    return nullptr;
}

void ClientServer::sweep() {
    std::erase_if(clients_, [this](const auto &client) {
        if (client->gone()) events_.changed(*client, "close");
        return client->gone();
    });
}

}  // namespace dpimod
