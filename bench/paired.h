// Measures two sides, a peer and ours, that reach the same result, in one run. Passes alternate, and so does the side
// that goes first, so that other load on the machine hits both; the figure is the median of the rounds' ratios.
//
//   int main(int argc, char** argv) {
//       bench::add("copy against move", bench::timeAtMost(1.05), [] { return bench::Pair{moveSide, copySide}; });
//       return bench::run(argc, argv);
//   }
//
// Counters of each bench: ratio, with the quartiles of the rounds (low, high); peer_ns and ours_ns (medians, per
// operation); target; and at_least (1: the ratio is one of speeds and should reach the target; else it is one of times
// and should not exceed it).
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <string>

namespace bench {

// Runs one pass and returns the seconds of the part that counts.
using Side = std::function<double()>;

struct Pair {
    Side peer;
    Side ours;
    double operations = 1;  // in one pass of either side
};

struct Goal {
    double target;  // 0: no target, the ratio is for information
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

// `make` runs when the bench does and prepares both sides; an exception from it fails only this bench. Each side runs
// once untimed, then in `rounds` rounds (ORVA_BENCH_ROUNDS in the environment overrides the number).
void add(const std::string& name, Goal goal, const std::function<Pair()>& make, int rounds = 9);

// Runs the added benches; takes Google Benchmark's flags. Returns main's exit code.
int run(int argc, char** argv);

// Seconds of processor time, for work on one thread: leaves out what other processes take of the core.
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

// Seconds of wall time, for work on several threads.
template <class Work>
double wallSeconds(Work work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace bench
