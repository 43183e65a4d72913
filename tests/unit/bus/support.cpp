#include "support.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "libubox/blobmsg_json.h"

namespace bustest {

namespace {

constexpr int kPatienceMs = 10000;  // only a failing test waits that long

bool readable(int fd) {
    pollfd input{fd, POLLIN, 0};
    return poll(&input, 1, kPatienceMs) == 1;
}

std::string readExactly(int fd, size_t length) {
    std::string bytes(length, '\0');
    size_t have = 0;
    while (have < length && readable(fd)) {
        const ssize_t got = read(fd, bytes.data() + have, length - have);
        if (got <= 0) break;
        have += static_cast<size_t>(got);
    }
    bytes.resize(have);
    return bytes;
}

std::string readAll(int fd) {
    std::string all;
    char bytes[4096];
    ssize_t got;
    // A pseudo terminal ends with an error.
    while (readable(fd) && (got = read(fd, bytes, sizeof(bytes))) > 0)
        all.append(bytes, static_cast<size_t>(got));
    return all;
}

int connectTo(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0) return fd;
    close(fd);
    return -1;
}

}  // namespace

std::string toHex(std::string_view bytes) {
    std::string hex;
    char digits[3];
    for (const char byte : bytes) {
        snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
        hex += digits;
    }
    return hex;
}

std::string fromHex(std::string_view hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
    return bytes;
}

std::string bytesOf(const blob_attr *attr) {
    return {reinterpret_cast<const char *>(attr), blob_raw_len(attr)};
}

std::string json(blob_attr *message) {
    char *text = blobmsg_format_json(message, true);
    std::string copy = text ? text : "";
    free(text);
    return copy;
}

// ---- processes

