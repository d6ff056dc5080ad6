// Threads for the length of one call: they start with it, take no signals and end before it returns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace orva {

// Does one piece of the work.
using sharedWorker = std::function<void(std::size_t number)>;

// Shares the numbers from 0 to `count` - 1 out among this thread and up to `threads` - 1 more: whoever is free takes
// the next. Each thread has a worker of its own; `caller`: that of this thread. A failure ends the work, and once all
// have ended that of the lowest number is thrown. No thread to be had: the others do its work.
void shareOut(std::uint32_t threads, std::size_t count, const std::function<sharedWorker(bool caller)>& makeWorker);

}  // namespace orva
