#include "threads.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <future>
#include <system_error>
#include <thread>
#include <vector>

namespace {

constexpr std::int32_t kMostThreads = 256;  // each holds two blocks of memory

std::int32_t cores() {
    return static_cast<std::int32_t>(std::thread::hardware_concurrency());
}

}  // namespace

void threadOptions::addTo(CLI::App& command) {
    command
        .add_option("-T,--threads", wanted, "Threads that compress or inflate; 0, as without it, is one for each core")
        ->check(CLI::Range(0, kMostThreads));
}

std::int32_t threadOptions::count() const {
    return wanted != 0 ? wanted : std::clamp(cores(), 1, kMostThreads);
}

std::int32_t threadOptions::besideThisOne() const {
    return std::clamp(count(), 1, std::max(1, cores() - 1));
}

void runOnThreads(std::int32_t threads, const std::function<void()>& work) {
    std::vector<std::future<void>> others;
    try {
        for (std::int32_t i = 1; i < threads; ++i) others.push_back(std::async(std::launch::async, work));
    } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): the others do its work
    }
    work();
    for (std::future<void>& other : others) other.get();
}
