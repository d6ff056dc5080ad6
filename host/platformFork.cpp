#include <orva/platform.h>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

noFork::noFork() noexcept {
    gForkLock.lock();
}
noFork::~noFork() {
    gForkLock.unlock();
}

}  // namespace platform
