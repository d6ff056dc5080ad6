#include "paired.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <vector>

namespace bench {

namespace {

// The value below which the given share of the values lies.
double quantile(std::vector<double> values, double share) {
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

struct Rounds {
    std::vector<double> peer, ours, ratio;

    void take(const Pair& pair, Goal goal, bool peerFirst) {
        double seconds[2];
        for (const bool isPeer : {peerFirst, !peerFirst}) seconds[isPeer ? 0 : 1] = isPeer ? pair.peer() : pair.ours();
        peer.push_back(seconds[0]);
        ours.push_back(seconds[1]);
        ratio.push_back(goal.atLeast ? seconds[0] / seconds[1] : seconds[1] / seconds[0]);
    }

    void report(benchmark::State& state, const Pair& pair, Goal goal) const {
        state.counters["peer_ns"] = quantile(peer, 0.5) * 1e9 / pair.operations;
        state.counters["ours_ns"] = quantile(ours, 0.5) * 1e9 / pair.operations;
        state.counters["ratio"] = quantile(ratio, 0.5);
        state.counters["low"] = quantile(ratio, 0.25);
        state.counters["high"] = quantile(ratio, 0.75);
        state.counters["target"] = goal.target;
        state.counters["at_least"] = goal.atLeast ? 1 : 0;
    }
};

void measure(benchmark::State& state, Goal goal, const std::function<Pair()>& make) {
    try {
        const Pair pair = make();
        Rounds warmUp;
        warmUp.take(pair, goal, true);
        Rounds rounds;
        for ([[maybe_unused]] auto round : state) {
            rounds.take(pair, goal, rounds.ratio.size() % 2 == 0);
            state.SetIterationTime(rounds.ours.back());
        }
        rounds.report(state, pair, goal);
    } catch (const std::exception& failure) {
        state.SkipWithError(failure.what());
    }
}

int roundsOr(int rounds) {
    const char* asked = std::getenv("ORVA_BENCH_ROUNDS");
    return asked != nullptr ? std::max(1, std::atoi(asked)) : rounds;
}

}  // namespace

void add(const std::string& name, Goal goal, const std::function<Pair()>& make, int rounds) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) { measure(state, goal, make); })
        ->Iterations(roundsOr(rounds))
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

int run(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench
