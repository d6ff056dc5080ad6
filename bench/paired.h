// Two roads to the same result, measured against each other in one run. The roads alternate, and which goes first
// alternates too, so that whatever else the machine does hits both; the figure is the median of the rounds' ratios.
//
//   int main(int argc, char** argv) {
//       bench::add("copy against move", bench::timeAtMost(1.05), [] { return bench::Pair{moveRoad, copyRoad}; });
//       return bench::run(argc, argv);
//   }
//
// Counters of each: ratio with the quartiles of the rounds (low, high), peer_ns and ours_ns (medians, per operation),
// target and at_least (1: a ratio of speeds that should reach the target; else one of times that should not pass it).
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <string>

namespace bench {

// One pass; gives the seconds of the part that counts.
using Road = std::function<double()>;

struct Pair {
    Road peer;
    Road ours;
    double operations = 1;  // in one pass of either
};

struct Goal {
    double target;  // 0: none, the ratio is for the record
    bool atLeast;
};
constexpr Goal timeAtMost(double timesThePeers) {
    return {timesThePeers, false};
}
constexpr Goal speedAtLeast(double timesThePeers) {
    return {timesThePeers, true};
}
constexpr Goal noGoal() {
    return {0, false};
}

// `make` runs when the bench does and prepares both roads; what it throws fails this bench alone. Each road runs once
// untimed, then in `rounds` rounds (the environment's ORVA_BENCH_ROUNDS wins).
void add(const std::string& name, Goal goal, const std::function<Pair()>& make, int rounds = 9);

// Runs what was added; takes Google Benchmark's flags. The exit code of a main.
int run(int argc, char** argv);

// For roads on one thread: leaves out what other processes take of the core.
template <class Work>
double threadSeconds(Work work) {
    const auto now = [] {
        std::timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
    };
    const double begin = now();
    work();
    return now() - begin;
}

// For roads on several threads.
template <class Work>
double wallSeconds(Work work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace bench
