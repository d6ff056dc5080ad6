// The numbered rules of the workers, by their numbers (H, R and T in zcmpsPreIOThread.h and readAheadSlot.h), and their
// starts and stops.
#include "workerHarness.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <chrono>
#include <thread>

namespace core {
namespace {

using testing::HasSubstr;

// What the writing worker stands on: a file with a dictionary part, and an index.
class WriteWorker : public Workers {
protected:
    WriteWorker() : fIndex(kBlock) {
        support::writeBytes(fName, Bytes(kRow0, 0xD5));
        ExtNameStr name;
        name.SetGeneric(fName);
        EXPECT_TRUE(fFile.Open(name, "r+b"));
    }
    using Writer = Running<PreIOThread_W_C>;
    Writer started() { return Writer(false, &fFile, &fIndex, kBlock, kRow0, kRow0 + 24); }
    static std::uint32_t put(PreIOThread_W_C& worker, const Bytes& rows) {
        return worker.putBlock(rows.data(), static_cast<std::uint32_t>(rows.size()), 0);
    }

    ORVA_File fFile;
    filePosInfo fIndex;
};

TEST_F(WriteWorker, H1_BufferIsFreeOnceHandedOver) {
    Gate gate;
    CallHook hook([&](Call call, std::uint64_t) {
        if (call == Call::Write) gate.pass();
        return CallHook::Verdict::goOn();
    });
    const platform::faults::Installed installed(hook);
    auto worker = started();
    Bytes rows = fBlocks[0];
    EXPECT_EQ(put(*worker, rows), rows.size());
    std::fill(rows.begin(), rows.end(), 0xFF);
    gate.open();
    put(*worker, {});
    worker.stop();
    const Bytes file = support::readBytes(fName);
    Bytes inflated(fBlocks[0].size());
    uLongf size = inflated.size();
    EXPECT_EQ(uncompress(inflated.data(), &size, file.data() + kRow0 + 24, file.size() - kRow0 - 24), Z_OK);
    EXPECT_EQ(inflated, fBlocks[0]);
}

TEST_F(WriteWorker, H2_AFailedTurnLeavesNobodyWaiting) {
    const Failing failing(Call::Write, ENOSPC);
    auto worker = started();
    EXPECT_EQ(put(*worker, fBlocks[0]), fBlocks[0].size());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(failureOf([&] { put(*worker, fBlocks[1]); }), fileError(1002, ENOSPC, fName));
    }
    put(*worker, {});
}

TEST_F(WriteWorker, H3_EndRequestReturnsWhenTheLastBlockIsRecorded) {
    for (std::size_t blocks = 0; blocks < 3; ++blocks) {
        auto worker = started();
        const std::size_t before = fIndex.recordCount();
        for (std::size_t i = 0; i < blocks; ++i) put(*worker, fBlocks[i]);
        EXPECT_EQ(put(*worker, {}), 0u);
        EXPECT_EQ(fIndex.recordCount(), before + blocks);
        worker.stop();
        // The end's empty write has moved the file's position, to the first block's place if there was none.
        EXPECT_EQ(fFile.Tell(), blocks == 0 ? kRow0 + 24 : fIndex.writtenEnd(0));
        EXPECT_EQ(worker->failure(), nullptr);
    }
}

TEST_F(WriteWorker, H4_FirstFailureIsKeptAndLaterBlocksAreDropped) {
    int writes = 0;
    CallHook hook([&](Call call, std::uint64_t) {
        if (call != Call::Write) return CallHook::Verdict::goOn();
        return ++writes == 2 ? CallHook::Verdict::fail(ENOSPC) : CallHook::Verdict::goOn();
    });
    const platform::faults::Installed installed(hook);
    auto worker = started();
    put(*worker, fBlocks[0]);
    put(*worker, fBlocks[1]);
    EXPECT_EQ(failureOf([&] { put(*worker, fBlocks[2]); }), fileError(1002, ENOSPC, fName));
    put(*worker, {});
    worker.stop();
    EXPECT_EQ(writes, 2);
    EXPECT_EQ(fIndex.recordCount(), 1u);
    EXPECT_EQ(failureOf([&] { std::rethrow_exception(worker->failure()); }), fileError(1002, ENOSPC, fName));
}

TEST_F(WriteWorker, RefusesToRead) {
    auto worker = started();
    char byte = 0;
    EXPECT_ASSERTION(worker->getBlock(&byte, 1, 1), "compressWriteWorker.cpp:");
    EXPECT_ASSERTION(worker->readLoopStep(), "compressWriteWorker.cpp:");
    put(*worker, {});
}

// The reading workers, by what they are told to do. Both make the same promises to their caller.
template <class Worker>
class ReadWorker : public Workers {
protected:
    Running<Worker> started(OpenedPart& part) { return Running<Worker>(true, &part.file, &part.index, kBlock); }
    // Every block, from the first to the last.
    void expectAll(OpenedPart& part, Worker& worker) {
        for (std::uint32_t i = 0; i < kBlocks; ++i) EXPECT_EQ(part.request(worker, i), fBlocks[i]) << "block " << i;
    }
};
using ReadWorkers = testing::Types<PreIOThread_R_D, PreIOThread_Tri_Reader>;
TYPED_TEST_SUITE(ReadWorker, ReadWorkers);

// Which threads read the file while a hook is installed.
class ReadingThreads : public platform::faults::Hook {
public:
    platform::faults::Verdict before(Call call, int, std::uint64_t) override {
        if (call != Call::Read) return platform::faults::Verdict::goOn();
        ++(std::this_thread::get_id() == fCaller ? fByCaller : fByWorker);
        return platform::faults::Verdict::goOn();
    }
    int byCaller() const { return fByCaller; }
    int byWorker() const { return fByWorker; }

private:
    const std::thread::id fCaller = std::this_thread::get_id();
    std::atomic<int> fByCaller{0};
    std::atomic<int> fByWorker{0};
    platform::faults::Installed fInstalled{*this};
};

TYPED_TEST(ReadWorker, R1_T1_SequentialBlocksAreMadeBesideTheCaller) {
    OpenedPart part(this->fName);
    auto worker = this->started(part);
    const ReadingThreads reads;
    this->expectAll(part, *worker);
    EXPECT_EQ(reads.byCaller(), 1) << "the first request always misses";
    EXPECT_EQ(reads.byWorker(), static_cast<int>(this->kBlocks) - 1);
}

TYPED_TEST(ReadWorker, R2_T2_AFailedTurnLeavesNobodyWaiting) {
    OpenedPart part(this->fName);
    auto worker = this->started(part);
    for (int i = 0; i < 3; ++i) {
        const Failing failing(Call::Read, EIO);
        for (std::uint32_t number : {0u, 1u, 5u}) {
            EXPECT_EQ(failureOf([&] { part.request(*worker, number); }), fileError(1003, EIO, this->fName));
        }
    }
    this->expectAll(part, *worker);
}

TYPED_TEST(ReadWorker, R3_T2_AfterTheLastBlockARequestIsAMissThatIsServed) {
    OpenedPart part(this->fName);
    auto worker = this->started(part);
    this->expectAll(part, *worker);
    const ReadingThreads reads;
    for (int i = 0; i < 2; ++i) EXPECT_EQ(part.request(*worker, 5), this->fBlocks[5]);
    EXPECT_EQ(reads.byCaller(), 2) << "no stale block counts as made ahead";
    this->expectAll(part, *worker);
}

TYPED_TEST(ReadWorker, R4_T3_AFailedReadAheadIsNoReadAhead) {
    OpenedPart part(this->fName);
    BadPlace badSpot(Call::Read, this->placeOfBlock(1), this->placeOfBlock(2), EIO);  // outlives the worker's last read
    auto worker = this->started(part);
    // Fails on the worker's threads, then no more: the caller's own attempt succeeds.
    badSpot.allow(std::is_same_v<TypeParam, PreIOThread_R_D> ? 1 : 2);
    EXPECT_EQ(part.request(*worker, 0), this->fBlocks[0]);
    EXPECT_EQ(part.request(*worker, 1), this->fBlocks[1]);
    // Fails for good: the caller gets it, as often as it asks.
    badSpot.allow(INT32_MAX);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(part.request(*worker, 0), this->fBlocks[0]);
        EXPECT_EQ(failureOf([&] { part.request(*worker, 1); }), fileError(1003, EIO, this->fName));
        EXPECT_EQ(part.request(*worker, 2), this->fBlocks[2]);
    }
}

