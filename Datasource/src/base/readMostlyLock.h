// readMostlyLock: keeps readers out while somebody writes. A reader locks one of several mutexes, seldom that of
// another thread, so that readers on many cores do not fight over one. A writer locks them all.
//
// Threads: any, but one that has the lock must not ask for it again.
#pragma once

#include <orva/platform.h>

#include <array>
#include <cstddef>
#include <mutex>

namespace orva {

class readMostlyLock {
public:
    // What this thread locks in order to read.
    std::mutex& toRead() { return fLines[platform::threadNumber() % kLines].mutex; }
    // To write.
    void lock() {
        for (line& one : fLines) one.mutex.lock();
    }
    void unlock() {
        for (line& one : fLines) one.mutex.unlock();
    }

private:
    static constexpr std::size_t kLines = 16;
    struct alignas(64) line {  // of the processor's cache
        std::mutex mutex;
    };
    std::array<line, kLines> fLines;
};

}  // namespace orva
