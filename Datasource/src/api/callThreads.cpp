#include "api/callThreads.h"

#include <orva/ktthread.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <system_error>
#include <utility>

namespace orva {

namespace {

class oneMore final : public CallBackObject {
public:
    explicit oneMore(const std::function<void(bool)>& work) : CallBackObject(nullptr), fWork(work) {}
    int onCallBack(void*) override {
        fWork(false);
        return 0;
    }

private:
    const std::function<void(bool)>& fWork;
};

// Runs work(true) on this thread and work(false) on up to `threads - 1` more at once. It may throw nothing.
void inThreads(std::uint32_t threads, const std::function<void(bool)>& work) {
    if (threads <= 1) return work(true);
    const int others = static_cast<int>(threads) - 1;
    ktThreadPool pool(others, 0);
    pool.init();
    try {
        pool.startAll();
        for (int i = 0; i < others; ++i) pool.runCallBack(new oneMore(work), nullptr, 0);
    } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): this thread does all of it
    }
    work(true);
    pool.stopAll();
}

class sharing {
public:
    sharing(std::size_t count, const std::function<sharedWorker(bool)>& makeWorker)
        : fCount(count), fMakeWorker(makeWorker) {}

    void work(bool caller) noexcept {
        std::size_t number = fCount;
        try {
            const sharedWorker worker = fMakeWorker(caller);
            for (number = fNext++; number < fCount; number = fNext++) worker(number);
        } catch (...) {
            keep(number, std::current_exception());
        }
    }

    void throwFailure() const {
        if (fFailure != nullptr) std::rethrow_exception(fFailure);
    }

private:
    void keep(std::size_t number, std::exception_ptr failure) {
        fNext = fCount;
        const std::lock_guard guard(fLock);
        if (number >= fFailed) return;
        fFailed = number;
        fFailure = std::move(failure);
    }

    const std::size_t fCount;
    const std::function<sharedWorker(bool)>& fMakeWorker;
    std::atomic<std::size_t> fNext{0};
    std::mutex fLock;  // of what follows
    std::size_t fFailed = SIZE_MAX;
    std::exception_ptr fFailure;
};

}  // namespace

void shareOut(std::uint32_t threads, std::size_t count, const std::function<sharedWorker(bool)>& makeWorker) {
    sharing work(count, makeWorker);
    const auto useful = static_cast<std::uint32_t>(std::min<std::size_t>(threads, count));
    inThreads(useful, [&](bool caller) { work.work(caller); });
    work.throwFailure();
}

}  // namespace orva
