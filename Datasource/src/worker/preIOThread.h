// PreIOThreadBase: what moves disk and codec work off the caller's thread. A worker owns a pool and, until the pool has
// them, callbacks: each is a loop over one operation, the loop step, on a pool thread. The stream talks to the worker
// by one request operation and by the operations of its life.
//
// Two threads meet in a worker: the stream's caller (the caller side) and the pool thread (the thread side). What they
// share, and whose turn it is, stands in each derived class.
//
// Life:    new, initThreads, startThreads, requests, stopThreads, destroyThreads, delete; all on the caller side.
// Failure: nothing leaves a loop step. A failed read-ahead is no read-ahead; a writing worker keeps its first failure
//          for its caller. A thread that cannot start is startThreads' std::system_error, and the worker may be
//          deleted.
// Fork:    in another process than the one that made it a worker has no threads: stopThreads and destroyThreads do
//          nothing there, on purpose.
#pragma once

#include "base/assertion.h"

#include <orva/ktthread.h>
#include <orva/platform.h>
#include <orva/refCntObject.h>

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

class PreIOThreadBase;

inline constexpr char kWorkerGiven[] = "prtData!=0";

// What a pool thread runs: one step of the worker that it is given, until that gives nonzero. `invariant`: what it
// states of the worker.
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
    // Stops nothing and frees nothing: run stopThreads and destroyThreads before.
    ~PreIOThreadBase() override;

    // All give true. A reading worker takes true. A failed allocation is bad_alloc; what was made goes with the worker.
    virtual bool initThreads(bool bRead);
    virtual bool startThreads();
    virtual bool noOperation();
    // Ends a reading worker's loop by the stop request; a writing worker's has ended by its end request.
    virtual bool stopThreads();
    // After stopThreads.
    virtual bool destroyThreads();

    // A block into `buffer`; the bytes delivered. Size and position 0: the stop request.
    virtual std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) = 0;
    // A block from `buffer`, which is free again at return; the bytes taken. Size 0: the end request.
    virtual std::uint32_t putBlock(const void* buffer, std::uint32_t size, std::int64_t position) = 0;
    // Nonzero ends the loop.
    virtual std::int32_t writeLoopStep() = 0;
    virtual std::int32_t readLoopStep() = 0;
    using newThreadForWrite = workerLoop<PreIOThreadBase, &PreIOThreadBase::writeLoopStep>;
    using newThreadForRead = workerLoop<PreIOThreadBase, &PreIOThreadBase::readLoopStep>;

    // A writing worker's first failure, or null. Caller side, once the thread has stopped.
    const std::exception_ptr& failure() const { return fFailure; }

protected:
    // A loop on each of so many pool threads.
    explicit PreIOThreadBase(std::uint32_t threads) : fThreads(threads) {}
    // The loop of the thread of that number, from 0: over readLoopStep or writeLoopStep.
    virtual std::unique_ptr<CallBackObject> newLoop(bool bRead, std::uint32_t number);
    // False in a forked child, where the threads are not.
    bool isMakers() const { return fProcess == platform::processId(); }

    // Written before startThreads, then only read.
    const std::uint32_t fThreads = 1;
    ktThreadPool* pThreadPool = nullptr;
    bool bWrite = false;
    const std::int64_t fProcess = platform::processId();
    // Guarded as the derived class tells.
    std::exception_ptr fFailure;

private:
    std::vector<std::unique_ptr<CallBackObject>> fLoops;  // not yet the pool's
};

// Starts a new worker. One that cannot start may be deleted.
void startWorker(PreIOThreadBase& worker, bool bRead);
// And gives it back. One that cannot start is gone when the error leaves.
template <class Worker>
std::unique_ptr<Worker> startedWorker(std::unique_ptr<Worker> worker, bool bRead) {
    startWorker(*worker, bRead);
    return worker;
}

// The base of workers that run their loop on several threads at once. What these share is under its mutex; one
// condition tells them of every change. In a forked child nobody waits, and what a thread may have been holding is left
// behind.
class PreIOThreadSeveral : public PreIOThreadBase {
protected:
    explicit PreIOThreadSeveral(std::uint32_t threads)
        : PreIOThreadBase(threads), bCallerHelps(threads < std::thread::hardware_concurrency()) {}
    ~PreIOThreadSeveral() override {
        if (!isMakers()) static_cast<void>(fShared.release());
    }
    // For a worker whose threads start with its first block. False where there are none: of no threads, or in a forked
    // child.
    bool startOnce(bool bRead) {
        if (fThreads == 0 || !isMakers()) return false;
        if (pThreadPool == nullptr) startWorker(*this, bRead);
        return true;
    }
    using guard = std::unique_lock<std::mutex>;
    guard locked() const { return guard(fShared->mutex); }
    // A thread's wait for work, and the caller's, which seldom comes about: so threads wake each other for that alone.
    void wait(guard& lock) const { fShared->changed.wait(lock); }
    void await(guard& lock) const {
        fShared->awaited = true;
        wait(lock);
        fShared->awaited = false;
    }
    void tellThreads() const { fShared->changed.notify_all(); }
    void tellThread() const { fShared->changed.notify_one(); }
    void tellCaller() const {
        if (fShared->awaited) fShared->changed.notify_all();
    }

    // There is a core for a caller who would have to wait; else its help would only keep the threads from theirs.
    const bool bCallerHelps;

private:
    struct shared {
        std::mutex mutex;
        std::condition_variable changed;
        bool awaited = false;
    };
    std::unique_ptr<shared> fShared = std::make_unique<shared>();
};

// A worker that only reads, or only writes: the operations of the other direction are breaches.
template <class Base>
class readingWorker : public Base {
public:
    using Base::Base;
    std::uint32_t putBlock(const void*, std::uint32_t, std::int64_t) override {
        ORVA_ASSERT(false, "0");
        return 0;
    }
    std::int32_t writeLoopStep() override {
        ORVA_ASSERT(false, "0");
        return 1;
    }
};

template <class Base>
class writingWorker : public Base {
public:
    using Base::Base;
    std::uint32_t getBlock(void*, std::uint32_t, std::int64_t) override {
        ORVA_ASSERT(false, "0");
        return 0;
    }
    std::int32_t readLoopStep() override {
        ORVA_ASSERT(false, "0");
        return 1;
    }
};