Process::Process(const std::vector<std::string> &command, Stderr where) {
    std::vector<char *> argv;
    argv.reserve(command.size() + 1);
    for (const std::string &word : command) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0) abort();
    if (where == Stderr::kPipe) {
        if (pipe2(err, O_CLOEXEC) != 0) abort();
    } else {
        err[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (err[0] < 0 || grantpt(err[0]) != 0 || unlockpt(err[0]) != 0) abort();
        err[1] = open(ptsname(err[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    pid_ = fork();
    if (pid_ == 0) {
        // The loop's signal actions of the test itself are not the child's business.
        for (const int number : {SIGINT, SIGTERM, SIGPIPE}) ::signal(number, SIG_DFL);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
}

Process::~Process() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(out_);
    close(err_);
}

std::string Process::readLine() {
    std::string line;
    while (true) {
        const std::string byte = readExactly(out_, 1);
        if (byte.empty() || byte == "\n") return line;
        line += byte;
    }
}

void Process::signal(int number) const {
    kill(pid_, number);
}

Ended Process::wait() {
    Ended ended{-1, readAll(out_), readAll(err_)};
    if (pid_ > 0) waitpid(pid_, &status_, 0);
    pid_ = -1;
    if (WIFEXITED(status_)) ended.exitCode = WEXITSTATUS(status_);
    return ended;
}

Ended Process::end(int signalNumber) {
    do signal(signalNumber);
    while (waitpid(pid_, &status_, WNOHANG) == 0 && usleep(1000) == 0);
    pid_ = -1;
    return wait();
}

// ---- broker

Broker::Broker() {
    char folder[] = "/tmp/bus-test-XXXXXX";
    if (!mkdtemp(folder)) abort();
    folder_ = folder;
    path_ = folder_ + "/sock";
    start();
}

Broker::~Broker() {
    process_.reset();
    unlink(path_.c_str());
    rmdir(folder_.c_str());
}

void Broker::start() {
    process_.emplace(std::vector<std::string>{UBUSD_PROGRAM, "-s", path_});
    for (int i = 0; i < kPatienceMs; i++) {
        const int fd = connectTo(path_);
        if (fd >= 0) {
            close(fd);
            return;
        }
        usleep(1000);
    }
    ADD_FAILURE() << "no broker at " << path_;
}

Ended Broker::stop(int signalNumber) {
    return process_->end(signalNumber);
}

bool Broker::alive() const {
    return kill(process_->pid(), 0) == 0 && Peer(path_).id() != 0;
}

// ---- wire

std::vector<unsigned int> Message::ids() const {
    std::vector<unsigned int> found;
    blob_attr *pos;
    size_t rem;
    blob_for_each_attr(pos, outer(), rem) found.push_back(blob_id(pos));
    return found;
}

blob_attr *Message::attr(unsigned int id) const {
    blob_attr *pos;
    size_t rem;
    blob_for_each_attr(pos, outer(), rem) {
        if (blob_id(pos) == id) return pos;
    }
    return nullptr;
}

uint32_t Message::number(unsigned int id) const {
    const blob_attr *found = attr(id);
    return found ? blob_get_u32(found) : 0;
}

std::string Message::text(unsigned int id) const {
    const blob_attr *found = attr(id);
    return found ? blob_get_string(found) : "";
}

std::string Message::members() const {
    blob_attr *data = attr(UBUS_ATTR_DATA);
    return data ? json(data) : "";
}

std::string frame(uint8_t type, uint16_t seq, uint32_t peer, std::string_view outerBlob) {
    const ubus_msghdr header{0, type, cpu_to_be16(seq), cpu_to_be32(peer)};
    return std::string(reinterpret_cast<const char *>(&header), sizeof(header)) + std::string(outerBlob);
}

Peer::Peer(const std::string &path) : fd_(connectTo(path)) {
    if (fd_ >= 0) id_ = read().peer;
}

Peer::~Peer() {
    close(fd_);
}

void Peer::write(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0) return;  // a test of a closed connection looks for that itself
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
}

uint16_t Peer::send(uint8_t type, uint32_t peer, const Fill &fill) {
    Buffer buffer;
    if (fill) fill(&buffer);
    write(frame(type, ++seq_, peer, bytesOf(buffer->head)));
    return seq_;
}

Message Peer::read() const {
    const std::string header = readExactly(fd_, sizeof(ubus_msghdr) + sizeof(blob_attr));
    if (header.size() < sizeof(ubus_msghdr) + sizeof(blob_attr)) {
        ADD_FAILURE() << "no message";
        return {};
    }
    const auto *hdr = reinterpret_cast<const ubus_msghdr *>(header.data());
    const auto *outer = reinterpret_cast<const blob_attr *>(header.data() + sizeof(ubus_msghdr));
    Message message{hdr->type, be16_to_cpu(hdr->seq), be32_to_cpu(hdr->peer),
                    header.substr(sizeof(ubus_msghdr))};
    message.body += readExactly(fd_, blob_len(outer));
    return message;
}

bool Peer::closed() const {
    char byte;
    return readable(fd_) && recv(fd_, &byte, 1, 0) <= 0;
}

int Peer::request(uint8_t type, uint32_t peer, const Fill &fill) {
    const uint16_t seq = send(type, peer, fill);
    const Message answer = read();
    EXPECT_EQ(answer.type, UBUS_MSG_STATUS);
    EXPECT_EQ(answer.seq, seq);
    EXPECT_EQ(answer.peer, peer);
    EXPECT_EQ(answer.ids(), std::vector<unsigned int>{UBUS_ATTR_STATUS});
    return static_cast<int>(answer.number(UBUS_ATTR_STATUS));
}

int Peer::invoke(uint32_t object, const char *method, const Fill &fillData) {
    return request(UBUS_MSG_INVOKE, object, [&](blob_buf *buf) {
        blob_put_u32(buf, UBUS_ATTR_OBJID, object);
        blob_put_string(buf, UBUS_ATTR_METHOD, method);
        void *data = blob_nest_start(buf, UBUS_ATTR_DATA);
        if (fillData) fillData(buf);
        blob_nest_end(buf, data);
    });
}

uint32_t Peer::addObject(const char *path, const Fill &fillSignature) {
    send(UBUS_MSG_ADD_OBJECT, 0, [&](blob_buf *buf) {
        if (path) blob_put_string(buf, UBUS_ATTR_OBJPATH, path);
        if (!path && !fillSignature) return;
        void *signature = blob_nest_start(buf, UBUS_ATTR_SIGNATURE);
        if (fillSignature) fillSignature(buf);
        blob_nest_end(buf, signature);
    });
    const Message data = read();
    EXPECT_EQ(data.type, UBUS_MSG_DATA);
    EXPECT_EQ(read().number(UBUS_ATTR_STATUS), UBUS_STATUS_OK);
    return data.number(UBUS_ATTR_OBJID);
}

int Peer::listenTo(uint32_t object, const char *pattern) {
    return invoke(UBUS_SYSTEM_OBJECT_EVENT, "register", [&](blob_buf *buf) {
        blobmsg_add_u32(buf, "object", object);
        blobmsg_add_string(buf, "pattern", pattern);
    });
}

int Peer::sendEvent(const char *event, const Fill &fillData) {
    return invoke(UBUS_SYSTEM_OBJECT_EVENT, "send", [&](blob_buf *buf) {
        blobmsg_add_string(buf, "id", event);
        void *data = blobmsg_open_table(buf, "data");
        if (fillData) fillData(buf);
        blobmsg_close_table(buf, data);
    });
}

}  // namespace bustest
