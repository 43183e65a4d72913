// The control socket: one command a line, one JSON object as the answer.
#pragma once
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "unique_fd.h"

namespace dpimod {

using Words = std::vector<std::string>;

class ControlServer {
  public:
    struct Peer {
        UniqueFd fd;
        std::string input;
        bool waiting = false;   // its answer comes later
        uint64_t deadline = 0;  // ms, of a wait
    };
    // Answers a command; nothing if the answer comes later (the peer is `waiting` then).
    using Handler = std::function<std::optional<std::string>(const Words &, Peer &)>;

    explicit ControlServer(Handler handler) : handler_(std::move(handler)) {}
    bool listen(const std::string &path);
    [[nodiscard]] int fd() const { return listener_.get(); }
    void acceptAll();
    void serve(Peer &peer);
    void answer(Peer &peer, const std::string &line);
    void sweep();
    [[nodiscard]] const std::vector<std::unique_ptr<Peer>> &peers() const { return peers_; }

  private:
    void runLines(Peer &peer);
    Handler handler_;
    UniqueFd listener_;
    std::vector<std::unique_ptr<Peer>> peers_;
};

// The other side, for people and scripts: sends a command, prints the answer.  Exit status 0 if the answer is
// ok.
int askControl(const std::string &path, const Words &words);

}  // namespace dpimod
