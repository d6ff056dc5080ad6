// The threads that a verb works with, its own included: -T N.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace CLI {
class App;
}

struct threadOptions {
    std::int32_t wanted = 0;  // 0: as many as there are cores, which the library counts itself

    void addTo(CLI::App& command);
    std::int32_t count() const;
};

// Work in `count` numbered pieces, of which each thread takes the next one that nobody has. `makeWorker` gives what a
// thread does with a number: the first half of the work, beside all others. What comes back is its second half, which
// runs in its turn, when those of all smaller numbers have; false ends the work. So does what anything throws, which is
// thrown once all threads have ended.
using orderedEnd = std::function<bool()>;
using orderedWorker = std::function<orderedEnd(std::size_t number)>;
void runInOrder(std::int32_t threads, std::size_t count, const std::function<orderedWorker()>& makeWorker);
