// A small reader of netlink protocol 26, written against libmnl alone: what a daemon does with its two
// sockets, under the preload library.  It reads commands from standard input and answers each with one line.
//
//   open ring|plain   both sockets, bound to the process id and that | 0x10000
//   mirror 0|1        mirror settings
//   read N            read until N packets came (time-out 5 s)
//   idle MS           wait in poll without expecting packets
//   error             poll the packet socket, then its SO_ERROR
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <sstream>
#include <string>

#ifndef NETLINK_RX_RING
#define NETLINK_RX_RING 6
#endif

namespace {

constexpr uint32_t kFrameSize = 4096, kFrames = 1024, kRingBytes = kFrameSize * kFrames;

struct Ring {
    uint8_t *base = nullptr;
    uint32_t index = 0;
} ring;

mnl_socket *control = nullptr, *packets = nullptr;
uint32_t portid = 0;

// Of one `read`.
struct Tally {
    uint64_t packets = 0, bytes = 0, copies = 0, zero = 0, polls = 0, odd = 0, sum = 0;
} tally;

std::string problem(const char *what) {
    return std::string("error ") + what + ": " + std::strerror(errno);
}

bool sendMessage(const nlmsghdr *message) {
    return mnl_socket_sendto(control, message, message->nlmsg_len) ==
           static_cast<ssize_t>(message->nlmsg_len);
}

nlmsghdr *newMessage(char *buffer, uint16_t type, uint8_t family) {
    std::memset(buffer, 0, 4096);
    nlmsghdr *message = mnl_nlmsg_put_header(buffer);
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST;
    *static_cast<uint8_t *>(mnl_nlmsg_put_extra_header(message, 2)) = family;
    return message;
}

std::string openSockets(bool withRing) {
    portid = static_cast<uint32_t>(getpid());
    control = mnl_socket_open(26);
    if (!control) return problem("open");
    if (mnl_socket_bind(control, 0, static_cast<pid_t>(portid)) != 0) return problem("bind");
    if (mnl_socket_get_portid(control) != portid) return "error port id";
    packets = mnl_socket_open(26);
    if (!packets) return problem("open");
    if (withRing) {
        uint32_t request[4] = {65536, 64, kFrameSize, kFrames};
        if (mnl_socket_setsockopt(packets, NETLINK_RX_RING, request, sizeof request) != 0)
            return problem("ring");
        void *base =
            mmap(nullptr, kRingBytes, PROT_READ | PROT_WRITE, MAP_SHARED, mnl_socket_get_fd(packets), 0);
        if (base == MAP_FAILED) return problem("mmap");
        ring.base = static_cast<uint8_t *>(base);
        ring.index = 0;
    }
    if (mnl_socket_bind(packets, 0, static_cast<pid_t>(portid | 0x10000)) != 0) return problem("bind");
    char buffer[4096];
    nlmsghdr *message = newMessage(buffer, 21, 2);
    mnl_attr_put_u32(message, 1, portid | 0x10000);
    return sendMessage(message) ? "ok" : problem("send");
}

std::string mirror(int state) {
    char buffer[4096];
    nlmsghdr *message = newMessage(buffer, 21, 2);
    mnl_attr_put_u8(message, 2, static_cast<uint8_t>(state));
    mnl_attr_put_u16(message, 3, 16);
    mnl_attr_put_u8(message, 5, 1);
    mnl_attr_put_u16(message, 6, 30);
    mnl_attr_put_u8(message, 4, 1);
    return sendMessage(message) ? "ok" : problem("send");
}

int onAttribute(const nlattr *attribute, void *) {
    const auto *bytes = static_cast<const uint8_t *>(mnl_attr_get_payload(attribute));
    const size_t size = mnl_attr_get_payload_len(attribute);
    if (mnl_attr_get_type(attribute) != 1) {
        ++tally.odd;
        return MNL_CB_STOP;
    }
    ++tally.packets;
    tally.bytes += size;
    for (size_t i = 0; i < size; ++i) tally.sum = tally.sum * 31 + bytes[i];
    return MNL_CB_OK;
}

int onMessage(const nlmsghdr *message, void *) {
    return mnl_attr_parse(message, 4, onAttribute, nullptr);
}

void walk(const void *data, size_t size) {
    if (mnl_cb_run(data, size, 0, portid | 0x10000, onMessage, nullptr) < 0) ++tally.odd;
}

// False when the ring or queue is empty.
bool readOne() {
    char buffer[4096];
    if (!ring.base) {
        const ssize_t got = recv(mnl_socket_get_fd(packets), buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0) walk(buffer, static_cast<size_t>(got));
        return got > 0;
    }
    uint8_t *frame = ring.base + size_t{ring.index} * kFrameSize;
    auto *status = reinterpret_cast<std::atomic<uint32_t> *>(frame);
    const uint32_t now = status->load(std::memory_order_acquire);
    uint32_t length;
    std::memcpy(&length, frame + 4, sizeof length);
    if (now == 2) {
        if (length == 0)
            ++tally.zero;
        else
            walk(frame + 24, length);
    } else if (now == 3) {
        const ssize_t got = recv(mnl_socket_get_fd(packets), buffer, sizeof buffer, MSG_DONTWAIT);
        if (got <= 0) return false;
        ++tally.copies;
        walk(buffer, static_cast<size_t>(got));
    } else {
        return false;
    }
    status->store(0, std::memory_order_release);
    ring.index = (ring.index + 1) % kFrames;
    return true;
}

int64_t milliseconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * 1000 + time.tv_nsec / 1000000;
}

