// The numbered rules of the workers, by their numbers (H, R, T, M and A in zcmpsPreIOThread.h, readAheadSlot.h and
// zcmpsMultiThread.h), and their starts and stops. H1, H3, M1 and M4 are told in modelTest.cpp, H2, H4 and M3 in
// faultTest.cpp, M5 in compressedTest.cpp, M6 in ../api/writerTest.cpp.
#include "coreTest.h"
#include "format/indexTransfer.h"
#include "part/zcmpsMultiThread.h"
#include "part/zcmpsPreIOThread.h"

#include <chrono>
#include <thread>

namespace core {
namespace {

// Counts the transfers of one kind, and asks what happens to those of other threads than the test's.
struct Transfers : CallHook {
    explicit Transfers(
        Call kind, const std::function<void(int)>& ask = [](int) {})
        : CallHook([=, this, test = std::this_thread::get_id()](const Step& step, std::uint64_t) {
              if (step.call == kind) ++all;
              if (step.call == kind && std::this_thread::get_id() != test) ask(++ofOthers);
              return Verdict::goOn();
          }) {}
    // The caller may make a block itself that no thread has begun.
    void await(int number) const {
        while (all < number) std::this_thread::yield();
    }
    std::atomic<int> all{0}, ofOthers{0};
};

// A worker's life, to the end of the scope at the latest.
template <class Worker>
class Running {
public:
    explicit Running(std::unique_ptr<Worker> worker) : fWorker(startedWorker(std::move(worker), true)) {}
    ~Running() { stop(); }
    void stop() {
        if (fWorker == nullptr) return;
        fWorker->stopThreads();
        fWorker->destroyThreads();
        fWorker = nullptr;
    }
    Worker& operator*() const { return *fWorker; }

private:
    std::unique_ptr<Worker> fWorker;
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
    std::unique_ptr<Worker> reader() {
        if constexpr (std::is_base_of_v<PreIOThreadSeveral, Worker>) {
            return std::make_unique<Worker>(&fOpened, &fIndex, kBlock, 3);
        } else {
            return std::make_unique<Worker>(&fOpened, &fIndex, kBlock);
        }
    }
    Bytes request(Worker& worker, std::uint32_t number) {
        Bytes rows(fBlocks[number].size());
        worker.getBlock(rows.data(), static_cast<std::uint32_t>(rows.size()), fIndex.parsed(number).orginalPos);
        return rows;
    }
    ExtNameStr fFileName;
    ORVA_File fOpened;
    filePosInfo fIndex{kBlock};
};

// Two threads' steps, made by hand: the first is held in its write.
using Writers = Rules<PreIOThread_Multi_W_C>;
TEST_F(Writers, M2_NoThreadWaitsForTheOneThatWritesAndNobodyReads) {
    filePosInfo index(kBlock);
    PreIOThread_Multi_W_C worker(&fOpened, &index, kBlock, kRow0, kRow0 + 24, 3);
    for (int i = 0; i < 2; ++i) worker.putBlock("rows", 4, 0);
    ktSemaphore writing(0), done(0);
    Transfers writes(Call::Write, [&](int n) {
        if (n == 1) writing.postSemaphore(), done.waitSemaphore();
    });
    std::thread first([&] { worker.writeLoopStep(); });
    writing.waitSemaphore();
    EXPECT_EQ(worker.writeLoopStep(), 0);
    EXPECT_EQ(index.recordCount(), 0u);
    done.postSemaphore();
    first.join();
    EXPECT_EQ(index.recordCount(), 2u);
    EXPECT_EQ(writes.ofOthers, 2) << "the writer takes the block along";

    PreIOThread_W_C one(&fOpened, &index, kBlock, kRow0, kRow0 + 24);
    one.putBlock("rows", 4, 0);
    one.drop();
    EXPECT_EQ(one.writeLoopStep(), 0);
    EXPECT_EQ(index.recordCount(), 2u) << "H5";
}

// The reading workers. All make the same promises to their caller.
template <class Worker>
class ReadWorker : public Rules<Worker> {};
using ReadWorkers = testing::Types<PreIOThread_R_D, PreIOThread_Tri_Reader, PreIOThread_Multi_R_D>;
TYPED_TEST_SUITE(ReadWorker, ReadWorkers);

TYPED_TEST(ReadWorker, R1_R3_T1_A2_OnlyASequentialRunIsReadBesideTheCaller) {
    Transfers reads(Call::Read);
    Running<TypeParam> worker(this->reader());
    for (std::uint32_t i = 0; i < this->kBlocks; ++i) {
        EXPECT_EQ(this->request(*worker, i), this->fBlocks[i]) << "block " << i;
        const bool twiceAsFar = std::is_same_v<TypeParam, PreIOThread_Multi_R_D> && i > 0;
        reads.await(std::min<int>(static_cast<int>(twiceAsFar ? 2 * i + 1 : i + 1), this->kBlocks - 1) + 1);
    }
    EXPECT_EQ(reads.all, 6) << "each block once";
    for (int i = 0; i < 2; ++i) EXPECT_EQ(this->request(*worker, 5), this->fBlocks[5]);
    EXPECT_EQ(reads.all, 8) << "no stale block counts as made ahead";
    if (!std::is_same_v<TypeParam, PreIOThread_Multi_R_D>) return;
    for (const std::uint32_t jump : {3u, 1u, 4u}) EXPECT_EQ(this->request(*worker, jump), this->fBlocks[jump]);
    worker.stop();
    EXPECT_EQ(reads.all, 11) << "nothing ahead of a jump";
}

TYPED_TEST(ReadWorker, R2_R4_T2_T3_A1_A3_A5_AnyRequestIsServedOrFailsWhateverWentBefore) {
    const auto end = static_cast<std::size_t>(this->fIndex.parsed(3).translatePos);
    overwriteBytes(this->fName, end - 1, {static_cast<unsigned char>(this->fFile[end - 1] ^ 8)});
    const CallHook bad(
        badPlace(Call::Read, EIO, this->fIndex.parsed(4).translatePos, this->fIndex.parsed(5).translatePos));
    Running<TypeParam> worker(this->reader());
    RandomBytes random(45);
    for (int i = 0; i < 600; ++i) {
        const auto number = static_cast<std::uint32_t>(random.below(this->kBlocks));
        Bytes rows;
        if constexpr (std::is_same_v<TypeParam, PreIOThread_Multi_R_D>) {
            const auto count = i % 8 == 0 ? 1 + static_cast<std::uint32_t>(random.below(this->kBlocks - number)) : 0;
            Bytes several(count * std::size_t{kBlockSize});
            const std::uint32_t came = count == 0 ? 0 : (*worker).loadSeveral(number, count, several.data());
            ASSERT_EQ(came, std::min(count, number > 4 ? count : (number > 2 ? 4 : 2) - number)) << "run " << i;
            const auto first = this->fBlocks.begin() + number;
            const Bytes expected = joined({first, first + came});
            ASSERT_EQ(slice(several, 0, expected.size()), expected) << "run " << i;
        }
        const std::string failure = failureOf([&] { rows = this->request(*worker, number); });
        const bool right = number == 2   ? failure.find("block 2") != std::string::npos
                           : number == 4 ? failure == fileError(1003, EIO, this->fName)
                                         : rows == this->fBlocks[number];
        ASSERT_TRUE(right) << "request " << i << " for block " << number << ": " << failure;
    }
}

TYPED_TEST(ReadWorker, R5_T4_A4_StopsInEachState) {
    RandomBytes random(46);
    for (int i = 0; i < 100; ++i) {
        Running<TypeParam> worker(this->reader());
        auto number = static_cast<std::uint32_t>(random.below(8));
        for (; number < this->kBlocks && !random.oneIn(4); ++number) {
            ASSERT_EQ(this->request(*worker, number), this->fBlocks[number]) << "cycle " << i;
        }
    }
    // While the worker is reading: its step ends, and then its loop; in time, as the caller may want to read meanwhile.
    ktSemaphore stopping(0);
    Transfers reads(Call::Read, [&](int n) {
        if (n > 1) stopping.waitSemaphore(), stopping.postSemaphore();
    });
    std::jthread release([&] { std::this_thread::sleep_for(std::chrono::milliseconds(30)), stopping.postSemaphore(); });
    Running<TypeParam> worker(this->reader());
    for (const std::uint32_t number : {0u, 1u}) {
        EXPECT_EQ(this->request(*worker, number), this->fBlocks[number]);
        reads.await(static_cast<int>(number) + 2);
    }
    worker.stop();
}

// Lives of streams with threads: opened, asked a little, some of it in vain, and ended at any point.
TEST_F(ShortBlocks, TenThousandLivesEnd) {
    const std::vector<filePosRecord> records = Layout(fFile).records;
    RandomBytes random(48);
    std::atomic<std::int64_t> left{0};  // transfers until one fails
    const CallHook hook([&](const Step& step, std::uint64_t) {
        const bool transfers = step.call == Call::Read || step.call == Call::Write;
        return transfers && --left == 0 ? Verdict::fail(EIO) : Verdict::goOn();
    });
    const auto writes = [&](int road) {
        auto stream = startedWriter(path("new"), road);
        for (std::uint64_t n = random.below(4); n > 0; --n) write(*stream, fBlocks[n]), stream->Flush();
        if (random.oneIn(3)) stream->abandon();
        if (random.oneIn(2)) stream->Close();
        delete stream.release();  // which may throw
    };
    const auto reads = [&](int road) {
        const Reader reader(fName, road, kRow0);
        for (std::uint64_t n = random.below(4); n > 0; --n) {
            const std::size_t i = random.below(fBlocks.size());
            EXPECT_EQ(reader.readAt(records[i].orginalPos, fBlocks[i].size()), fBlocks[i]);
        }
    };
    constexpr int lives = kSanitized ? 2'000 : 10'000;
    int failed = 0;
    for (int i = 0; i < lives && !HasFailure(); ++i) {
        left = random.oneIn(2) ? static_cast<std::int64_t>(1 + random.below(12)) : -1;
        const int road = std::array{1, 2, kOneOfSeveral, kTwo}[random.below(4)];
        const bool writer = road == 1 || (road != 2 && random.oneIn(2));
        const std::string failure = failureOf([&] { writer ? writes(road) : reads(road); });
        EXPECT_THAT(failure, testing::AnyOf("", fileError(1002, EIO, path("new")), fileError(1003, EIO, fName)));
        failed += failure.empty() ? 0 : 1;
    }
    EXPECT_GT(failed, lives / 10);
}

}  // namespace
}  // namespace core
