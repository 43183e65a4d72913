#include "control.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "client.h"

namespace dpimod {
namespace {

constexpr size_t kMaxLine = 1 << 20;

Words splitWords(const std::string &line) {
    Words words;
    size_t at = 0;
    while ((at = line.find_first_not_of(" \t\r", at)) != std::string::npos) {
        const size_t end = line.find_first_of(" \t\r", at);
        words.push_back(line.substr(at, end - at));
        if (end == std::string::npos) break;
        at = end;
    }
    return words;
}

}  // namespace

bool ControlServer::listen(const std::string &path) {
    listener_ = listenOn(path, SOCK_STREAM);
    return static_cast<bool>(listener_);
}

void ControlServer::acceptAll() {
    for (;;) {
        UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!fd) return;
        peers_.push_back(std::make_unique<Peer>());
        peers_.back()->fd = std::move(fd);
    }
}

void ControlServer::serve(Peer &peer) {
    char buffer[65536];
    const ssize_t got = recv(peer.fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0 || peer.input.size() > kMaxLine) {
        peer.fd.reset();
        return;
    }
    peer.input.append(buffer, static_cast<size_t>(got));
    runLines(peer);
}

void ControlServer::runLines(Peer &peer) {
    size_t end;
    while (peer.fd && !peer.waiting && (end = peer.input.find('\n')) != std::string::npos) {
        const Words words = splitWords(peer.input.substr(0, end));
        peer.input.erase(0, end + 1);
        if (words.empty()) continue;
        if (const auto text = handler_(words, peer)) answer(peer, *text);
    }
}

void ControlServer::answer(Peer &peer, const std::string &line) {
    const std::string text = line + "\n";
    const bool waited = peer.waiting;
    peer.waiting = false;
    size_t sent = 0;
    // Answers can be long (all verdicts); a peer that asks reads them.
    while (peer.fd && sent < text.size()) {
        const ssize_t now = send(peer.fd.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (now < 0 && errno == EINTR) continue;
        if (now <= 0)
            peer.fd.reset();
        else
            sent += static_cast<size_t>(now);
    }
    if (waited) runLines(peer);
}

void ControlServer::sweep() {
    std::erase_if(peers_, [](const auto &peer) { return !peer->fd; });
}

int askControl(const std::string &path, const Words &words) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (path.size() >= sizeof address.sun_path)
        errno = ENAMETOOLONG;
    else
        std::memcpy(address.sun_path, path.data(), path.size());
    if (path.size() >= sizeof address.sun_path ||
        connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        std::fprintf(stderr, "dpimod: %s: %s\n", path.c_str(), std::strerror(errno));
        return 1;
    }
    std::string line;
    for (const std::string &word : words) line += word + " ";
    line += "\n";
    if (send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) return 1;
    std::string text;
    char buffer[65536];
    while (text.empty() || text.back() != '\n') {
        const ssize_t got = recv(fd.get(), buffer, sizeof buffer, 0);
        if (got <= 0) break;
        text.append(buffer, static_cast<size_t>(got));
    }
    std::fputs(text.c_str(), stdout);
    return text.compare(0, 10, "{\"ok\":true") == 0 ? 0 : 1;
}

}  // namespace dpimod
