#include "harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace harness {
namespace {

constexpr int kPatience = 10000;  // ms

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

std::vector<std::string> dpimodCommand(const Scratch &scratch, const std::vector<std::string> &options) {
    std::vector<std::string> command{DPIMOD_PATH, "--socket", scratch.path("dpimod"), "--control",
                                     scratch.path("control")};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

std::string readLineFrom(int fd, std::string &buffer) {
    size_t end;
    while ((end = buffer.find('\n')) == std::string::npos) {
        pollfd entry{fd, POLLIN, 0};
        char bytes[4096];
        if (poll(&entry, 1, kPatience) != 1) return "";
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got <= 0) return "";
        buffer.append(bytes, static_cast<size_t>(got));
    }
    std::string line = buffer.substr(0, end);
    buffer.erase(0, end + 1);
    return line;
}

}  // namespace

Scratch::Scratch() {
    std::string path = std::filesystem::temp_directory_path() / "dpimod-XXXXXX";
    if (!mkdtemp(path.data())) fail(path);
    directory_ = path;
}

Scratch::~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

Process::Process(const std::vector<std::string> &command, const std::vector<std::string> &environment) {
    signal(SIGPIPE, SIG_IGN);
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) fail("pipe");
    std::vector<char *> words;
    words.reserve(command.size() + 1);
    for (const std::string &word : command) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0) fail("fork");
    if (pid_ == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        for (const std::string &entry : environment) putenv(const_cast<char *>(entry.c_str()));
        execv(words[0], words.data());
        _exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    in_ = in[1];
    out_ = out[0];
}

Process::~Process() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    ::close(in_);
    ::close(out_);
}

void Process::writeLine(const std::string &line) const {
    const std::string text = line + "\n";
    if (write(in_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) fail("write");
}

std::string Process::readLine() {
    return readLineFrom(out_, buffer_);
}

Dpimod::Dpimod(const std::vector<std::string> &options) : process_(dpimodCommand(scratch_, options), {}) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = scratch_.path("control");
    std::memcpy(address.sun_path, path.data(), path.size());
    control_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // The control socket is the last that dpimod opens.
    for (int i = 0; connect(control_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0; ++i) {
        if (i > kPatience / 5) fail(path);
        usleep(5000);
    }
}

std::string Dpimod::ask(const std::string &command) {
    const std::string text = command + "\n";
    if (send(control_, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        fail("send");
    std::string buffer;
    return readLineFrom(control_, buffer);
}

uint64_t Dpimod::stat(const std::string &name) {
    return field(ask("stats"), name);
}

Client::Client(const std::string &socketPath)
    : process_({CLIENT_PATH}, {"LD_PRELOAD=" PRELOAD_PATH, "KORVID_DPIMOD_SOCKET=" + socketPath}) {}

uint64_t field(const std::string &text, const std::string &name) {
    for (const std::string &start : {" " + name + "=", "\"" + name + "\":"}) {
        const size_t at = (" " + text).find(start);
        if (at != std::string::npos)
            return std::strtoull((" " + text).c_str() + at + start.size(), nullptr, 10);
    }
    return UINT64_MAX;
}

}  // namespace harness
