#include <orva/ktthread.h>
#include <orva/platform.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <list>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Threads started while one of these lives block all signals except those that their own faults raise: if one of these
// were blocked, it would end the process without running the handler that reports it.
class NoSignals {
public:
    NoSignals() {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) sigdelset(&all, fault);
        pthread_sigmask(SIG_SETMASK, &all, &fBefore);
    }
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &fBefore, nullptr); }

private:
    sigset_t fBefore{};
};

}  // namespace

void ktMutex::lock(LockType /*type*/, const char* /*file*/, unsigned long /*line*/) {
    fMutex.lock();
}
void ktMutex::unlock(const char* /*file*/, unsigned long /*line*/) {
    fMutex.unlock();
}

ktGuard::ktGuard(ktMutex& mutex, ktMutex::LockType type) : fMutex(mutex) {
    fMutex.lock(type, nullptr, 0);
}
ktGuard::~ktGuard() {
    fMutex.unlock(nullptr, 0);
}

struct ktSemaphore::State {
    const platform::makerProcess maker;
    std::mutex lock;  // guards count
    std::condition_variable posted;
    std::uint64_t count;

    explicit State(unsigned int first) : count(first) {}

    // Waits until `end`, or for ever, to take one from the count.
    bool take(std::optional<std::chrono::steady_clock::time_point> end = {}) {
        if (!maker.isHere()) return false;
        std::unique_lock guard(lock);
        const auto isAbove0 = [this] { return count > 0; };
        if (end && !posted.wait_until(guard, *end, isAbove0)) return false;
        posted.wait(guard, isAbove0);
        --count;
        return true;
    }

    // Leaks in a forked child, where destroying the condition variable would wait for waiters that are not there.
    static void release(State* state) {
        if (state->maker.isHere()) delete state;
    }
};

ktSemaphore::ktSemaphore(unsigned int count) : fState(new State(count), &State::release) {}
ktSemaphore::~ktSemaphore() = default;

bool ktSemaphore::postSemaphore() {
    if (!fState->maker.isHere()) return false;
    // Kept alive: the woken waiter may be the one that destroys the semaphore. Notified without the lock, or the waiter
    // would wake up only to wait for it.
    const std::shared_ptr<State> state = fState;
    {
        const std::lock_guard guard(state->lock);
        ++state->count;
    }
    state->posted.notify_one();
    return true;
}

bool ktSemaphore::waitSemaphore(int milliseconds) {
    return fState->take(std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(milliseconds, 0)));
}

bool ktSemaphore::waitSemaphore() {
    return fState->take();
}

bool ktSemaphore::tryWaitSemaphore() {
    return waitSemaphore(0);
}

bool ktSemaphore::sleepSemaphore(ktMutex& mutex) {
    mutex.unlock(nullptr, 0);
    const bool taken = waitSemaphore();
    mutex.lock(ktMutex::Recursive, nullptr, 0);
    return taken;
}

msgBaseData::~msgBaseData() = default;
void* msgBaseData::getMsgData() {
    return fMsgData;
}
void msgBaseData::setMsgData(void* data) {
    fMsgData = data;
}

CallBackObject::CallBackObject(void* callbackData) : fCallbackData(callbackData) {}
CallBackObject::~CallBackObject() = default;
void CallBackObject::setCallbackData(void* data) {
    fCallbackData = data;
}
void* CallBackObject::getCallbackData() {
    return fCallbackData;
}

struct ktThreadPoolBase::Data {
    struct Job {
        std::unique_ptr<CallBackObject> callback;
        void* data;
    };

    const platform::makerProcess maker;
    const std::size_t size;
    std::vector<std::thread> threads;  // owner's thread only
    std::condition_variable changed;

    std::mutex lock;  // guards the fields below
    std::list<Job> jobs;
    bool isEnding = false;

    explicit Data(int count) : size(static_cast<std::size_t>(std::max(count, 1))) {}

    // Drops the exceptions of a callback: they must not end the process.
    static void run(Job job) {
        try {
            job.callback->onCallBack(job.data);
        } catch (...) {
            return;
        }
    }

    void threadLoop() {
        std::unique_lock guard(lock);
        for (;;) {
            changed.wait(guard, [this] { return isEnding || !jobs.empty(); });
            if (jobs.empty()) return;
            Job job = std::move(jobs.front());
            jobs.pop_front();
            guard.unlock();
            run(std::move(job));
            guard.lock();
        }
    }

    // Lets the threads run all queued callbacks first, since callbacks may wait for each other.
    void end(std::unique_lock<std::mutex> guard) {
        isEnding = true;
        guard.unlock();
        changed.notify_all();
        for (std::thread& thread : threads) thread.join();
        threads.clear();
    }
};

ktThreadPoolBase::ktThreadPoolBase(int threads) : fData(std::make_unique<Data>(threads)) {}

ktThreadPoolBase::~ktThreadPoolBase() {
    stopAll();
    // Leaked in a forked child: it cannot join the threads, and the condition variable would wait for them.
    if (!fData->maker.isHere()) static_cast<void>(fData.release());
}

void ktThreadPoolBase::init() {
    fData->threads.reserve(fData->size);
}

void ktThreadPoolBase::startAll() {
    if (!fData->maker.isHere() || !fData->threads.empty()) return;
    const NoSignals noSignals;
    std::unique_lock guard(fData->lock);  // no thread takes a job before all of them run
    try {
        while (fData->threads.size() < fData->size) fData->threads.emplace_back(&Data::threadLoop, fData.get());
    } catch (...) {
        fData->end(std::move(guard));
        throw;
    }
}

void ktThreadPoolBase::stopAll() {
    if (!fData->maker.isHere()) return;
    fData->end(std::unique_lock(fData->lock));
}

bool ktThreadPoolBase::runCallBack(CallBackObject* callback, void* data, int /*reserved*/) {
    Data::Job job{std::unique_ptr<CallBackObject>(callback), data};
    if (!fData->maker.isHere()) return false;
    const std::lock_guard guard(fData->lock);
    if (fData->isEnding) return false;
    fData->jobs.push_back(std::move(job));
    fData->changed.notify_one();
    return true;
}

ktThreadPool::ktThreadPool(int count, int /*reserved*/) : ktThreadPoolBase(count) {}
ktThreadPool::~ktThreadPool() = default;
