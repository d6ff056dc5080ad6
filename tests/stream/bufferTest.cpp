// The buffer between a stream and its file, what each step asks of the file, and the hand-over of readAheadSlot.h, rule
// by rule. No byte is lost or stale.
#include "stream/streamTest.h"
#include "worker/readAheadSlot.h"

#include <orva/blockSize.h>
#include <orva/zcmpsFilestr.h>

namespace {

using orva::readAheadSlot;
using namespace support;

constexpr std::int64_t kBlock = kBlockSize;
constexpr std::size_t kLarge = 15'000'000;

const Script kScripts[] = {
    {"DirectReadFromAnOddPosition", kLarge, "s7 r4190800 r1", "R 7+4190713, R 4190720"},
    {"EndOnASector", 1'024, "r2000 r1 w9 f", "R 0, R 1024, W 1024+9, end"},
    {"ExactReads", 1'000, "r3 w2 p0 r10 p1 s900 r10 p0 s1000 r1", "R 0, W 3+2, R 5+10, R 1000+1, end"},
    {"WritesIntoABlockJustReadWriteWhatChanged", kBlock, "r1 s5 w9 s90 w9 s20 w9 f s99 w9 f s4190200 w7 w1",
     "R 0, W 5+94, W 99+9, W 4190200+8"},
    {"FullBufferIsFlushedAtOnce", 0, "w4190207 w1 s5 r9 w9 s4190208 w7 f", "W 0, W 14+9, W 4190208+7"},
    {"LargeRestIsDirect", 0, "w100 w8380416 s50 r9", "W 0, W 4190208+4190308"},
    {"DirectWriteOverItsFirstByte", kLarge, "s4190208 w9 s1 w4190208 s4190208 r9", "W 4190208+9, W 1, R 4190208"},
    {"AppendedBytesLieBehindEachOther", 1'000, "s0 w50 s0 w50 s40 w50 w9 e0 r1 s1000 r50 w3",
     "W 1000+50, W 1050+50, W 1100+59, R 1024, R 512", "a+b"},
    {"AppendedBytesWhereTheEndWasReadAhead", kBlock, "t1 s0 r1 a1 w100 s4190208 r100 a2",
     "R 0, r 4190208, W 4190208+100, R 4190208, r 8380416", "a+b"},
    {"EncipheredBlocksAreWrittenWhole", 0, "w5000 f s100 w9 f w100 f s4990 w9 s9000 w1 s50 w1 s5000 r9",
     "W 0+4992, W 96+16, W 96+128, W 4976+16, W 4992+16, R 48+16, W 48+16, R 4608", "w+b", true},
    {"CopyReadsAsItsSourceDid", 1'000, "p0 w3 k r9", "W 0+3, R 0+9"},
    {"ResetDropsPendingBytesForGood", 1'000, "r5 d7 r9 f", "R 0, R 0"},
    {"EveryBlockButTheFirstIsAHit", 2 * kBlock + 512, "t1 t1 r4000000 r10000000 a4",
     "R 0, r 4190208, r 8380416, r 12570624, R 8380928, r 12571136, end"},
    {"JumpIsAMissAndGoesOnFromThere", 4 * kBlock, "t1 r1 s8381116 r1 s12571300 r1 a3",
     "R 0, r 4190208, R 8380928, r 12571136, r 16761344"},
    {"SwitchedOffItStaysIdleAndGoesOnWhenOn", 3 * kBlock, "t1 r1 a1 t0 s8380416 r1 p0 t1 r2 p1 s4190208 r1 a2",
     "R 0, r 4190208, R 8380416, R 8380417+2, r 8380416"},
    {"CopyKeepsTheWorker", 2 * kBlock, "t1 r1 a1 k s4190208 r1 a2", "R 0, r 4190208, r 8380416"},
    {"R6_PendingBytesInTheBlock", 3 * kBlock, "t1 r1 a1 s4190308 w9 s4190208 r4190208 a2",
     "R 0, r 4190208, W 4190308+9, R 4190208, r 8380416"},
    {"R6_FileThatGrewBehindItsEnd", 1'000, "t1 r1 a1 s12570624 w9 s4190208 r100 a2",
     "R 0, r 4190208, W 12570624+9, R 4190208, r 8380416"},
};

using StreamBuffer = StreamTest;

TEST_F(StreamBuffer, BytesFileCallsAndEnd) {
    for (const Script& script : kScripts) check(script);
}

TEST_F(StreamBuffer, PositionsEndWhereTheSystemsDo) {
    open(100);
    run("s30 s-1 m-31 e-101 s9223372036854775807 m1 m-9223372036854775807 s9223372036854775805");
    EXPECT_EQ(failureOf([&] { s().Write("abc", 3); }), fileError(1002, EFBIG, path("data")));
    run("s9223372036854775707 r5000000 r9 t1 r9 s9223372036850585088 r1 s9 w9 f t0 s9223372036854775707");
    FileCalls disk;
    disk.fail(Call::Seek, EIO);
    EXPECT_EQ(s().Seek(0, ORVA_StrBaseIO::SeekFromEnd), -1);
    EXPECT_EQ(s().Tell(), INT64_MAX - 100);
    close();
}

TEST_F(StreamBuffer, AFailedDirectWriteIsNotRead) {
    open(kLarge);
    run("s1000 w9 f s0");
    FileCalls disk;
    disk.fail(Call::Write, ENOSPC);
    EXPECT_EQ(failureOf([&] { s().Write(noise().data(), kBlockSize); }), fileError(1002, ENOSPC, path("data")));
    run("s1000 r9");
    close();
}

TEST_F(StreamBuffer, AFailedAppendIsTakenAsFarAsTheFileGrew) {
    for (const std::size_t size : {std::size_t{1'000}, kLarge}) {
        for (const bool tellsSize : {true, false}) {
            SCOPED_TRACE(testing::Message() << size << ' ' << tellsSize);
            open(50, "ab");
            {
                bool asked = false, wrote = !tellsSize;
                const CallHook disk([&](const Step& called, std::uint64_t) {
                    if (called.call == Call::Seek && !tellsSize && !std::exchange(asked, true))
                        return Verdict::fail(EIO);
                    if (called.call != Call::Write) return Verdict::goOn();
                    return std::exchange(wrote, true) ? Verdict::fail(ENOSPC) : Verdict::atMost(10);
                });
                EXPECT_NE(failureOf([&] { model->write(slice(noise(), 0, size)), s().Flush(); }), "");
            }
            run("w9");
            close();
        }
    }
}

TEST_F(StreamBuffer, CopiesThatAppendLoseNothingOfEachOther) {
    for (const std::uint32_t size : {5u, 40u}) {
        for (const bool encrypted : {false, true}) {
            open(0, "a+b", encrypted);
            ORVA_FileStream copy(s());
            EXPECT_EQ(s().Write("waiting", 7) + copy.Write(noise().data(), size), 7 + size);
            copy.Flush();
            s().Flush();
            Bytes found(100);
            found.resize((copy.ClearAndReset(), copy.Read(found.data(), 100)));
            EXPECT_EQ(found, slice(noise(), 0, size) + Bytes({'w', 'a', 'i', 't', 'i', 'n', 'g'}));
            model = nullptr;
        }
    }
}

TEST_F(StreamBuffer, WhatCanNotReachAnEncipheredFileIsNotTaken) {
    open(0, "wb", true);
    run("w1600 s3200 w4190208 s1600");
    EXPECT_NE(failureOf([&] { model->write(slice(noise(), 0, 5)); }), "");
    EXPECT_EQ(s().Flush(), 1);
    run("w1600");
    model = nullptr;
}

// What one reads ahead never reaches the other's buffer half-done or at the wrong place.
TEST_F(StreamBuffer, R1_CopiesOnTwoThreadsShareOneWorkerByTurns) {
    open(8 * kBlock);
    run("t1");
    ModelStream copy(*model);
    const auto readAll = [](ModelStream& stream, std::size_t size) {
        while (stream.position() < 8 * kBlock) stream.read(size);
    };
    const std::jthread other(readAll, std::ref(copy), 777'777);
    readAll(*model, 1'000'000);
}

// A compressed stream opens the file object again, from which the thread of the stream below reads meanwhile.
TEST_F(StreamBuffer, ReadsAheadWhileAPartOverItReopensTheFile) {
    open(2 * kBlock + 1'000);
    for (int round = 0; round < (kSanitized ? 50 : 150) && !HasFailure(); ++round) {
        model = nullptr;
        openModel("r+b");
        run("t1 r1");
        zcmpsFilestr part(s());
        part.setRow0Pos(std::ssize(content));
        run("s4190208 r100 s0 r100");
        EXPECT_EQ(part.Close(), 1);
    }
    model = nullptr;
    EXPECT_TRUE(sameBytes(slice(readBytes(path("data")), 0, content.size()), content));
}

TEST(ReadAheadSlot, R6_BlockWrittenOverSinceIsNoHit) {
    const struct {
        std::int64_t begin, end;
        std::uint32_t count;  // bytes that were read ahead at 1,000, of blocks of 100
        bool hit;
    } cases[] = {{900, 1'000, 100, true},   {900, 1'001, 100, false},  {1'099, 1'200, 100, false},
                 {1'100, 1'200, 100, true}, {5'000, 5'001, 30, false}, {900, 1'000, 30, true},
                 {5'000, 5'001, 0, false}};
    readAheadSlot slot;
    for (const auto& c : cases) {
        for (const bool whileRead : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.begin << " to " << c.end << ", of " << c.count << ' ' << whileRead);
            std::jthread other;  // a write beside the read-ahead waits for its end
            const auto write = [&] { slot.noteWritten(c.begin, c.end, 100); };
            readAheadSlot::request(slot).readAhead(1'000);
            slot.step([&](std::int64_t) {
                if (whileRead) other = std::jthread(write);
                return c.count;
            });
            whileRead ? other.join() : write();
            EXPECT_EQ(readAheadSlot::request(slot).hits(1'000), c.hit);
        }
    }
}

}  // namespace