TYPED_TEST(ReadWorker, R4_T3_DamageMetAheadReachesTheCallerThatAsks) {
    this->damage(1);
    OpenedPart part(this->fName);
    auto worker = this->started(part);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(part.request(*worker, 0), this->fBlocks[0]);
        EXPECT_THAT(failureOf([&] { part.request(*worker, 1); }),
                    testing::AllOf(HasSubstr("DamagedFileError"), HasSubstr("block 1")));
        EXPECT_EQ(part.request(*worker, 2), this->fBlocks[2]);
    }
}

// Opens its gate once the stop request has been made.
template <class Worker>
class StopsWithGate : public Worker {
public:
    using Worker::Worker;
    std::uint32_t putBlock(const void*, std::uint32_t, std::int64_t) override { return 0; }
    std::int32_t writeLoopStep() override { return 1; }
    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override {
        const std::uint32_t count = Worker::getBlock(buffer, size, position);
        if (size == 0) fGate.open();
        return count;
    }
    Gate fGate;
};

TYPED_TEST(ReadWorker, R5_StopsInEachState) {
    const std::vector<std::vector<std::uint32_t>> requestsBefore = {{}, {0}, {0, 1}, {5}, {0, 5}, {5, 5, 0}};
    for (const auto& requests : requestsBefore) {
        OpenedPart part(this->fName);
        auto worker = this->started(part);
        for (const std::uint32_t number : requests) EXPECT_EQ(part.request(*worker, number), this->fBlocks[number]);
    }
    // While the worker is reading: its step ends, and then its loop.
    OpenedPart part(this->fName);
    using Base = std::conditional_t<std::is_same_v<TypeParam, PreIOThread_R_D>, PreIOThread_R_D, PreIOThread_Tri_R_D>;
    Running<StopsWithGate<Base>> worker(true, &part.file, &part.index, kBlock);
    const std::thread::id caller = std::this_thread::get_id();
    Gate reading;
    CallHook hook([&](Call call, std::uint64_t) {
        if (call == Call::Read && std::this_thread::get_id() != caller) {
            reading.open();
            worker->fGate.pass();
        }
        return CallHook::Verdict::goOn();
    });
    const platform::faults::Installed installed(hook);
    EXPECT_EQ(part.request(*worker, 0), this->fBlocks[0]);
    reading.pass();
    worker.stop();
}

