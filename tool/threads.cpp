#include "threads.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <future>
#include <thread>
#include <vector>

namespace {

constexpr std::int32_t kMostThreads = 256;  // each holds two blocks of memory

}  // namespace

void threadOptions::addTo(CLI::App& command) {
    command.add_option("-T,--threads", wanted, "Threads beside this one; 0, as without it, is one for each core")
        ->check(CLI::Range(0, kMostThreads));
}

std::int32_t threadOptions::count() const {
    if (wanted != 0) return wanted;
    return std::clamp(static_cast<std::int32_t>(std::thread::hardware_concurrency()), 1, kMostThreads);
}

void runOnThreads(std::int32_t threads, const std::function<void()>& work) {
    std::vector<std::future<void>> others;
    for (std::int32_t i = 1; i < threads; ++i) others.push_back(std::async(std::launch::async, work));
    work();
    for (std::future<void>& other : others) other.get();
}
