#include "collect/progress.h"

#include <unistd.h>

#include <cstdio>

namespace fleet {

double monotonic() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

Progress::Progress() : terminal_(isatty(STDERR_FILENO) == 1), began_(monotonic()) {}

void Progress::clear() const {
    if (shown_) (void)fputs("\r\033[K", stderr);
}

void Progress::file(const std::string &what, size_t lines, size_t bad) {
    files_++;
    lines_ += lines;
    bad_ += bad;
    if (bad != 0) problems_++;
    if (terminal_)
        draw();
    else
        (void)fprintf(stderr, "%s\n", what.c_str());
}

void Progress::problem(const std::string &what) {
    problems_++;
    clear();
    (void)fprintf(stderr, "%s\n", what.c_str());
}

void Progress::waiting(size_t files) {
    waiting_ = files;
    if (terminal_) draw();
}

void Progress::draw() {
    constexpr double kEvery = 0.2;
    const double now = monotonic();
    if (now - drawn_ < kEvery) return;
    drawn_ = now;
    shown_ = true;
    (void)fprintf(stderr, "\r%llu files, %llu lines (%.0f a second), %llu quarantined; %zu files wait\033[K",
                  static_cast<unsigned long long>(files_), static_cast<unsigned long long>(lines_),
                  static_cast<double>(lines_) / (now - began_ + 1e-9), static_cast<unsigned long long>(bad_),
                  waiting_);
}

void Progress::end() {
    clear();
    (void)fprintf(stderr, "%llu files, %llu lines in %.1f s, %llu quarantined\n",
                  static_cast<unsigned long long>(files_), static_cast<unsigned long long>(lines_),
                  monotonic() - began_, static_cast<unsigned long long>(bad_));
}

}  // namespace fleet
