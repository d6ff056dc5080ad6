// Threads for the length of one call: they start with it, take no signals and end before it returns.
//
// Failure: none of their own. No thread to be had: the others do its work.
#pragma once

#include <cstdint>
#include <functional>

namespace orva {

// Runs work(true) on this thread and work(false) on up to `threads - 1` more at once. It may throw nothing.
void inThreads(std::uint32_t threads, const std::function<void(bool caller)>& work);

}  // namespace orva
