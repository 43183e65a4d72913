// Vocabulary of the bus tests: bytes and hex, a broker process in a folder of its own, and a connection that
// speaks the wire format by hand.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "libubus.h"

namespace bustest {

std::string toHex(std::string_view bytes);
std::string fromHex(std::string_view hex);

// The raw bytes of a blob.
std::string bytesOf(const blob_attr *attr);

// A blob_buf for one scope.
struct Buffer {
    Buffer() { blob_buf_init(&buf, 0); }
    ~Buffer() { blob_buf_free(&buf); }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    blob_buf *operator&() { return &buf; }
    blob_buf *operator->() { return &buf; }
    blob_buf buf{};
};

// JSON text of a message, compact.
std::string json(blob_attr *message);

struct Ended {
    int exitCode;  // -1: by a signal
    std::string out, err;
};

// A child process with its output in pipes.
class Process {
  public:
    enum class Stderr { kPipe, kTerminal };
    explicit Process(const std::vector<std::string> &command, Stderr where = Stderr::kPipe);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    pid_t pid() const { return pid_; }
    std::string readLine();  // of its standard output
    void signal(int number) const;
    Ended wait();
    // Signals until it ends: a loop that is about to run forgets the signal that came before.
    Ended end(int signalNumber);

  private:
    pid_t pid_ = -1;
    int status_ = 0;
    int out_ = -1, err_ = -1;
};

// A temporary folder with a broker that listens there.
class Broker {
  public:
    Broker();
    ~Broker();
    const std::string &path() const { return path_; }
    Ended stop(int signalNumber = SIGTERM);
    void start();
    bool alive() const;
    Process &process() { return *process_; }

  private:
    std::string folder_, path_;
    std::optional<Process> process_;
};

struct Message {
    uint8_t type = 0;
    uint16_t seq = 0;
    uint32_t peer = 0;
    std::string body;  // outer blob

    blob_attr *outer() const { return reinterpret_cast<blob_attr *>(const_cast<char *>(body.data())); }
    std::vector<unsigned int> ids() const;  // of the attributes, in order
    blob_attr *attr(unsigned int id) const;
    uint32_t number(unsigned int id) const;   // 0 if absent
    std::string text(unsigned int id) const;  // empty if absent
    std::string members() const;              // of DATA, as JSON
};

std::string frame(uint8_t type, uint16_t seq, uint32_t peer, std::string_view outerBlob);

// A connection to the broker that has read its greeting.
class Peer {
  public:
    using Fill = std::function<void(blob_buf *)>;

    explicit Peer(const std::string &path);
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    uint32_t id() const { return id_; }
    int fd() const { return fd_; }

    void write(std::string_view bytes) const;
    // Attributes from fill; the sequence number that was used.
    uint16_t send(uint8_t type, uint32_t peer, const Fill &fill = nullptr);
    Message read() const;  // fails the test when nothing comes
    bool closed() const;   // the broker has ended the connection
    // Sends, and gives the status that comes back, checking that it repeats seq and peer.
    int request(uint8_t type, uint32_t peer, const Fill &fill = nullptr);
    int invoke(uint32_t object, const char *method, const Fill &fillData = nullptr);

    uint32_t addObject(const char *path = nullptr, const Fill &fillSignature = nullptr);
    int listenTo(uint32_t object, const char *pattern);
    int sendEvent(const char *event, const Fill &fillData = nullptr);

  private:
    int fd_ = -1;
    uint32_t id_ = 0;
    uint16_t seq_ = 0;
};

}  // namespace bustest
