// The numbered rules of the workers, by their numbers (H, R, T, M and A in zcmpsPreIOThread.h, readAheadSlot.h and
// zcmpsMultiThread.h), and their starts and stops.
#include "coreTest.h"
#include "indexTransfer.h"
#include "zcmpsMultiThread.h"
#include "zcmpsPreIOThread.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <thread>

namespace core {
namespace {

// Counts the transfers of one kind, and asks what happens to those of other threads than the test's.
class Transfers : public platform::faults::Hook {
public:
    using Ask = std::function<Verdict(int number)>;
    explicit Transfers(
        Call call, Ask ask = [](int) { return Verdict::goOn(); })
        : fCall(call), fAsk(std::move(ask)) {}
    Verdict before(Call call, int, std::uint64_t) override {
        if (call != fCall) return Verdict::goOn();
        ++all;
        return std::this_thread::get_id() == fTest ? Verdict::goOn() : fAsk(++ofOthers);
    }
    void await(int number) const {
        while (ofOthers < number) std::this_thread::yield();
    }
    std::atomic<int> all{0};
    std::atomic<int> ofOthers{0};

private:
    const Call fCall;
    const Ask fAsk;
    const std::thread::id fTest = std::this_thread::get_id();
    const platform::faults::Installed fInstalled{*this};
};

// Short lives of a worker. ORVA_WORKER_CYCLES makes them a long run.
int cycles() {
    const char* told = std::getenv("ORVA_WORKER_CYCLES");
    return told != nullptr ? std::atoi(told) : 100;
}

template <class Worker, class... Arguments>
Worker* newWorker(Arguments... arguments) {
    if constexpr (std::is_base_of_v<PreIOThreadSeveral, Worker>) {
        return new Worker(arguments..., 3);
    } else {
        return new Worker(arguments...);
    }
}

// A worker's life, to the end of the scope at the latest.
template <class Worker>
class Running {
public:
    Running(Worker* worker, bool bRead)
        : fWorker(worker), fOwner(startedWorker(std::unique_ptr<PreIOThreadBase>(worker), bRead)) {}
    ~Running() {
        stop();
        fOwner->destroyThreads();
    }
    void stop() {
        if (!std::exchange(fStopped, true)) fOwner->stopThreads();
    }
    Worker& operator*() const { return *fWorker; }
    Worker* operator->() const { return fWorker; }

private:
    Worker* const fWorker;
    const std::unique_ptr<PreIOThreadBase> fOwner;
    bool fStopped = false;
};

// The file opened, with its index.
template <class Worker>
class Rules : public ShortBlocks {
protected:
    static constexpr std::uint32_t kBlocks = 6;
    Rules() {
        fFileName.SetGeneric(fName);
        EXPECT_TRUE(fOpened.Open(fFileName, "r+b"));
        fIndex.parseForRead(orva::readIndex(fOpened, orva::readHeading(fOpened, kRow0, false, ""), false).get(), false);
    }
    Worker* reader() { return newWorker<Worker>(&fOpened, &fIndex, std::uint32_t{kBlock}); }
    Bytes request(Worker& worker, std::uint32_t number) {
        Bytes rows(fBlocks[number].size());
        worker.getBlock(rows.data(), static_cast<std::uint32_t>(rows.size()), fIndex.parsed(number).orginalPos);
        return rows;
    }
    Worker* writer() {
        fNew.emplace(kBlock);
        return newWorker<Worker>(&fOpened, &*fNew, std::uint32_t{kBlock}, kRow0, kRow0 + 24);
    }
    static std::uint32_t put(Worker& worker, Bytes rows) {
        const std::uint32_t taken = worker.putBlock(rows.data(), static_cast<std::uint32_t>(rows.size()), 0);
        std::fill(rows.begin(), rows.end(), 0xFF);
        return taken;
    }

