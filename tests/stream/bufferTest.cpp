// The buffer between a stream and its file: the file calls of each step, and the hand-over of readAheadSlot.h, rule by
// rule. No byte is lost or stale.
#include "stream/streamTest.h"

using namespace support;

constexpr std::int64_t kBlock = kBlockSize;
constexpr std::size_t kLarge = 15'000'000;

struct Script {
    const char* name;
    std::size_t fileSize;
    const char* steps;      // separated by blanks, each a letter of `kinds` and its number
    const char* transfers;  // the calls that they make, and "end" if EndOfFile is true then
    const char* mode = "r+b";
    bool encrypted = false;
};
const Script kScripts[] = {
    {"DirectReadFromAnOddPosition", kLarge, "s7 r4190800 r1", "R7+4190713 R4190720 "},
    {"ExactReads", 1'000, "r3 w2 p0 r10 p1 s900 r10 p0 s1000 r1", "R0 W3+2 R5+10 R1000+1 end"},
    {"WritesIntoABlockJustReadWriteWhatChanged", kBlock, "r1 s5 w9 s90 w9 s20 w9 f s99 w9 f s4190200 w7 w1",
     "R0 W5+94 W99+9 W4190200+8 "},
    {"FullBufferIsFlushedAtOnce", 0, "w4190207 w1 s5 r9 w9 s4190208 w7 f", "W0 W14+9 W4190208+7 "},
    {"LargeRestIsDirect", 0, "w100 w8380416 s50 r9", "W0 W4190208+4190308 "},
    {"FailedDirectWriteIsNotRead", kLarge, "s1000 w9 f s0 x W4190208 s1000 r9", "W1000+9 W0 R512 "},
    {"DirectWriteOverItsFirstByte", kLarge, "s4190208 w9 s1 w4190208 s4190208 r9", "W4190208+9 W1 R4190208 "},
    {"AppendedBytesWhereTheEndWasReadAhead", kBlock, "t1 s0 r1 a1 w100 s4190208 r100 a2",
     "R0 r4190208 W4190208+100 R4190208 r8380416 ", "a+b"},
    {"PositionsEndWhereTheSystemsDo", 100,
     "s30 s-1 m-31 e-101 s9223372036854775807 m1 m-9223372036854775807 s9223372036854775805 W3 "
     "s9223372036854775707 r5000000 r9 t1 r9 s9223372036850585088 r1 a1 s9 w9 f t0 q5 E",
     "R9223372036854775296+511 R9223372036854775296+511 R9223372036854775296+511 R9223372036850585088 "
     "r9223372036854775296+511 W9+9 "},
    {"FailedAppendThatCannotAskForTheSize", 50, "x q5 W1000 w9", "W50+1000 ", "ab"},
    {"FailedDirectAppendThatCannotAsk", 50, "x q5 W15000000 w9", "W50+15000000 ", "ab"},
    {"WhatCanNotReachAnEncryptedFileIsNotTaken", 0, "w1600 s3200 w4190208 s1600 W5 f w1600",
     "W0+1600 W3200 W1600+1600 ", "wb", true},
    {"EncryptedBlocksAreWrittenWhole", 0, "w5000 f s100 w9 f w100 f s4990 w9 s9000 w1 s50 w1 s5000 r9",
     "W0+4992 W96+16 W96+128 W4976+16 W4992+16 R48+16 W48+16 R4608 ", "w+b", true},
    {"R6_ABlockWrittenOverSinceIsNoHit", 6 * kBlock,
     "t1 r1 a1 s4190207 w1 s4190208 r1 a2 s8380415 w2 f s8380417 r1 a3 s16760831 w1 f s12570624 r1 a4 s20951040 w1 f "
     "s16760832 r1 a5",
     "R0 r4190208 W4190207+1 r8380416 W8380415+1 W8380416+1 R8380416 r12570624 W16760831+1 R12570624 r16760832 "
     "W20951040+1 r20951040 "},
    {"R6_NorOneThatEndedWithAFileThatHasGrownSince", 2 * kBlock + 1'000,
     "t1 r1 a1 s4190208 r1 a2 s8380415 w1 s8380416 r1 a3 s16760840 w9 f s12570624 r9 a4",
     "R0 r4190208 r8380416 W8380415+1 r12570624 W16760840+9 R12570624 r16760832 "},
    {"EveryBlockButTheFirstIsAHit", 2 * kBlock + 512, "t1 t1 r4000000 r10000000 a4",
     "R0 r4190208 r8380416 r12570624 R8380928 r12571136 end"},
    {"JumpIsAMissAndGoesOnFromThere", 4 * kBlock, "t1 r1 s8381116 r1 s12571300 r1 a3",
     "R0 r4190208 R8380928 r12571136 r16761344 "},
    {"SwitchedOffItStaysIdleAndGoesOnWhenOn", 3 * kBlock, "t1 r1 a1 t0 s8380416 r1 p0 t1 r2 p1 s4190208 r1 a2",
     "R0 r4190208 R8380416 R8380417+2 r8380416 "},
    {"CopyKeepsTheWorker", 2 * kBlock, "t1 r1 a1 k s4190208 r1 a2", "R0 r4190208 r8380416 "},
};

using StreamBuffer = StreamTest;

TEST_F(StreamBuffer, BytesFileCallsAndEnd) {
    for (const Script& script : kScripts) {
        SCOPED_TRACE(script.name);
        open(slice(noise(), 0, script.fileSize), script.mode, script.encrypted);
        calls.emplace();
        run(script.steps);
        EXPECT_EQ(calls->transfers() + (s().EndOfFile() != 0 ? "end" : ""), script.transfers);
        expectFile();
    }
}

TEST_F(StreamBuffer, CopiesThatAppendLoseNothingOfEachOther) {
    for (const std::uint32_t size : {5u, 40u}) {
        for (const bool encrypted : {false, true}) {
            open({}, "a+b", encrypted);
            ORVA_FileStream copy(s());
            EXPECT_EQ(s().Write(noise().data(), 7) + copy.Write(&noise()[7], size), 7 + size);
            copy.Flush(), s().Flush(), copy.ClearAndReset();
            Bytes found(100);
            found.resize(copy.Read(found.data(), 100));
            EXPECT_EQ(found, slice(noise(), 7, size) + slice(noise(), 0, 7));
        }
    }
}

TEST_F(StreamBuffer, CopiesThatAppendOnTwoThreadsFlushWhatTheyTook) {
    open({}, "a+b", true);
    ORVA_FileStream copy(s());
    const std::string theEndHasMoved = fileError(1002, EINVAL, path("data"));
    const auto append = [&](ORVA_FileStream& stream) {
        for (int row = 0; row < 30'000; ++row) {
            const std::string refusal = failureOf([&] {
                stream.Seek(0, ORVA_StrBaseIO::SeekFromEnd);
                stream.Write(noise().data(), 16);
            });
            EXPECT_THAT(refusal, testing::AnyOf("", theEndHasMoved));
            EXPECT_NO_THROW(stream.Flush());
        }
    };
    const std::jthread other(append, std::ref(copy));
    append(s());
}

// Bytes read ahead by one thread never reach the other's buffer half-done or at the wrong place.
TEST_F(StreamBuffer, R1_CopiesOnTwoThreadsShareOneWorkerByTurns) {
    open(slice(noise(), 0, 8 * kBlock));
    run("t1");
    ModelStream copy(*model);
    copy.begin();
    const auto readAll = [](ModelStream& stream, std::size_t size) {
        while (stream.position < 8 * kBlock) stream.read(size);
    };
    const std::jthread other(readAll, std::ref(copy), 777'777);
    readAll(*model, 1'000'000);
}

// A compressed stream opens the file object again while the thread of the stream below reads from it.
TEST_F(StreamBuffer, ReadsAheadWhileAPartOverItReopensTheFile) {
    open(slice(noise(), 0, 2 * kBlock + 1'000));
    for (int round = 0; round < (kSanitized ? 50 : 150) && !HasFailure(); ++round) {
        model = nullptr;
        model = std::make_unique<ModelStream>(path("data"), "r+b", content, false);
        run("t1 r1");
        zcmpsFilestr part(s());
        part.setRow0Pos(std::ssize(content));
        run("s4190208 r100 s0 r100");
        EXPECT_EQ(part.Close(), 1);
    }
    model = nullptr;
    EXPECT_TRUE(sameBytes(slice(readBytes(path("data")), 0, content.size()), content));
}
