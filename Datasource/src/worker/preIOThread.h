// PreIOThreadBase: the base of the workers, which take disk and codec work off the caller's thread. A worker owns a
// pool and the callbacks that it hands to the pool: each calls one function, the loop step, in a loop on a pool thread.
// The stream calls one request function of the worker, getBlock or putBlock, and those of its life.
//
// Two threads meet in a worker: the stream's caller (the caller side) and the pool thread (the thread side). Each
// derived class says what they share, and whose turn it is.
//
// Life:    new, initThreads, startThreads, requests, stopThreads, destroyThreads, delete; all on the caller side.
// Failure: no exception leaves a loop step. A failed read-ahead counts as none; a writing worker keeps its first
//          failure for its caller. If a thread cannot start, startThreads throws std::system_error, and the worker may
//          be deleted.
// Fork:    in a process that did not make it a worker has no threads: stopThreads and destroyThreads do nothing there,
//          on purpose.
#pragma once

#include "base/assertion.h"

#include <orva/ktthread.h>
#include <orva/platform.h>
#include <orva/refCntObject.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

class PreIOThreadBase;

namespace orva {
inline constexpr std::uint32_t kMostThreads = 256;  // each holds two blocks in memory
}  // namespace orva

inline constexpr char kWorkerGiven[] = "prtData!=0";

// Runs on a pool thread: calls `step` of the given worker until it returns nonzero. `invariant`: the assertion text for
// a missing worker.
template <class Worker, std::int32_t (Worker::*step)(), const char* invariant = kWorkerGiven>
class workerLoop final : public CallBackObject {
public:
    workerLoop() : CallBackObject(nullptr) {}
    int onCallBack(void* prtData) override {
        ORVA_ASSERT(prtData != nullptr, invariant);
        auto* pParent = static_cast<Worker*>(static_cast<PreIOThreadBase*>(prtData));
        while ((pParent->*step)() == 0) {
        }
        return 0;
    }
};

class PreIOThreadBase : public ORVA_RefCntObject {
public:
    PreIOThreadBase() = default;
    PreIOThreadBase(const PreIOThreadBase&) = delete;
    PreIOThreadBase& operator=(const PreIOThreadBase&) = delete;
    // Does not end the threads: call stopThreads and destroyThreads before.
    ~PreIOThreadBase() override;

    // All return true. `bRead`: true for a reader. Throws bad_alloc; destroyThreads and the destructor free what was
    // made.
    virtual bool initThreads(bool bRead);
    virtual bool startThreads();
    virtual bool noOperation();
    // Ends a reading worker by the stop request; a writing one must have had its end request. Waits for the threads.
    virtual bool stopThreads();
    // Deletes the pool, after stopThreads.
    virtual bool destroyThreads();

    // Reads the block at `position` into `buffer`; returns the bytes delivered. Size and position 0: the stop request.
    virtual std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) = 0;
    // Takes a block from `buffer`, which is free again at return; returns the bytes taken. Size 0: the end request.
    virtual std::uint32_t putBlock(const void* buffer, std::uint32_t size, std::int64_t position) = 0;
    // One pass of a loop; nonzero ends it.
    virtual std::int32_t writeLoopStep() = 0;
    virtual std::int32_t readLoopStep() = 0;
    using newThreadForWrite = workerLoop<PreIOThreadBase, &PreIOThreadBase::writeLoopStep>;
    using newThreadForRead = workerLoop<PreIOThreadBase, &PreIOThreadBase::readLoopStep>;

    // A writing worker's first failure, or null. Caller side, once the thread has stopped.
    const std::exception_ptr& failure() const { return fFailure; }

protected:
    // Runs a loop on each of `threads` pool threads, of which more than kMostThreads count as that many.
    explicit PreIOThreadBase(std::uint32_t threads) : fThreads(std::min(threads, orva::kMostThreads)) {}
    // Makes the loop of thread `number`, from 0, over readLoopStep or writeLoopStep.
    virtual std::unique_ptr<CallBackObject> newLoop(bool bRead, std::uint32_t number);
    // False in a forked child, which does not have the threads.
    bool isMakersProcess() const { return fMaker.isHere(); }

    // Written before startThreads, then only read.
    const std::uint32_t fThreads = 1;
    ktThreadPool* pThreadPool = nullptr;
    bool bWrite = false;
    const platform::makerProcess fMaker;
    // Guarded as the derived class says.
    std::exception_ptr fFailure;

private:
    std::vector<std::unique_ptr<CallBackObject>> fLoops;  // not handed to the pool yet
};

// Starts a new worker. If this throws, the threads have ended and the worker may be deleted.
void startWorker(PreIOThreadBase& worker, bool bRead);
// As startWorker, and returns the worker; deletes it if this throws.
template <class Worker>
std::unique_ptr<Worker> startedWorker(std::unique_ptr<Worker> worker, bool bRead) {
    startWorker(*worker, bRead);
    return worker;
}

// The base of workers that run their loop on several threads. A mutex guards what these share; one condition variable
// signals every change. In a forked child nobody waits, and both are leaked: a thread may have held them.
class PreIOThreadSeveral : public PreIOThreadBase {
protected:
    explicit PreIOThreadSeveral(std::uint32_t threads)
        : PreIOThreadBase(threads), bCallerHelps(fThreads < platform::coreCount()) {}
    ~PreIOThreadSeveral() override {
        if (!isMakersProcess()) static_cast<void>(fShared.release());
    }
    // Starts the threads of a worker with its first block. False without threads: for a count of 0, or in a forked
    // child.
    bool startOnce(bool bRead) {
        if (fThreads == 0 || !isMakersProcess()) return false;
        if (pThreadPool == nullptr) startWorker(*this, bRead);
        return true;
    }
    using guard = std::unique_lock<std::mutex>;
    guard locked() const { return guard(fShared->mutex); }
    void waitForWork(guard& lock) const { fShared->changed.wait(lock); }
    // The caller seldom waits, and notifyCaller notifies only then.
    void waitAsCaller(guard& lock) const {
        fShared->callerWaits = true;
        fShared->changed.wait(lock);
        fShared->callerWaits = false;
    }
    void notifyThreads() const { fShared->changed.notify_all(); }
    void notifyThread() const { fShared->changed.notify_one(); }
    void notifyCaller() const {
        if (fShared->callerWaits) fShared->changed.notify_all();
    }

    // A caller that would have to wait helps if there is a core for it; otherwise it would only slow down the threads.
    const bool bCallerHelps;

private:
    struct shared {
        std::mutex mutex;
        std::condition_variable changed;
        bool callerWaits = false;
    };
    std::unique_ptr<shared> fShared = std::make_unique<shared>();
};

namespace orva {
[[noreturn]] inline void refuseOperation() {
    assertionFailed(__FILE__, __LINE__, "0");
}
}  // namespace orva

// Workers that only read, or only write: a call of the other direction is an assertion failure.
template <class Base>
class readingWorker : public Base {
public:
    using Base::Base;
    std::uint32_t putBlock(const void*, std::uint32_t, std::int64_t) override { orva::refuseOperation(); }
    std::int32_t writeLoopStep() override { orva::refuseOperation(); }
};

template <class Base>
class writingWorker : public Base {
public:
    using Base::Base;
    std::uint32_t getBlock(void*, std::uint32_t, std::int64_t) override { orva::refuseOperation(); }
    std::int32_t readLoopStep() override { orva::refuseOperation(); }
};
