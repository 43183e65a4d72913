// Measuring by pairs: what the daemon's own objects cost, as a ratio to a bare loop that does the least the
// same job needs, on the same bytes, socket, file and buffers.
//
// A round runs every loop once, in random order, for a few milliseconds of this thread's processor time; each
// round gives one ratio per row, and the row's result is the median of the rounds.  So a machine that is
// slow, busy or changes its clock moves both sides alike.  Times are never reported.
#pragma once
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// One side of a row.  A stretch is `prepare`, not timed, then `run`, timed, which returns the operations it
// did; stretches follow each other until the loop's time is used up.  A stretch should last 50 us or more:
// reading the clock costs most of a microsecond.
struct Loop {
    std::function<void()> prepare;  // may be empty
    std::function<size_t()> run;
};

// What a median should not exceed, and what fails the run: where a goal cannot be held on every machine, the
// gate is what is.  Without a goal a row is shown for comparison only.
struct Limits {
    double goal = 0;
    double gate = 0;  // 0: the goal
};

struct Row {
    std::string what, reference;
    Limits limits;
    Loop bare, ours;
};

// A figure that is no ratio of two loops: bytes, microseconds.  Measured once a round.
struct Figure {
    std::string what, unit;
    Limits limits;
    std::function<double()> measure;
    unsigned rounds = 0;  // 0: as the rows
};

struct Quartiles {
    double low, median, high;
};
Quartiles quartilesOf(std::vector<double> values);

// Processor time of this thread in nanoseconds per operation over about `budget` nanoseconds.
double nanosecondsEach(const Loop &loop, double budget = 2.5e6);

// Keeps the compiler from dropping a result nobody uses.
template <class Value>
inline void keep(const Value &value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

class Table {
  public:
    void add(Row row) { rows_.push_back(std::move(row)); }
    void add(Figure figure) { figures_.push_back(std::move(figure)); }

    // Keeps what has `text` in its name.
    void keepOnly(const std::string &text);

    // For instruction counts: one stretch of that row's own side, in korvid_bench_measured.  The operations
    // done, 0 when there is no such row.
    size_t once(const std::string &what) const;

    // Measures and prints; the number of gates that were missed.
    int run(unsigned rounds);

  private:
    std::vector<Row> rows_;
    std::vector<Figure> figures_;
};

}  // namespace bench
