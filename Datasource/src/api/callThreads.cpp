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

class sharedWork {
public:
    sharedWork(std::size_t count, const std::function<sharedWorker(bool)>& makeWorker)
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
    std::mutex fLock;  // of the next two
    std::size_t fFailed = SIZE_MAX;
    std::exception_ptr fFailure;
};

class poolWork final : public CallBackObject {
public:
    poolWork() : CallBackObject(nullptr) {}
    int onCallBack(void* shared) override {
        static_cast<sharedWork*>(shared)->work(false);
        return 0;
    }
};

// Works on this thread and on `others` more.
void workOnPool(int others, sharedWork& shared) {
    ktThreadPool pool(others, 0);
    pool.init();
    try {
        pool.startAll();
        for (int i = 0; i < others; ++i) pool.runCallBack(new poolWork, &shared, 0);
    } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): this thread does all the work
    }
    shared.work(true);
    pool.stopAll();
}

}  // namespace

void shareOut(std::uint32_t threads, std::size_t count, const std::function<sharedWorker(bool caller)>& makeWorker) {
    sharedWork shared(count, makeWorker);
    const std::size_t useful = std::min<std::size_t>(threads, count);
    if (useful > 1) {
        workOnPool(static_cast<int>(useful) - 1, shared);
    } else {
        shared.work(true);
    }
    shared.throwFailure();
}

}  // namespace orva
