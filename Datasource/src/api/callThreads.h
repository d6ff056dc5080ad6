// Threads that start in one call, take no signals and end before it returns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace orva {

// Does one piece of the work.
using sharedWorker = std::function<void(std::size_t number)>;

// Calls a worker for each number from 0 to `count` - 1, on this thread and up to `threads` - 1 more; a free thread
// takes the next number. makeWorker makes one worker for each thread, with `caller` true for this one. A failure ends
// the work; once all threads have ended, the failure with the lowest number is thrown. If no thread can be started, the
// others do its work.
void shareOut(std::uint32_t threads, std::size_t count, const std::function<sharedWorker(bool caller)>& makeWorker);

}  // namespace orva
