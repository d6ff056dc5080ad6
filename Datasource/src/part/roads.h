// Which threads do a stream's work.
#pragma once

#include <cstdint>

namespace orva {

// The settings of setMultiThread and setThreadCount. Only makeSink and makeSource look at them.
struct roads {
    std::int32_t multiThread = 0;   // 0: none; 1: a thread that writes; 2 and above: one that reads
    std::uint32_t threadCount = 0;  // several threads, which outrank it
};

// The threads that a stream has made.
enum class atWork : std::uint8_t { none, one, several };

}  // namespace orva
