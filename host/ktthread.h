// ktthread: mutexes, counting semaphores and the thread pool that background work runs on.
//
// Threads: every operation may run on several threads at once, except that one thread makes, starts, stops and destroys
//          an object.
// Fork:    semaphores and pools belong to the process that made them. A forked child has none of the threads that they
//          serve, so nothing waits there: operations return false, and stopAll and the destructors return at once and
//          leak the memory. A child may hold and destroy inherited objects; it cannot use them.
// Failure: std::system_error and bad_alloc from making and starting, bad_alloc from runCallBack. Nothing else throws.
#pragma once

#include <orva/hostApi.h>

#include <memory>
#include <mutex>

class ORVA_HOST_API ktMutex {
public:
    enum LockType : int { Recursive = 1 };

    ktMutex() = default;
    ktMutex(const ktMutex&) = delete;
    ktMutex& operator=(const ktMutex&) = delete;

    // Waits for the mutex. The thread that holds it may lock it again, and must unlock it as often. `file` and `line`,
    // the place of the call, are ignored.
    void lock(LockType type, const char* file, unsigned long line);
    void unlock(const char* file, unsigned long line);

private:
    std::recursive_mutex fMutex;
};

// Locks a mutex for the length of a scope.
class ORVA_HOST_API ktGuard {
public:
    ktGuard(ktMutex& mutex, ktMutex::LockType type);
    ktGuard(const ktGuard&) = delete;
    ktGuard& operator=(const ktGuard&) = delete;
    ~ktGuard();

private:
    ktMutex& fMutex;
};

// A counting semaphore. Copies share one count, which lives as long as any of them. It consists of a mutex and a
// condition variable because std::counting_semaphore can miss a wake-up on the compilers in use. Existing binaries fix
// the order of the virtual functions.
class ORVA_HOST_API ktSemaphore {
public:
    explicit ktSemaphore(unsigned int count);
    ktSemaphore(const ktSemaphore&) = default;
    ktSemaphore& operator=(const ktSemaphore&) = default;
    virtual ~ktSemaphore();

    // Adds one to the count and wakes one waiter, which then sees everything that the poster wrote before. True, except
    // in a forked child.
    virtual bool postSemaphore();
    // Takes one from the count, waiting at most `milliseconds` for it; a negative number counts as 0. False if there
    // was none.
    virtual bool waitSemaphore(int milliseconds);
    // Waits until it can take one from the count. True; in a forked child false at once, with nothing taken.
    virtual bool waitSemaphore();
    // Takes one from the count if it is above 0, without waiting. False if there was none.
    virtual bool tryWaitSemaphore();
    // waitSemaphore() for a caller that has locked `mutex` once: unlocks it for the wait and locks it again afterwards.
    // A post between the unlocking and the wait is not lost.
    virtual bool sleepSemaphore(ktMutex& mutex);

private:
    struct State;
    std::shared_ptr<State> fState;
};

class ORVA_HOST_API msgBaseData {
public:
    msgBaseData() = default;
    msgBaseData(const msgBaseData&) = default;
    msgBaseData& operator=(const msgBaseData&) = default;
    virtual ~msgBaseData();

    virtual void* getMsgData();
    virtual void setMsgData(void* data);

private:
    void* fMsgData = nullptr;
};

// A piece of work for a pool. Both data pointers belong to the user; the pool ignores them.
class ORVA_HOST_API CallBackObject : public msgBaseData {
public:
    explicit CallBackObject(void* callbackData);
    ~CallBackObject() override;

    virtual void setCallbackData(void* data);
    virtual void* getCallbackData();
    // Runs on a pool thread, with the `data` given to runCallBack. The pool ignores the result and drops exceptions: a
    // callback that may fail has to keep its error itself.
    virtual int onCallBack(void* data) = 0;

private:
    void* fCallbackData;
};

// The life of a pool: init, startAll, any number of runCallBack, stopAll, delete. A stopped pool stays stopped.
class ORVA_HOST_API ktThreadPoolBase {
public:
    ktThreadPoolBase(const ktThreadPoolBase&) = delete;
    ktThreadPoolBase& operator=(const ktThreadPoolBase&) = delete;
    // Calls stopAll().
    virtual ~ktThreadPoolBase();

    // Queues `callback` and returns true at once, or returns false if the pool has been stopped. A pool thread runs
    // callback->onCallBack(data) as soon as one is free. The pool owns the callback from here on, even if this throws
    // or returns false, and deletes it after its run, or with itself if it was never started: never pass one twice.
    virtual bool runCallBack(CallBackObject* callback, void* data, int reserved);

    void init();

    // Starts all threads of the pool or none: if one cannot be started, those already started are ended and
    // std::system_error is thrown. Pool threads block all signals except those of their own faults, so the handlers of
    // the host run on its own threads.
    void startAll();

    // Waits until every queued callback has returned and all threads have ended. Tell callbacks that loop to end before
    // this call. May be called again. Not from a callback.
    void stopAll();

protected:
    explicit ktThreadPoolBase(int threads);

private:
    struct Data;
    std::unique_ptr<Data> fData;
};

class ORVA_HOST_API ktThreadPool : public ktThreadPoolBase {
public:
    // `count`: how many callbacks run at the same time, at least 1. `reserved` is ignored.
    ktThreadPool(int count, int reserved);
    ~ktThreadPool() override;
};
