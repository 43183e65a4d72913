// What the collector tells: a line that is written over on a terminal, else a line for each file.  One
// thread.
#pragma once
#include <cstdint>
#include <ctime>
#include <string>

namespace fleet {

class Progress {
  public:
    Progress();

    // A file that has been loaded or set aside; `what` is for logs.
    void file(const std::string &what, size_t lines, size_t bad);
    // Something that somebody has to look at; shown everywhere.
    void problem(const std::string &what);
    // How many files wait; redraws the line now and then.
    void waiting(size_t files);
    void end();

    [[nodiscard]] uint64_t problems() const { return problems_; }

  private:
    void draw();
    void clear() const;

    bool terminal_;
    uint64_t files_ = 0, lines_ = 0, bad_ = 0, problems_ = 0;
    size_t waiting_ = 0;
    double began_, drawn_ = 0;
    bool shown_ = false;
};

// Seconds of the monotonic clock.
[[nodiscard]] double monotonic();

}  // namespace fleet
