#include "hostTest.h"

#include <orva/ktthread.h>

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Runs a function, and counts itself while it exists.
class Task : public CallBackObject {
public:
    explicit Task(std::function<void(void*)> body) : CallBackObject(nullptr), fBody(std::move(body)) { ++alive; }
    ~Task() override { --alive; }
    int onCallBack(void* data) override {
        fBody(data);
        return 0;
    }

    static inline std::atomic<int> alive{0};

private:
    std::function<void(void*)> fBody;
};

std::unique_ptr<ktThreadPool> startedPool(int count) {
    auto pool = std::make_unique<ktThreadPool>(count, 0);
    pool->init();
    pool->startAll();
    return pool;
}

bool runOn(ktThreadPool& pool, std::function<void(void*)> body, void* data = nullptr) {
    return pool.runCallBack(new Task(std::move(body)), data, 1);
}

TEST(KtMutex, OneThreadTakesItAgainAndOthersWaitForTheLastUnlock) {
    ktMutex mutex;
    std::atomic<bool> got{false};
    mutex.lock(ktMutex::Recursive, nullptr, 0);
    mutex.lock(ktMutex::Recursive, nullptr, 0);
    std::thread other([&] {
        const ktGuard guard(mutex, ktMutex::Recursive);
        got = true;
    });
    mutex.unlock(nullptr, 0);
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(got);
    mutex.unlock(nullptr, 0);
    other.join();
    EXPECT_TRUE(got);
}

TEST(KtMutex, GuardLetsGoWhenAnErrorPasses) {
    ktMutex mutex;
    EXPECT_THROW(
        {
            const ktGuard guard(mutex, ktMutex::Recursive);
            throw std::runtime_error("through the guard");
        },
        std::runtime_error);
    std::thread([&] { const ktGuard guard(mutex, ktMutex::Recursive); }).join();  // hangs if it is still held
}

TEST(KtSemaphore, CopiesAreOneSemaphore) {
    auto original = std::make_unique<ktSemaphore>(1);
    ktSemaphore copy(*original);
    ktSemaphore assigned(0);
    assigned = copy;
    original->postSemaphore();
    original.reset();
    EXPECT_TRUE(copy.tryWaitSemaphore());
    EXPECT_TRUE(assigned.waitSemaphore());
    EXPECT_FALSE(copy.tryWaitSemaphore()) << "the count was 2";
}

TEST(KtSemaphore, TimeOutTakesNothing) {
    ktSemaphore semaphore(0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(semaphore.waitSemaphore(30));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
    EXPECT_FALSE(semaphore.waitSemaphore(-1));
    semaphore.postSemaphore();
    EXPECT_TRUE(semaphore.waitSemaphore(0));
    EXPECT_FALSE(semaphore.tryWaitSemaphore());
}

TEST(KtSemaphore, NoPostIsLostUnderContention) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 10'000;
    ktSemaphore semaphore(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < kRounds; ++n) semaphore.postSemaphore();
        });
        threads.emplace_back([&] {
            for (int n = 0; n < kRounds; ++n) semaphore.waitSemaphore();
        });
    }
    for (std::thread& thread : threads) thread.join();  // hangs if a post was lost
    EXPECT_FALSE(semaphore.tryWaitSemaphore()) << "a post counted twice";
}

TEST(KtSemaphore, SleepingLetsTheMutexGoAndTakesItBack) {
    ktMutex mutex;
    ktSemaphore semaphore(0);
    std::atomic<bool> released{false};
    bool isPosted = false;  // guarded by mutex
    mutex.lock(ktMutex::Recursive, nullptr, 0);
    std::thread poster([&] {
        const ktGuard guard(mutex, ktMutex::Recursive);
        isPosted = true;
        semaphore.postSemaphore();
    });
    EXPECT_TRUE(semaphore.sleepSemaphore(mutex));
    EXPECT_TRUE(isPosted);
    poster.join();
    std::thread other([&] {
        const ktGuard guard(mutex, ktMutex::Recursive);
        released = true;
    });
    std::this_thread::sleep_for(30ms);
    EXPECT_FALSE(released) << "the sleeper does not hold the mutex";
    mutex.unlock(nullptr, 0);
    other.join();
}

TEST(KtThreadPool, RunsAsManyCallbacksAtOnceAsItHasThreads) {
    ktSemaphore first(0);
    ktSemaphore second(0);
    const auto pool = startedPool(2);
    int data = 0;
    std::atomic<void*> seen{nullptr};
    runOn(
        *pool,
        [&](void* given) {
            seen = given;
            first.postSemaphore();
            second.waitSemaphore();
        },
        &data);
    runOn(*pool, [&](void*) {
        first.waitSemaphore();
        second.postSemaphore();
    });
    pool->stopAll();  // hangs if the two never met
    EXPECT_EQ(seen, &data);
    EXPECT_EQ(Task::alive, 0);
}

