// The rules of the reading workers, by their numbers (R, T and A in readAheadSlot.h, zcmpsPreIOThread.h and
// zcmpsMultiThread.h), and lifetimes of streams. Rules of the writing workers: H1, H3, M1 and M4 in modelTest.cpp, H2,
// H4 and M3 in faultTest.cpp, H5 and M5 in compressedTest.cpp, M6 in ../api/writerTest.cpp.
#include "coreTest.h"
#include "file/namedFile.h"
#include "format/indexTransfer.h"
#include "part/zcmpsMultiThread.h"
#include "part/zcmpsPreIOThread.h"

using namespace support;

// All of them, of one thread, two and several, make the same promises to their caller.
struct ReadWorker : ShortBlocks, testing::WithParamInterface<int> {
    static constexpr std::uint32_t kBlocks = 6;
    ReadWorker() {
        orva::openOrThrow(fOpened, fName, "r+b", 1003);
        const auto index = orva::readIndex(fOpened, orva::readHeading(fOpened, kRow0, false, ""), false);
        fIndex.parseForRead(reinterpret_cast<const unsigned char*>(index.data()), false);
    }
    std::shared_ptr<PreIOThreadBase> started() {
        std::unique_ptr<PreIOThreadBase> made;
        if (GetParam() == 1) made = std::make_unique<PreIOThread_R_D>(&fOpened, &fIndex, kBlock);
        if (GetParam() == 2) made = std::make_unique<PreIOThread_Tri_Reader>(&fOpened, &fIndex, kBlock);
        if (fIsSeveral) made = std::make_unique<PreIOThread_Multi_R_D>(&fOpened, &fIndex, kBlock, 3);
        return {startedWorker(std::move(made), true).release(),
                [](auto* worker) { worker->stopThreads(), worker->destroyThreads(), delete worker; }};
    }
    Bytes request(PreIOThreadBase& worker, std::uint32_t number) {
        Bytes rows(fBlocks[number].size());
        worker.getBlock(rows.data(), sizeOf(rows), fIndex.parsed(number).orginalPos);
        return rows;
    }
    const bool fIsSeveral = GetParam() == 3;
    ORVA_File fOpened;
    filePosInfo fIndex{kBlock};
};
INSTANTIATE_TEST_SUITE_P(Threads, ReadWorker, testing::Values(1, 2, 3), testing::PrintToStringParamName());

TEST_P(ReadWorker, R1_R3_T1_A2_OnlyASequentialRunIsReadBesideTheCaller) {
    const CallHook reads;
    auto worker = started();
    for (std::uint32_t i = 0; i < kBlocks; ++i) {
        EXPECT_EQ(request(*worker, i), fBlocks[i]) << "block " << i;
        // The caller may itself make a block that no thread has begun.
        while (reads.count < std::min(fIsSeveral && i > 0 ? 2 * i + 2 : i + 2, kBlocks)) std::this_thread::yield();
    }
    EXPECT_EQ(reads.count, 6U) << "each block once";
    for (int i = 0; i < 2; ++i) EXPECT_EQ(request(*worker, 5), fBlocks[5]);
    EXPECT_EQ(reads.count, 8U) << "no stale block counts as made ahead";
    if (!fIsSeveral) return;
    for (const std::uint32_t jump : {3u, 1u, 4u}) EXPECT_EQ(request(*worker, jump), fBlocks[jump]);
    worker = nullptr;
    EXPECT_EQ(reads.count, 11U) << "nothing ahead of a jump";
}

TEST_P(ReadWorker, R2_R4_R5_T2_T3_T4_A1_A3_A4_A5_AnyRequestIsServedOrFailsAndItStopsWhateverWentBefore) {
    const auto end = static_cast<std::size_t>(fIndex.parsed(3).translatePos);
    overwriteBytes(fName, end - 1, {static_cast<unsigned char>(fFile[end - 1] ^ 8)});
    const CallHook bad([place = fIndex.parsed(4).translatePos](const Step& step, std::uint64_t) {
        return step.offset == place ? Verdict::fail(EIO) : Verdict::goOn();
    });
    auto worker = started();
    RandomBytes random(45);
    std::uint32_t number = 0;
    for (int i = 0; i < 1'000; ++i) {
        if (random.oneIn(8)) worker = started();
        number = random.oneIn(3) ? static_cast<std::uint32_t>(random.below(kBlocks)) : (number + 1) % kBlocks;
        if (auto* const several = dynamic_cast<PreIOThread_Multi_R_D*>(worker.get())) {
            const auto count = i % 8 == 0 ? 1 + static_cast<std::uint32_t>(random.below(kBlocks - number)) : 0;
            Bytes loaded(count * std::size_t{kBlockSize});
            const std::uint32_t came = count == 0 ? 0 : several->loadSeveral(number, count, loaded.data());
            ASSERT_EQ(came, std::min(count, number > 4 ? count : (number > 2 ? 4 : 2) - number)) << "run " << i;
            const auto first = fBlocks.begin() + number;
            const Bytes expected = joined({first, first + came});
            ASSERT_EQ(slice(loaded, 0, expected.size()), expected) << "run " << i;
        }
        Bytes rows;
        const std::string failure = failureOf([&] { rows = request(*worker, number); });
        const bool right = number == 2   ? failure.find("block 2") != std::string::npos
                           : number == 4 ? failure == fileError(1003, EIO, fName)
                                         : rows == fBlocks[number];
        ASSERT_TRUE(right) << "request " << i << " for block " << number << ": " << failure;
    }
}

// Lifetimes of streams that write on threads: some rows, some calls that fail, and an end at any point. A destructor
// throws a failure that nobody has seen, but not while another exception is in flight.
TEST_F(ShortBlocks, TenThousandLivesEnd) {
    RandomBytes random(48);
    CallHook disk;
    const auto goesOn = [&] {
        if (random.oneIn(6)) disk.fail(Call::Write, EIO);
        return !random.oneIn(3);
    };
    constexpr int lives = kSanitized ? 2'000 : 10'000;
    int heard = 0, unheard = 0;
    for (int i = 0; i < lives && !HasFailure(); ++i) {
        disk.fail(Call::Write, 0);
        bool atEnd = false;
        const std::string failure = failureOf([&] {
            auto stream = startedWriter(path("new"), std::array{0, 1, kOneOfSeveral, kTwo}[random.below(4)]);
            for (const Bytes& block : fBlocks) {
                if (goesOn()) write(*stream, block);
                if (goesOn()) stream->Flush();
            }
            if (!goesOn()) throw std::runtime_error("in flight");
            if (!goesOn()) stream->abandon();
            if (goesOn()) stream->Close();
            atEnd = true;
            delete stream.release();
        });
        EXPECT_THAT(failure, testing::AnyOf("", "other in flight", fileError(1002, EIO, path("new"))));
        if (failure.starts_with("File")) ++(atEnd ? unheard : heard);
    }
    EXPECT_TRUE(heard > lives / 10 && unheard > lives / 50) << heard << " heard, " << unheard << " not";
}