TYPED_TEST(ReadWorker, SeeksWhileTheNextBlockIsOnItsWay) {
    OpenedPart part(this->fName);
    auto worker = this->started(part);
    support::RandomBytes random(45);
    for (int i = 0; i < 400; ++i) {
        const auto number = static_cast<std::uint32_t>(random.below(this->kBlocks));
        ASSERT_EQ(part.request(*worker, number), this->fBlocks[number]) << "request " << i;
    }
}

TYPED_TEST(ReadWorker, RefusesToWrite) {
    OpenedPart part(this->fName);
    auto worker = this->started(part);
    EXPECT_ASSERTION(worker->putBlock("x", 1, 1), "Worker.cpp:");
    EXPECT_ASSERTION(worker->writeLoopStep(), "Worker.cpp:");
}

TEST(ReadAheadSlot, R6_ABlockWrittenOverSinceItWasAskedForIsNoHit) {
    struct Case {
        const char* name;
        std::int64_t begin, end;
        bool hits;
    } const cases[] = {
        {"Before", 0, 100, true},         {"ItsFirstByte", 0, 101, false}, {"Inside", 120, 121, false},
        {"ItsLastByte", 149, 900, false}, {"Behind", 150, 900, true},      {"AroundIt", 0, 900, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        orva::readAheadSlot slot;
        orva::readAheadSlot::request(slot).readAhead(100);
        slot.step([](std::int64_t) { return 50u; });
        slot.noteWritten(c.begin, c.end, 50);
        orva::readAheadSlot::request turn(slot);
        EXPECT_EQ(turn.hits(100), c.hits);
        turn.readAhead(100);
        slot.step([](std::int64_t) { return 50u; });
        EXPECT_TRUE(orva::readAheadSlot::request(slot).hits(100)) << "read again since";
    }
}

// The read thread waits before its step until the stop request has been made; meanwhile the decompress thread waits for
// the block that was posted to it.
class HeldBeforeReading : public StopsWithGate<PreIOThread_Tri_R_D> {
public:
    using StopsWithGate::StopsWithGate;
    std::int32_t readLoopStep() override {
        fGate.pass();
        return PreIOThread_Tri_R_D::readLoopStep();
    }
};

TEST_F(Workers, T4_StopsWhileAReadIsPostedButNotBegun) {
    for (int round = 0; round < 20; ++round) {
        OpenedPart part(fName);
        Running<HeldBeforeReading> worker(true, &part.file, &part.index, kBlock);
        EXPECT_EQ(part.request(*worker, 0), fBlocks[0]);
        // Any moment will do; most often the decompress thread is in its wait by then.
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 3));
        worker.stop();
    }
}

TEST_F(Workers, TheTwoThreadWorkerOnlyReads) {
    OpenedPart part(fName);
    PreIOThread_Tri_Reader worker(&part.file, &part.index, kBlock);
    EXPECT_ASSERTION(worker.initThreads(false), "bRead == true");
}

// Memory for some threads' stacks, not for one more.
TEST_F(Workers, AThreadThatCannotStartLeavesNoWorker) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizers' own memory does not fit into a limit";
#endif
    const auto body = [&] {
        const Dictionary dictionary(path("new.orva"));
        OpenedPart part(fName);
        const Reader reader(fName, 2);
        zcmpsFilestr writer(dictionary.stream());
        writer.setMultiThread(1);
        std::vector<std::unique_ptr<PreIOThreadBase>> others;
        rlimit limit{};
        getrlimit(RLIMIT_AS, &limit);
        const rlimit before = limit;
        limit.rlim_cur = 300U << 20;
        setrlimit(RLIMIT_AS, &limit);
        const std::string none = failureOf([&] {
            for (int i = 0; i < 100; ++i) {
                others.push_back(
                    startedWorker(std::make_unique<PreIOThread_Tri_Reader>(&part.file, &part.index, 1U << 20), true));
            }
        });
        setrlimit(RLIMIT_AS, &before);
        const bool said = none.starts_with("other ");
        for (const auto& worker : others) {
            worker->stopThreads();
            worker->destroyThreads();
        }
        reader->readFilePosInfo(kRow0, false);
        writer.setRow0Pos(kRow0);
        _exit(said && !others.empty() && reader.read(10) == support::slice(fBlocks[0], 0, 10) ? 0 : 1);
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(body(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace core
