// The threads that a verb works with beside its own: -T N.
#pragma once

#include <cstdint>
#include <functional>

namespace CLI {
class App;
}

struct threadOptions {
    std::int32_t wanted = 0;  // 0: as many as there are cores

    void addTo(CLI::App& command);
    std::int32_t count() const;
    // For setThreadCount. This thread compresses and inflates too, so with as many as there are cores it would only be
    // in their way.
    std::int32_t besideThisOne() const;
};

// Runs `work` on this thread and on `threads - 1` more at once, or on as many as can be started. Throws the first
// failure once all have ended.
void runOnThreads(std::int32_t threads, const std::function<void()>& work);
