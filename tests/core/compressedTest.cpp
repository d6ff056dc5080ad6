// Writing: choices, cuts, beginnings and ends. Reading: without a file, and of a damaged file or block. Offsets beyond
// 4 GiB, in a hole. Broken contracts, and forks. modelTest.cpp covers which blocks and rows writes make,
// recovery/damageTest.cpp false headings and indexes.
#include "coreTest.h"
#include "part/zcmpsPreIOThread.h"

using namespace support;

using testing::AllOf, testing::HasSubstr, testing::StartsWith;

struct CompressedWrite : TempDir, testing::WithParamInterface<int> {
    void finish(zcmpsFilestr& stream, const Bytes& rows, const std::vector<std::int32_t>& sizes) const {
        write(stream, rows);
        EXPECT_EQ(stream.Close(), 1);
        expectFinished(readBytes(fName), rows, sizes);
    }
    const std::string fName = path("rows.orva");
    const int kBestLevel = zcmpsFilestr::bestCompressionLevel();
};
INSTANTIATE_TEST_SUITE_P(Threadings, CompressedWrite, testing::Values(0, 1, kSeveral));

TEST_P(CompressedWrite, AChoiceOutOfRangeOrTooLateIsRefusedAndChangesNothing) {
    const auto stream = freshStream(fName, GetParam());
    const auto refusal = [&](std::int64_t n, int m) {
        return failureOf([&] { stream->setBlockLength(n); }) + failureOf([&] { stream->setCompressionLevel(m); });
    };
    const std::string length = "other the block length must be 65536 to 4190208, ";
    const std::string level = "other the compression level must be 1 to " + std::to_string(kBestLevel) + ", ";
    const std::string late = "and be set before the stream writes", above = std::to_string(kBestLevel + 1);
    stream->setBlockLength(70'000);
    EXPECT_EQ(refusal(65'535, 0), length + "got 65535" + level + "got 0");
    EXPECT_EQ(refusal(kBlock + 1, kBestLevel + 1), length + "got 4190209" + level + "got " + above);
    beginRows(*stream);
    EXPECT_EQ(refusal(kBlock, 2), length + late + level + late);
    if (GetParam() != 1) setThreading(*stream, kTwo);  // not too late: no thread exists yet
    finish(*stream, Bytes(100'000, 'x'), {70'000, 30'000});
}

TEST_P(CompressedWrite, CutsABlockThatDeflateCannotFitAtAnyLevel) {
    const Bytes rows = RandomBytes(22).noise(kBlock) + Bytes(5'000, 'x');
    for (const int level : {1, 2, kBestLevel}) {
        const auto stream = freshStream(fName, GetParam());
        stream->setCompressionLevel(level);
        beginRows(*stream);
        finish(*stream, rows, {kBlock / 2, kBlock / 2, 5'000});
    }
}

// Holds the thread that writes the first block until the stream is being abandoned.
TEST_P(CompressedWrite, AbandonGivesUpTheBlocksThatWait) {
    const auto stream = startedWriter(fName, GetParam());
    std::atomic<bool> abandoning{false};
    std::atomic<int> writes{0};
    const CallHook hook([&](const Step& step) {
        if (step.call == Call::Write && ++writes == 1 && GetParam() != 0) abandoning.wait(false);
    });
    write(*stream, Bytes(GetParam() == kSeveral ? 4 * kBlock : kBlock, 'x'));
    std::jthread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        abandoning = true, abandoning.notify_all();
    });
    stream->abandon();
    EXPECT_LE(writes, 1);
}

// A worker's failure is seen with the next block.
TEST_P(CompressedWrite, AFailureLeavesThePositionBehindWhatWasTaken) {
    if (GetParam() == kSeveral) return;
    for (const std::size_t before : {0U, 5U}) {
        const auto stream = startedWriter(fName, GetParam());
        write(*stream, Bytes(before));
        CallHook disk;
        disk.fail(Call::Write, EIO);
        EXPECT_EQ(failureOf([&] { write(*stream, Bytes(3 * kBlock)); }), fileError(1002, EIO, fName));
        EXPECT_EQ(stream->Tell(), kRow0 + (1 + GetParam()) * std::int64_t{kBlock});
    }
}

TEST_P(CompressedWrite, CannotBeginWithoutRoomForABlockOrTheFileAndMayTryAgain) {
    const auto stream = freshStream(fName, GetParam());
    for (const std::int64_t pos : {kLastRow0Pos + 1, INT64_MAX}) {
        EXPECT_EQ(failureOf([&] { beginRows(*stream, pos); }), fileError(1002, EFBIG, fName));
        EXPECT_THAT(failureOf([&] { stream->readFilePosInfo(pos, false); }), HasSubstr("cannot begin at offset"));
    }
    std::filesystem::rename(fName, path("elsewhere"));
    const std::string failure = failureOf([&] { beginRows(*stream); });
    EXPECT_EQ(failure, "SystemFileException 1201 fData->pRealFile.Open(GetNameStr(), \"r+b\") errno 2 " + fName);
    EXPECT_EQ(failureOf([&] { stream->Read(nullptr, 1); }), failure);
    std::filesystem::rename(path("elsewhere"), fName);
    beginRows(*stream);
    finish(*stream, Bytes(10, 'x'), {10});
}

// The rows begin beyond 4 GiB, where the guess of a look-up is never right, so only a gap gives no answer.
struct CompressedRead : ShortBlocks, testing::WithParamInterface<int> {
    CompressedRead() { makeFile(fName, fBlocks, kFar, GetParam() == 2 ? 1 : GetParam()); }
    std::int64_t row(std::size_t block) const { return fLayout.records[block].orginalPos + kFar - kRow0; }
    static constexpr std::int64_t kFar = (std::int64_t{5} << 30) + 7;
    const Layout fLayout{fFile};
};
INSTANTIATE_TEST_SUITE_P(Threadings, CompressedRead, testing::Values(0, 2, kSeveral));

TEST_P(CompressedRead, WhatIsLoadedOrCachedCostsNoFileCall) {
    const Reader reader(fName, GetParam(), kFar);
    reader.readAt(row(5) + 20, 60);  // the last block, after which nothing is read ahead
    const CallHook calls;
    reader->Seek(-10, ORVA_StrBaseIO::SeekFromCurrent);
    EXPECT_EQ(reader.read(20), slice(fBlocks[5], 70, 20));
    EXPECT_EQ(reader.readAt(row(5), 5), slice(fBlocks[5], 0, 5));
    EXPECT_EQ(reader.readAt(row(0), 0), Bytes());
    for (int i = 0; i < 2; ++i) reader->Seek(INT64_MAX, ORVA_StrBaseIO::SeekFromCurrent);
    EXPECT_EQ(reader->Tell(), INT64_MAX);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(reader->Seek(INT64_MIN, ORVA_StrBaseIO::SeekFromCurrent), 0);
    EXPECT_EQ(reader->Tell(), INT64_MIN);
    EXPECT_EQ(calls.count, 0U);
    if (GetParam() != 0) return;
    reader->setBlockCache(2);
    const auto loads = [&](std::size_t block) {
        const std::uint64_t before = calls.count;
        EXPECT_EQ(reader.readAt(row(block), fBlocks[block].size()), fBlocks[block]);
        return calls.count != before ? '1' : '0';
    };
    std::string loaded;
    for (const std::size_t block : {0u, 2u, 0u, 2u, 0u, 4u, 0u, 2u}) loaded += loads(block);
    EXPECT_EQ(loaded, "11000101") << "the least recently used block goes first";
    reader->setBlockCache(INT32_MAX);   // takes memory only for existing blocks
    reader->setThreadCount(INT32_MAX);  // counts as 256
    reader->readFilePosInfo(kFar, false);
    EXPECT_EQ(loads(0), '1') << "a file that is opened anew";
}

TEST_P(CompressedRead, ARequestOfManyBlocksLooksAtEachOnce) {
    makeFile(fName, blocksOf(std::vector<std::size_t>(60'000, 3)));
    expectInChild([&] { EXPECT_EQ(Reader(fName, GetParam(), kRow0).read(200'000).size(), 180'000U); });
}

// A false record, about the bytes of its block or about its rows; the latter leaves a gap after them.
TEST_P(CompressedRead, ADamagedBlockOrAGapIsRefusedAndTheOthersStayReadable) {
    const std::int64_t index = fLayout.heading._indexPos + kFar - kRow0;
    const auto lie = [&](std::int64_t record, std::int64_t field, const Bytes& value) {
        overwriteBytes(fName, index + record * kRecordSize + field, value);
    };
    lie(3, 20, bytesOf(fLayout.records[2].translateSize - 1));
    lie(5, 16, bytesOf(1'500));
    lie(6, 0, bytesOf(INT64_MAX - 100));
    const Reader reader(fName, GetParam(), kFar);
    auto look = std::make_unique<CallHook>([](const Step& step, std::uint64_t) {
        return step.size == kHeadingSize ? Verdict::fail(EIO) : Verdict::goOn();
    });
    EXPECT_THAT(failureOf([&] { reader.readAt(kFar + 500, 9'000); }),
                AllOf(StartsWith("DamagedFileError"), HasSubstr(fName + "\" is damaged"),
                      HasSubstr("block 2 (logical positions 5368712128 to 5368732128, "),
                      HasSubstr("[0: Z_STREAM_END at the last byte]")));
    EXPECT_EQ(reader->Tell(), row(2)) << "behind the last byte delivered";
    EXPECT_EQ(reader->Good(), 1) << "what a look for changes meets is no failure of the caller's";
    look.reset();
    EXPECT_THAT(failureOf([&] { reader.readAt(kFar + 26'000, 1); }), HasSubstr("bInfo.orginalPos != -200"));
    EXPECT_EQ(reader.readAt(row(3), 700), fBlocks[3]);
    EXPECT_EQ(reader.readAt(kFar, 3'001), fBlocks[0] + fBlocks[1]);
    EXPECT_EQ(reader.readAt(INT64_MAX - 100, 1'000), fBlocks[5]);
    std::filesystem::resize_file(fName, kFar + 30);
    EXPECT_THAT(failureOf([&] { reader.readAt(kFar + 10, 1); }), HasSubstr("ret == bInfo.translateSize"));
    reader->Close();
    const std::string failure = failureOf([&] { reader->readFilePosInfo(kFar, false); });
    EXPECT_THAT(failure, HasSubstr("ret == chInfo._size"));
    EXPECT_EQ(failureOf([&] { reader.read(1); }), failure);
}

using Breaches = ShortBlocks;

TEST_F(Breaches, OfACallersDutyEndTheProgramInWords) {
    const auto fresh = freshStream(path("fresh"), 0), stream = startedWriter(path("new"), 1);
    const auto closed = startedWriter(path("closed"), 0);
    closed->Close();
    write(*stream, Bytes(10, 'x'));
    std::uint32_t none = 0;
    char b[8] = {};
    const Reader behind(fName, 0, kRow0);
    behind->Seek(kRow0 + 28'801, ORVA_StrBaseIO::SeekFromStart);
    const auto jump = [&] { stream->Seek(1, ORVA_StrBaseIO::SeekFromStart), stream->Write("x", 1); };
    const struct {
        const char* text;
        std::function<void()> call;
    } breaches[] = {
        {"bIsWriting == true", [&] { fresh->Write("x", 1); }},
        {"bIsWriting == false", [&] { stream->Read(nullptr, 1); }},
        {"seek from end with zcmpsFilestr::Seek", [&] { stream->Seek(0, ORVA_StrBaseIO::SeekFromEnd); }},
        {"(req._pos == fpos + sizeof(fBuffer) - availBuffSize) && \"Jumped write in zcmpsFilestr::Data::Write\"", jump},
        {"fData->fpIOThread == 0", [&] { stream->setMultiThread(0); }},
        {"fData->bClosed == false", [&] { closed->Write("x", 1); }},
        {"fData->bClosed == false", [&] { closed->setRow0Pos(kRow0); }},
        {"fData->bClosed == false", [&] { closed->readFilePosInfo(kRow0, false); }},
        {"fpIOThread != 0", [&] { write(*startedWriter(path("other"), 2), Bytes(10, 'x')); }},
        {"fpIOThread != 0", [&] { write(*startedWriter(path("other"), -1), Bytes(10, 'x')); }},
        {"fFilePos == endpos", [&] { behind->setFileToAppend(kRow0 + 28'800, false); }},
        {"endpos inside the last block", [&] { resume(*Reader(fName, 0, kRow0), kRow0 + 28'802); }},
        {"endpos inside the last block", [&] { resume(*Reader(fName, 0, kRow0), kRow0 + 28'700); }},
        {"prtData!=0", [] { PreIOThread_Tri_R_D::newThreadForRead().onCallBack(nullptr); }},
        {"pParent!=0", [] { PreIOThread_Tri_R_D::newThreadForDecompress().onCallBack(nullptr); }},
        {"souce||dest||outCount||inCount", [&] { zlibCompressBlock().compressBlock(nullptr, 0, nullptr, none); }},
        {"souce && dest && outCount && inCount", [&] { lz4CompressBlock::compressBlock(nullptr, 8, b, 8, 0); }},
        {"souce && dest && outCount && inCount", [&] { lz4CompressBlock::decompressBlock(b, 0, b, 8); }},
    };
    for (const auto& breach : breaches) EXPECT_DEATH(breach.call(), HasSubstr(breach.text));
    EXPECT_EQ(stream->Close(), 1);
}

// An append by another process since the index was read, or a new file, is no broken contract.
TEST_F(ShortBlocks, AnAppendBeginsWhereTheFileEndsNow) {
    const Reader stale(fName, 0, kRow0), emptied(fName, 0, kRow0), other(fName, 0, kRow0);
    const std::int64_t end = kRow0 + 28'801;
    resume(*other, end);
    write(*other, Bytes(5, 'x'));
    other->Close();
    EXPECT_THROW(resume(*stale, end), FileChangedError);
    resume(*stale, end + 5);
    EXPECT_EQ(failureOf([&] { emptied->setFileToAppend(kRow0, false); }),
              "SystemFileException 1201 fData->pRealFile.Open(GetNameStr(),\"r+b\") errno 11 " + fName);
    write(*stale, Bytes(5, 'x'));
    EXPECT_EQ(stale->Close(), 1);
    EXPECT_EQ(Reader(fName, 0, kRow0).read(30'000), joined(fBlocks) + Bytes(10, 'x'));
    makeFile(fName, {});
    EXPECT_THROW(emptied->setFileToAppend(end, false), FileChangedError);
    makeFile(path("full"), {Bytes(kBlock)});
    EXPECT_THAT(failureOf([&] { resume(*Reader(path("full"), 0, kRow0), kRow0 + 5); }),
                HasSubstr("fData->fpos == endpos"));
}

// A child has none of its parent's threads, so it must neither wait for one nor finish the parent's file.
TEST_F(ShortBlocks, AForkWhileWorkersLive) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a child of several threads cannot start threads there";
#endif
    const Bytes rows = joined(fBlocks);
    const std::string own = path("own");
    ORVA_FileStream plain(path("plain").c_str(), "w+b");
    plain.EnableMultiThreadReading();
    write(plain, rows);
    for (const int threading : {0, 1, kTwo}) {
        auto writer = startedWriter(own, threading);
        writeBlocks(*writer, {rows});
        Reader reader(fName, threading == 1 ? 2 : threading, kRow0);
        reader.read(28'750);  // into the last block: a thread at work during a fork can hold what a sanitizer needs
        expectInChild([&] {
            EXPECT_EQ(ORVA_FileStream(own.c_str(), "r+b").Good(), 0) << "a second writer in another process";
            EXPECT_EQ(writer->Close() + reader->Close() + plain.Close(), 0);
            writer->abandon();
            writer.reset();
            reader.reset();
            EXPECT_EQ(Reader(fName, threading, kRow0).read(30'000), rows);
        });
        EXPECT_EQ(readBytes(path("plain")), Bytes());
        expectInChild([&] { execl("/bin/true", "true", nullptr); });
        EXPECT_EQ(reader.readAt(kRow0 + 2'999, 3).size(), 3U);
        write(*writer, rows);
        EXPECT_EQ(writer->Close(), 1);
        EXPECT_TRUE(sameBytes(Reader(own, 0, kRow0).read(100'000), rows + rows));
    }
}
