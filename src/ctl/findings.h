// What a check has found: each with the file, and the line where there is one.
#pragma once
#include <cstdint>

namespace ctl {

class Findings {
  public:
    explicit Findings(const char *file) : file_(file) {}

    // A fault, or something worth knowing that is none.  A line of 0 is none.
    [[gnu::format(printf, 4, 5)]] void fault(const char *member, uint32_t line, const char *format, ...);
    [[gnu::format(printf, 4, 5)]] void note(const char *member, uint32_t line, const char *format, ...);

    uint32_t faults() const { return faults_; }

  private:
    const char *file_;
    uint32_t faults_ = 0;
};

}  // namespace ctl
