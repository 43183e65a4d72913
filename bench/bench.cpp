#include "bench.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <random>

// Found by its name: the part of the program in which instructions are counted.
extern "C" __attribute__((noinline)) size_t korvid_bench_measured(const bench::Loop &loop) {
    return loop.run();
}

namespace bench {
namespace {

constexpr double kSpread = 0.10;  // quartiles further apart than this ask for as many rounds again

double processorTime() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// What two readings of the clock cost when nothing is between them.
double clockCost() {
    static const double cost = [] {
        double least = 1e9;
        for (int i = 0; i < 200; i++) {
            const double begin = processorTime();
            least = std::min(least, processorTime() - begin);
        }
        return least;
    }();
    return cost;
}

void stretch(const Loop &loop, double &time, double &operations) {
    if (loop.prepare) loop.prepare();
    const double begin = processorTime();
    operations += static_cast<double>(loop.run());
    time += std::max(processorTime() - begin - clockCost(), 1.0);
}

struct Samples {
    std::vector<double> bare, ours;

    std::vector<double> ratios() const {
        std::vector<double> out;
        for (size_t i = 0; i < bare.size(); i++) out.push_back(ours[i] / bare[i]);
        return out;
    }
};

bool wide(const std::vector<double> &values) {
    const Quartiles q = quartilesOf(values);
    return q.high - q.low > kSpread * q.median;
}

// One round: every loop of these rows once, in random order.
void runRound(const std::vector<Row> &rows, std::vector<Samples> &samples, const std::vector<size_t> &chosen,
              std::mt19937_64 &random) {
    std::vector<std::pair<size_t, bool>> order;
    for (const size_t row : chosen) {
        order.emplace_back(row, false);
        order.emplace_back(row, true);
    }
    std::shuffle(order.begin(), order.end(), random);
    for (const auto &[row, ours] : order) {
        const double each = nanosecondsEach(ours ? rows[row].ours : rows[row].bare);
        (ours ? samples[row].ours : samples[row].bare).push_back(each);
    }
}

std::string limitText(double limit, const std::string &unit) {
    char text[64];
    if (limit == 0) return "-";
    snprintf(text, sizeof text, unit.empty() ? "%.2f" : "%g %s", limit, unit.c_str());
    return text;
}

// True when the gate was missed.
bool print(const std::string &what, const std::string &reference, const Limits &limits, const Quartiles &q,
           const std::string &unit) {
    const double gate = limits.gate != 0 ? limits.gate : limits.goal;
    const char *result = limits.goal == 0         ? ""
                         : q.median > gate        ? "MISSED"
                         : q.median > limits.goal ? "above its goal"
                                                  : "ok";
    printf("%-58s %-34s %8s %8s %9.2f %9.2f %9.2f  %s\n", what.c_str(), reference.c_str(),
           limitText(limits.goal, unit).c_str(), limitText(gate, unit).c_str(), q.median, q.low, q.high,
           result);
    (void)fflush(stdout);
    return limits.goal != 0 && q.median > gate;
}

}  // namespace

Quartiles quartilesOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const auto at = [&values](double share) {
        return values[static_cast<size_t>(std::lround(share * static_cast<double>(values.size() - 1)))];
    };
    return {at(0.25), at(0.5), at(0.75)};
}

double nanosecondsEach(const Loop &loop, double budget) {
    double time = 0;
    double operations = 0;
    stretch(loop, time, operations);  // caches and branch predictors learn this loop
    time = operations = 0;
    while (time < budget) stretch(loop, time, operations);
    return time / operations;
}

void Table::keepOnly(const std::string &text) {
    std::erase_if(rows_, [&](const Row &row) { return row.what.find(text) == std::string::npos; });
    std::erase_if(figures_,
                  [&](const Figure &figure) { return figure.what.find(text) == std::string::npos; });
}

size_t Table::once(const std::string &what) const {
    for (const Row &row : rows_) {
        if (row.what != what) continue;
        if (row.ours.prepare) row.ours.prepare();
        (void)row.ours.run();
        if (row.ours.prepare) row.ours.prepare();
        return korvid_bench_measured(row.ours);
    }
    return 0;
}

int Table::run(unsigned rounds) {
    std::mt19937_64 random(std::random_device{}());
    std::vector<Samples> samples(rows_.size());
    std::vector<size_t> chosen;
    for (size_t row = 0; row < rows_.size(); row++) chosen.push_back(row);

    for (unsigned round = 0; round < rounds; round++) runRound(rows_, samples, chosen, random);
    std::erase_if(chosen, [&](size_t row) { return !wide(samples[row].ratios()); });
    for (unsigned round = 0; round < rounds && !chosen.empty(); round++)
        runRound(rows_, samples, chosen, random);

    int missed = 0;
    printf("%-58s %-34s %8s %8s %9s %9s %9s\n", "what", "beside", "goal", "gate", "median", "lower q.",
           "upper q.");
    for (size_t row = 0; row < rows_.size(); row++) {
        const Row &it = rows_[row];
        missed += print(it.what, it.reference, it.limits, quartilesOf(samples[row].ratios()), "");
    }
    for (const Figure &figure : figures_) {
        std::vector<double> values;
        const unsigned wanted = figure.rounds != 0 ? figure.rounds : rounds;
        for (unsigned round = 0; round < wanted; round++) values.push_back(figure.measure());
        missed += print(figure.what, "", figure.limits, quartilesOf(values), figure.unit);
    }
    if (missed != 0) printf("%d gate%s missed\n", missed, missed == 1 ? "" : "s");
    return missed;
}

}  // namespace bench
