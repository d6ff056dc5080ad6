#include <orva/platform.h>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <thread>

namespace platform {
namespace {

std::mutex gForkLock;
std::atomic<std::uint32_t> gForks{0};

void childBegins() {
    gForks.fetch_add(1, std::memory_order_relaxed);
    gForkLock.unlock();
}
[[maybe_unused]] const int gForksAreWatched =
    ::pthread_atfork([] { gForkLock.lock(); }, [] { gForkLock.unlock(); }, childBegins);

// The value of the key is one of these bytes: their places are the numbers of threads. Not thread_local: the first use
// of a variable of a library that was loaded late takes memory, and the system ends the process if there is none.
constinit char gNumbers[16]{};
std::atomic<std::size_t> gThreads{0};
pthread_key_t gKey;
const bool gHasKey = ::pthread_key_create(&gKey, nullptr) == 0;

}  // namespace

std::int64_t processId() noexcept {
    return ::getpid();
}

// The standard library counts all cores that are online.
std::uint32_t coreCount() noexcept {
    cpu_set_t own;
    if (::sched_getaffinity(0, sizeof own, &own) == 0) return static_cast<std::uint32_t>(CPU_COUNT(&own));
    return std::max(std::thread::hardware_concurrency(), 1U);  // more cores than the set has room for
}

std::uint32_t forkCount() noexcept {
    return gForks.load(std::memory_order_relaxed);
}

std::size_t threadNumber() noexcept {
    if (!gHasKey) return 0;
    if (const void* const number = ::pthread_getspecific(gKey)) {
        return static_cast<std::size_t>(static_cast<const char*>(number) - gNumbers);
    }
    const std::size_t number = gThreads.fetch_add(1, std::memory_order_relaxed) % sizeof gNumbers;
    ::pthread_setspecific(gKey, &gNumbers[number]);
    return number;
}

std::unique_lock<std::mutex> noFork() noexcept {
    return std::unique_lock(gForkLock);
}

}  // namespace platform
