// Runs dpimod, and under the preload library a client of it, as processes of their own; both end with the
// object.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace harness {

// A directory that goes with the object.
class Scratch {
  public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    [[nodiscard]] std::string path(const std::string &name) const { return directory_ + "/" + name; }

  private:
    std::string directory_;
};

class Process {
  public:
    Process(const std::vector<std::string> &command, const std::vector<std::string> &environment);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    void writeLine(const std::string &line) const;
    // The next line of standard output, "" at its end or after ten seconds without one.
    std::string readLine();

  private:
    pid_t pid_ = -1;
    int in_ = -1, out_ = -1;
    std::string buffer_;
};

class Dpimod {
  public:
    // Returns once dpimod listens.
    explicit Dpimod(const std::vector<std::string> &options = {});
    // The JSON answer to a command.
    std::string ask(const std::string &command);
    // A number of `stats`.
    uint64_t stat(const std::string &name);
    [[nodiscard]] std::string socketPath() const { return scratch_.path("dpimod"); }

  private:
    Scratch scratch_;
    Process process_;
    int control_ = -1;
};

// ring_client.cpp under the preload library.
class Client {
  public:
    explicit Client(const std::string &socketPath);
    std::string ask(const std::string &command) {
        begin(command);
        return end();
    }
    // The two halves of ask, for what happens meanwhile.
    void begin(const std::string &command) const { process_.writeLine(command); }
    std::string end() { return process_.readLine(); }

  private:
    Process process_;
};

// "name=value" in an answer of the client, or "name":value in one of dpimod; UINT64_MAX if missing.
uint64_t field(const std::string &text, const std::string &name);

}  // namespace harness