TEST(KtThreadPool, CallbackWithAFreeThreadRunsHoweverSoonThePoolStops) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> ran{0};
        const auto pool = startedPool(1);
        runOn(*pool, [&](void*) { ++ran; });
        pool->stopAll();
        ASSERT_EQ(ran, 1) << "round " << round;
    }
}

TEST(KtThreadPool, DisposesOfCallbacksThatNeverRan) {
    std::atomic<int> ran{0};
    const auto counting = [&](void*) { ++ran; };
    {
        ktThreadPool neverStarted(1, 0);
        neverStarted.init();
        runOn(neverStarted, counting);
    }
    EXPECT_EQ(Task::alive, 0);

    ktSemaphore entered(0);
    ktSemaphore leave(0);
    const auto pool = startedPool(1);
    runOn(*pool, [&](void*) {
        entered.postSemaphore();
        leave.waitSemaphore();
    });
    entered.waitSemaphore();
    runOn(*pool, counting);
    std::thread ender([&] {
        std::this_thread::sleep_for(30ms);
        leave.postSemaphore();
    });
    pool->stopAll();
    ender.join();
    EXPECT_FALSE(runOn(*pool, counting)) << "stopped already";
    pool->stopAll();
    EXPECT_EQ(Task::alive, 0);
    EXPECT_EQ(ran, 0);
}

TEST(KtThreadPool, ErrorOfACallbackEndsNeitherProcessNorThread) {
    ktSemaphore reached(0);
    const auto pool = startedPool(1);
    runOn(*pool, [](void*) { throw 1; });
    runOn(*pool, [&](void*) { reached.postSemaphore(); });
    EXPECT_TRUE(reached.waitSemaphore(20'000));
}

TEST(KtThreadPool, ThreadsTakeNoSignalsButThoseOfTheirOwnFaults) {
    sigset_t inPool;
    sigset_t after;
    const auto pool = startedPool(1);
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    runOn(*pool, [&](void*) { pthread_sigmask(SIG_SETMASK, nullptr, &inPool); });
    pool->stopAll();
    for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGUSR1, SIGCHLD, SIGPIPE}) {
        EXPECT_TRUE(sigismember(&inPool, signal)) << signal;
        EXPECT_FALSE(sigismember(&after, signal)) << signal << " is blocked on the host's thread";
    }
    EXPECT_FALSE(sigismember(&inPool, SIGSEGV));
}

#if !defined(ORVA_ADDRESS_SANITIZER) && !defined(ORVA_THREAD_SANITIZER)  // these reserve all addresses
TEST(KtThreadPool, StartsAllThreadsOrNone) {
    expectInChild([] {
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        const rlim_t most = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE)) + (256U << 20U);
        const rlimit limit{most, most};
        ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);  // room for some stacks, not for all
        ktThreadPool pool(1000, 0);
        pool.init();
        EXPECT_THROW(pool.startAll(), std::system_error);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}), 1);
        EXPECT_FALSE(runOn(pool, [](void*) {}));
        EXPECT_EQ(Task::alive, 0);
    });
}
#endif

TEST(KtThreadPool, ForkedChildWaitsForNobody) {
    SKIP_UNDER_THREAD_SANITIZER("it follows no fork of a process with threads");
    ktSemaphore entered(0);
    auto leave = std::make_unique<ktSemaphore>(0);
    auto pool = startedPool(2);  // one thread waits in the semaphore, one for work
    runOn(*pool, [&](void*) {
        entered.postSemaphore();
        leave->waitSemaphore();
    });
    entered.waitSemaphore();
    std::this_thread::sleep_for(20ms);
    expectInChild([&] {
        EXPECT_FALSE(runOn(*pool, [](void*) {}));
        EXPECT_FALSE(leave->waitSemaphore());
        EXPECT_FALSE(leave->postSemaphore());
        pool->stopAll();
        pool.reset();
        leave.reset();
        const auto own = startedPool(1);
        std::atomic<bool> ran{false};
        runOn(*own, [&](void*) { ran = true; });
        own->stopAll();
        EXPECT_TRUE(ran) << "what the child makes itself works";
    });
    leave->postSemaphore();
    pool.reset();
    EXPECT_EQ(Task::alive, 0);
}

}  // namespace
