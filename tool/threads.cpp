#include "threads.h"

#include <orva/platform.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <condition_variable>
#include <future>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

namespace {

constexpr std::int32_t kMostThreads = 256;  // each holds two blocks in memory

// Hands out the numbers and the turns of runInOrder.
class turns {
public:
    explicit turns(std::size_t count) : fCount(count) {}

    // Empty if no piece is left.
    std::optional<std::size_t> take() {
        const std::lock_guard guard(fLock);
        return fTaken < fCount ? std::optional(fTaken++) : std::nullopt;
    }
    // Waits for the turn of `number`; false if the work has ended early.
    bool await(std::size_t number) {
        std::unique_lock lock(fLock);
        fTurn.wait(lock, [&] { return fEnded == number || fCount == 0; });
        return fCount != 0;
    }
    void pass(bool goOn) {
        const std::lock_guard guard(fLock);
        ++fEnded;
        if (!goOn) fCount = 0;
        fTurn.notify_all();
    }

private:
    std::mutex fLock;
    std::condition_variable fTurn;
    // Guarded by fLock.
    std::size_t fCount;  // 0 once the work has ended early
    std::size_t fTaken = 0;
    std::size_t fEnded = 0;
};

// Runs `work` on this thread and on `threads - 1` more, or on as many as can be started. Throws the first failure once
// all have ended.
void runOnThreads(std::int32_t threads, const std::function<void()>& work) {
    std::vector<std::future<void>> others;
    try {
        for (std::int32_t i = 1; i < threads; ++i) others.push_back(std::async(std::launch::async, work));
    } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): the started ones do its work
    }
    work();
    for (std::future<void>& other : others) other.get();
}

}  // namespace

void threadOptions::addTo(CLI::App& command) {
    command
        .add_option("-T,--threads", wanted, "Threads at work in all, up to 256; 0, the default, is one for each core")
        ->option_text("N")
        ->check(CLI::Range(0, kMostThreads));
}

std::int32_t threadOptions::count() const {
    const auto cores = static_cast<std::int32_t>(platform::coreCount());
    return wanted != 0 ? wanted : std::min(cores, kMostThreads);
}

void runInOrder(std::int32_t threads, std::size_t count, const std::function<orderedWorker()>& makeWorker) {
    turns order(count);
    runOnThreads(threads, [&] {
        try {
            const orderedWorker worker = makeWorker();
            while (const auto number = order.take()) {
                const orderedEnd end = worker(*number);
                if (!order.await(*number)) return;
                order.pass(end());
            }
        } catch (...) {
            order.pass(false);
            throw;
        }
    });
}