    ExtNameStr fFileName;
    ORVA_File fOpened;
    filePosInfo fIndex{kBlock};
    std::optional<filePosInfo> fNew;  // of a writer
};

template <class Worker>
class WriteWorker : public Rules<Worker> {};
using WriteWorkers = testing::Types<PreIOThread_W_C, PreIOThread_Multi_W_C>;
TYPED_TEST_SUITE(WriteWorker, WriteWorkers);

TYPED_TEST(WriteWorker, H1_H3_M1_M4_BlocksAreInOrderAndRecordedWhenTheEndRequestReturns) {
    const Layout expected(this->fFile);
    const auto end = static_cast<std::size_t>(expected.heading._indexPos);
    for (int round = 0; round < cycles(); ++round) {
        Watchdog::feed();
        support::overwriteBytes(this->fName, kRow0 + 24, Bytes(this->fFile.size() - kRow0 - 24, 0));
        Running<TypeParam> worker(this->writer(), false);
        for (const Bytes& block : this->fBlocks) EXPECT_EQ(this->put(*worker, block), block.size());
        EXPECT_EQ(this->put(*worker, {}), 0u);
        std::uint32_t length = 0;
        const unsigned char* index = this->fNew->serialize(length);
        EXPECT_EQ(Bytes(index, index + length), support::slice(this->fFile, end, length));
        EXPECT_TRUE(support::sameBytes(support::slice(support::readBytes(this->fName), 0, end),
                                       support::slice(this->fFile, 0, end)));
    }
}

TYPED_TEST(WriteWorker, H2_H4_M3_FirstFailureIsKeptAndLaterBlocksAreDropped) {
    std::atomic<int> writes{0};
    CallHook hook([&](Call call, std::uint64_t) {
        return call == Call::Write && ++writes == 2 ? Verdict::fail(ENOSPC) : Verdict::goOn();
    });
    const platform::faults::Installed installed(hook);
    Running<TypeParam> worker(this->writer(), false);
    std::string failure;
    while (failure.empty()) failure = failureOf([&] { this->put(*worker, this->fBlocks[0]); });
    for (int i = 0; i < 9; ++i) EXPECT_EQ(failureOf([&] { this->put(*worker, this->fBlocks[1]); }), failure);
    EXPECT_EQ(failure, fileError(1002, ENOSPC, this->fName));
    EXPECT_EQ(this->put(*worker, {}), 0u);
    worker.stop();
    EXPECT_EQ(this->fNew->recordCount(), 1u);
    EXPECT_EQ(writes, 2) << "what comes later is dropped";
    EXPECT_EQ(failureOf([&] { std::rethrow_exception(worker->failure()); }), failure);
}

// Two threads' steps, made by hand: the first is held in its write.
using SeveralWriters = Rules<PreIOThread_Multi_W_C>;
TEST_F(SeveralWriters, M2_NoThreadWaitsForTheOneThatWrites) {
    const std::unique_ptr<PreIOThread_Multi_W_C> worker(this->writer());
    for (int i = 0; i < 2; ++i) this->put(*worker, this->fBlocks[static_cast<std::size_t>(i)]);
    ktSemaphore writing(0), done(0);
    Transfers writes(Call::Write, [&](int n) {
        if (n == 1) writing.postSemaphore(), done.waitSemaphore();
        return Verdict::goOn();
    });
    std::thread first([&] { worker->writeLoopStep(); });
    writing.waitSemaphore();
    EXPECT_EQ(worker->writeLoopStep(), 0);
    EXPECT_EQ(this->fNew->recordCount(), 0u);
    done.postSemaphore();
    first.join();
    EXPECT_EQ(this->fNew->recordCount(), 2u);
    EXPECT_EQ(writes.ofOthers, 2) << "the writer takes the block along";
}

// The reading workers. All make the same promises to their caller.
template <class Worker>
class ReadWorker : public Rules<Worker> {};
using ReadWorkers = testing::Types<PreIOThread_R_D, PreIOThread_Tri_Reader, PreIOThread_Multi_R_D>;
TYPED_TEST_SUITE(ReadWorker, ReadWorkers);

TYPED_TEST(ReadWorker, R1_R3_T1_A2_OnlyASequentialRunIsReadBesideTheCaller) {
    Transfers reads(Call::Read);
    Running<TypeParam> worker(this->reader(), true);
    for (std::uint32_t i = 0; i < this->kBlocks; ++i) {
        EXPECT_EQ(this->request(*worker, i), this->fBlocks[i]) << "block " << i;
        const bool twiceAsFar = std::is_same_v<TypeParam, PreIOThread_Multi_R_D> && i > 0;
        reads.await(std::min<int>(static_cast<int>(twiceAsFar ? 2 * i + 1 : i + 1), this->kBlocks - 1));
    }
    EXPECT_EQ(reads.all, 6) << "each block once";
    for (int i = 0; i < 2; ++i) EXPECT_EQ(this->request(*worker, 5), this->fBlocks[5]);
    EXPECT_EQ(reads.all, 8) << "no stale block counts as made ahead";
    if (!std::is_same_v<TypeParam, PreIOThread_Multi_R_D>) return;
    for (const std::uint32_t jump : {3u, 1u, 4u}) EXPECT_EQ(this->request(*worker, jump), this->fBlocks[jump]);
    worker.stop();
    EXPECT_EQ(reads.all, 11) << "nothing ahead of a jump";
}

TYPED_TEST(ReadWorker, R2_R4_T2_T3_A1_A3_AnyRequestIsServedOrFailsWhateverWentBefore) {
    support::flipBit(this->fName, static_cast<std::uint64_t>(this->fIndex.parsed(3).translatePos - 1), 3);
    BadPlace bad(Call::Read, EIO, this->fIndex.parsed(4).translatePos, this->fIndex.parsed(5).translatePos);
    Running<TypeParam> worker(this->reader(), true);
    support::RandomBytes random(45);
    for (int i = 0; i < 600; ++i) {
        const auto number = static_cast<std::uint32_t>(random.below(this->kBlocks));
        Bytes rows;
        const std::string failure = failureOf([&] { rows = this->request(*worker, number); });
        if (number == 2) {
            EXPECT_THAT(failure, testing::HasSubstr("block 2")) << "request " << i;
        }
        if (number == 4) {
            EXPECT_EQ(failure, fileError(1003, EIO, this->fName)) << "request " << i;
        }
        ASSERT_TRUE(number == 2 || number == 4 || rows == this->fBlocks[number]) << "request " << i << failure;
    }
}

TYPED_TEST(ReadWorker, R5_A4_StopsInEachState) {
    support::RandomBytes random(46);
    for (int i = 0; i < cycles(); ++i) {
        Watchdog::feed();
        Running<TypeParam> worker(this->reader(), true);
        auto number = static_cast<std::uint32_t>(random.below(8));
        for (; number < this->kBlocks && !random.oneIn(4); ++number) {
            ASSERT_EQ(this->request(*worker, number), this->fBlocks[number]) << "cycle " << i;
        }
    }
    // While the worker is reading: its step ends, and then its loop.
    ktSemaphore stopping(0);
    Transfers reads(Call::Read, [&](int n) {
        if (n > 1) stopping.waitSemaphore(), stopping.postSemaphore();
        return Verdict::goOn();
    });
    Running<TypeParam> worker(this->reader(), true);
    for (const std::uint32_t number : {0u, 1u}) {
        EXPECT_EQ(this->request(*worker, number), this->fBlocks[number]);
        reads.await(static_cast<int>(number) + 1);
    }
    std::thread release([&] { std::this_thread::sleep_for(std::chrono::milliseconds(5)), stopping.postSemaphore(); });
    worker.stop();
    release.join();
}

// The read thread waits before its step until the stop request has been made; meanwhile the decompress thread waits for
// the block that was posted to it.
class HeldBeforeReading : public PreIOThread_Tri_R_D {
public:
    using PreIOThread_Tri_R_D::PreIOThread_Tri_R_D;
    std::uint32_t putBlock(const void*, std::uint32_t, std::int64_t) override { return 0; }
    std::int32_t writeLoopStep() override { return 1; }
    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override {
        const std::uint32_t count = PreIOThread_Tri_R_D::getBlock(buffer, size, position);
        if (size == 0) fStopping.postSemaphore();
        return count;
    }
    std::int32_t readLoopStep() override {
        fStopping.waitSemaphore();
        fStopping.postSemaphore();
        return PreIOThread_Tri_R_D::readLoopStep();
    }

private:
    ktSemaphore fStopping{0};
};

using TwoThreads = Rules<HeldBeforeReading>;
TEST_F(TwoThreads, T4_StopsWhileAReadIsPostedButNotBegun) {
    for (int round = 0; round < 20; ++round) {
        Running<HeldBeforeReading> worker(this->reader(), true);
        EXPECT_EQ(this->request(*worker, 0), this->fBlocks[0]);
        // Any moment will do; most often the decompress thread is in its wait by then.
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 3));
    }
}

TYPED_TEST(ReadWorker, RefusesToWrite) {
    const std::unique_ptr<TypeParam> worker(this->reader());
    EXPECT_ASSERTION(worker->putBlock("x", 1, 1), ": 0\n");
    EXPECT_ASSERTION(worker->writeLoopStep(), ": 0\n");
}

TEST_F(TwoThreads, OnlyReads) {
    const std::unique_ptr<HeldBeforeReading> worker(this->reader());
    EXPECT_ASSERTION(worker->initThreads(false), "bRead == true");
}

TYPED_TEST(WriteWorker, RefusesToRead) {
    const std::unique_ptr<TypeParam> worker(this->writer());
    EXPECT_ASSERTION(worker->getBlock(nullptr, 1, 1), ": 0\n");
    EXPECT_ASSERTION(worker->readLoopStep(), ": 0\n");
}

}  // namespace
}  // namespace core
