#include "support/tempDir.h"

#include <csignal>

using namespace support;

using namespace std::chrono_literals;

// Runs a function, and counts itself while it exists.
struct Task : CallBackObject {
    explicit Task(std::function<void()> f) : CallBackObject(nullptr), body(std::move(f)) { ++alive; }
    ~Task() override { --alive; }
    int onCallBack(void*) override { return body(), 0; }

    std::function<void()> body;
    static inline std::atomic<int> alive{0};
};

TEST(KtThread, NoPostIsLostAndTheMutexKeepsItsHoldersApart) {
    ktMutex mutex;
    ktSemaphore semaphore(0);
    int count = 0;  // guarded by mutex
    const auto work = [&mutex, &count](ktSemaphore copy, bool posting) {
        for (int n = 0; n < 5'000; ++n) {
            if (posting) copy.postSemaphore();
            const ktGuard guard(mutex, ktMutex::Recursive);
            if (!posting) copy.sleepSemaphore(mutex);
            ++count;
        }
    };
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back(work, semaphore, i % 2 == 0);
    threads.clear();  // hangs if a post was lost
    EXPECT_EQ(count, 40'000);
    EXPECT_FALSE(semaphore.tryWaitSemaphore() || semaphore.waitSemaphore(1)) << "a post counted twice";
    semaphore.postSemaphore();
    EXPECT_TRUE(semaphore.waitSemaphore(20'000));
}

TEST(KtThreadPool, ThreadsOutliveErrorsTakeNoSignalsDisposeOfWhatNeverRanAndHoldUpNoForkedChild) {
    const auto unexpected = [] { ADD_FAILURE() << "ran"; };
    ktThreadPool(1, 0).runCallBack(new Task(unexpected), nullptr, 1);  // never started
    sigset_t inPool, after;
    ktSemaphore entered(0);
    auto leave = std::make_unique<ktSemaphore>(0);
    auto pool = std::make_unique<ktThreadPool>(2, 0);
    pool->init(), pool->startAll();
    const auto run = [&](auto body) { return pool->runCallBack(new Task(body), nullptr, 1); };
    const auto occupy = [&] {
        run([&] {
            pthread_sigmask(SIG_SETMASK, nullptr, &inPool);
            entered.postSemaphore();
            leave->waitSemaphore();
        });
        entered.waitSemaphore();
    };
    run([] { throw 1; });
    occupy();
    std::this_thread::sleep_for(20ms);
#ifndef __SANITIZE_THREAD__  // which does not support forks of a process with threads
    expectInChild([&] {
        EXPECT_FALSE(run(unexpected));
        EXPECT_FALSE(leave->waitSemaphore() || leave->waitSemaphore(1) || leave->postSemaphore());
        pool.reset();
        leave.reset();
    });
#endif
    occupy();
    bool queuedRan = false;
    run([&] { queuedRan = true; });
    const std::jthread end([&] { std::this_thread::sleep_for(30ms), leave->postSemaphore(), leave->postSemaphore(); });
    pool->stopAll();
    EXPECT_FALSE(run(unexpected)) << "stopped already";
    EXPECT_TRUE(queuedRan && Task::alive == 0);
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGUSR1, SIGCHLD, SIGPIPE})
        EXPECT_TRUE(sigismember(&inPool, signal) && !sigismember(&after, signal)) << signal;
    EXPECT_FALSE(sigismember(&inPool, SIGSEGV));
}
