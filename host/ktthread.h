// ktthread: mutexes, counting semaphores and the thread pool that background work runs on.
//
// Threads: everything here may be used from several threads at once, but for the life of an object: one thread makes,
//          starts, stops and destroys it.
// Fork:    semaphores and pools belong to the process that made them. A forked child has none of the threads that they
//          serve, so there they wait for nobody: operations give false, stopAll and the destructors return at once and
//          leave the memory behind. A child may hold and destroy what it inherited; it cannot use it.
// Failure: std::system_error and bad_alloc from making and starting. Nothing else throws.
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

    // Waits. The thread that holds the mutex may take it again, and lets go as often. `file` and `line`, the place of
    // the call, are not used.
    void lock(LockType type, const char* file, unsigned long line);
    void unlock(const char* file, unsigned long line);

private:
    std::recursive_mutex fMutex;
};

// Holds the mutex for a block of code.
class ORVA_HOST_API ktGuard {
public:
    ktGuard(ktMutex& mutex, ktMutex::LockType type);
    ktGuard(const ktGuard&) = delete;
    ktGuard& operator=(const ktGuard&) = delete;
    ~ktGuard();

private:
    ktMutex& fMutex;
};

// A count that waiters take from and posters add to. Copies are the same semaphore, which lasts as long as any of them.
// Made of a mutex and a condition variable, since the library's own counting semaphore can miss a wake-up on the
// compilers in use. The order of the virtual operations is fixed by programs that are built already.
class ORVA_HOST_API ktSemaphore {
public:
    explicit ktSemaphore(unsigned int count);
    ktSemaphore(const ktSemaphore&) = default;
    ktSemaphore& operator=(const ktSemaphore&) = default;
    virtual ~ktSemaphore();

    // Adds one and wakes one waiter. What the poster wrote before is seen by the waiter that takes it. True, except in
    // a forked child.
    virtual bool postSemaphore();
    // Takes one if there is one within so many milliseconds; below 0 counts as 0. False if there was none.
    virtual bool waitSemaphore(int milliseconds);
    // Waits for one and takes it. True, except in a forked child, where it gives false at once and nothing was taken.
    virtual bool waitSemaphore();
    // Takes one if there is one. Never waits.
    virtual bool tryWaitSemaphore();
    // waitSemaphore() for a caller that holds `mutex` once: lets it go during the wait and holds it again afterwards.
    // A post between the two is not lost.
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

// A piece of work for a pool. The two data pointers are the user's own and not looked at.
class ORVA_HOST_API CallBackObject : public msgBaseData {
public:
    explicit CallBackObject(void* callbackData);
    ~CallBackObject() override;

    virtual void setCallbackData(void* data);
    virtual void* getCallbackData();
    // Runs on a pool thread, with the pointer given to runCallBack. The result is not looked at, and what it throws is
    // dropped: an error that somebody is to hear of has to be kept by the callback itself.
    virtual int onCallBack(void* data) = 0;

private:
    void* fCallbackData;
};

// The life of a pool: init, startAll, any number of runCallBack, stopAll, delete. A stopped pool stays stopped.
class ORVA_HOST_API ktThreadPoolBase {
public:
    ktThreadPoolBase(const ktThreadPoolBase&) = delete;
    ktThreadPoolBase& operator=(const ktThreadPoolBase&) = delete;
    // Calls stopAll.
    virtual ~ktThreadPoolBase();

    // Hands `callback` over and returns at once; a pool thread runs callback->onCallBack(data) as soon as one is free.
    // The pool deletes the callback after its run, or with itself if it was never started, and also if this throws or
    // gives false, which it does once the pool was stopped. So a callback is handed over once.
    virtual bool runCallBack(CallBackObject* callback, void* data, int reserved);

    void init();

    // Starts all threads of the pool, or none: if one cannot be started, those already started are ended and
    // std::system_error comes out. Pool threads take no signals but those of their own faults, so that the handlers of
    // the host run on the host's threads.
    void startAll();

    // Returns when every callback that was handed over has returned, and no thread is left. Their loops have to be told
    // to end before. May be called again. Not from a callback.
    void stopAll();

protected:
    explicit ktThreadPoolBase(int threads);

private:
    struct Data;
    std::unique_ptr<Data> fData;
};

class ORVA_HOST_API ktThreadPool : public ktThreadPoolBase {
public:
    // `count`: how many callbacks run at the same time, at least 1.
    ktThreadPool(int count, int reserved);
    ~ktThreadPool() override;
};
