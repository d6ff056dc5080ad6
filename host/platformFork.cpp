#include <orva/platform.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

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