std::string readPackets(uint64_t count, int64_t limit) {
    tally = {};
    const int64_t end = milliseconds(CLOCK_MONOTONIC) + limit, busy = milliseconds(CLOCK_PROCESS_CPUTIME_ID);
    while (tally.packets < count) {
        const int64_t left = end - milliseconds(CLOCK_MONOTONIC);
        if (left <= 0) break;
        pollfd entry{mnl_socket_get_fd(packets), POLLIN | POLLERR, 0};
        ++tally.polls;
        if (poll(&entry, 1, static_cast<int>(left)) < 0) return problem("poll");
        while (tally.packets < count && readOne()) {
        }
    }
    std::ostringstream text;
    text << "packets=" << tally.packets << " bytes=" << tally.bytes << " copies=" << tally.copies
         << " zero=" << tally.zero << " odd=" << tally.odd << " sum=" << tally.sum << " polls=" << tally.polls
         << " cpu=" << milliseconds(CLOCK_PROCESS_CPUTIME_ID) - busy;
    return text.str();
}

std::string socketError(int fd) {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    return error == 0 ? "none" : error == ENOBUFS ? "ENOBUFS" : std::strerror(error);
}

std::string packetError() {
    pollfd entry{mnl_socket_get_fd(packets), POLLIN | POLLERR, 0};
    poll(&entry, 1, 2000);
    const std::string first = socketError(entry.fd);
    return std::string(entry.revents & POLLERR ? "POLLERR " : "quiet ") + first + " then " +
           socketError(entry.fd);
}

std::string run(const std::string &line) {
    std::istringstream words(line);
    std::string name, word;
    uint64_t number = 0;
    words >> name;
    if (name == "open") {
        words >> word;
        return openSockets(word == "ring");
    }
    if (name == "error") return packetError();
    words >> number;
    if (name == "read") return readPackets(number, 5000);
    if (name == "idle") return readPackets(UINT64_MAX, static_cast<int64_t>(number));
    if (name == "mirror") return mirror(static_cast<int>(number));
    return "error unknown command";
}

}  // namespace

int main() {
    std::string line;
    while (std::getline(std::cin, line)) std::cout << run(line) << std::endl;
    return 0;
}
