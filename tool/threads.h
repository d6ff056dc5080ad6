// The number of threads of a verb, its own included: -T N.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace CLI {
class App;
}

struct threadOptions {
    std::int32_t wanted = 0;  // 0: one for each core, which the library counts itself

    void addTo(CLI::App& command);
    std::int32_t count() const;
};

// Does work in `count` numbered pieces, each taken by the next free thread. `makeWorker` makes the worker of one
// thread. The worker does the first half of a piece, beside all others, and returns the second half, which runs once
// those of all smaller numbers have run; false ends the work. An exception ends it too, and is thrown once all threads
// have ended.
using orderedEnd = std::function<bool()>;
using orderedWorker = std::function<orderedEnd(std::size_t number)>;
void runInOrder(std::int32_t threads, std::size_t count, const std::function<orderedWorker()>& makeWorker);
