// Resuming finished files: what the file holds afterwards. That an append which fails leaves what it found is told in
// core/faultTest.cpp.
#include "recoveryTest.h"

namespace recovery {

using AppendTest = FileTest;

// Whatever else a stream that appends is told to do, the rows are there again first, or the failure stays the last
// word.
TEST_F(AppendTest, WhatIsNotFinishedIsUndoneAndAFailureIsFinal) {
    Append append = kAppends[0];
    makeFile(fFile, blocksOf(append.old));
    const Files before = present();
    for (append.road = 0; append.road < 2; ++append.road) {
        {
            const Reader stream(fFile);
            append.write(stream);
            stream->setRow0Pos(kRow0);
            stream->abandon();
        }
        EXPECT_EQ(present(), before);
        const Reader stream(fFile), second(fFile, 0, kRow0);
        const auto expectOld = [&] {
            stream->readFilePosInfo(kRow0, false);
            EXPECT_EQ(present(), before);
            EXPECT_TRUE(sameBytes(stream.read(1'000), append.oldRows()));
        };
        append.write(stream);
        EXPECT_EQ(failureOf([&] { second->setFileToAppend(kRow0, false); }),
                  "SystemFileException 1201 fData->pRealFile.Open(GetNameStr(),\"r+b\") errno 11 " + fFile);
        expectOld();
        append.begin(stream, append.keptEnd());
        CallHook disk;
        disk.fail(Call::Write, ENOSPC);
        const std::string failure = failureOf([&] { writeBlocks(*stream, blocksOf(append.added)); });
        EXPECT_EQ(failure, fileError(1002, ENOSPC, fFile));
        EXPECT_EQ(failureOf([&] { resume(*stream, append.keptEnd()); }), failure);
        EXPECT_EQ(failureOf([&] { stream->setRow0Pos(kRow0); }), failure);
        expectOld();
    }
}

TEST_F(AppendTest, TheEndIsTheCallersDutyInAShortBlockAndTheFilesBehindAFullOne) {
    const auto begin = [&](std::int64_t at, std::int64_t end) {
        const Reader stream(fFile, 0, kRow0);
        stream->Seek(kRow0 + at, ORVA_StrBaseIO::SeekFromStart);
        stream->setFileToAppend(kRow0 + end, false);
    };
    makeFile(fFile, {Bytes(kBlock, 1)});
    EXPECT_THAT(failureOf([&] { begin(5, 5); }), testing::HasSubstr("fData->fpos == endpos"));
    makeFile(fFile, blocksOf({300, 500}));
    EXPECT_ASSERTION(begin(800, 799), "fFilePos == endpos");
    for (const std::int64_t at : {801, 299}) EXPECT_ASSERTION(begin(at, at), "endpos inside the last block");
    // Nor is it a breach if another process has appended since the index was read, or has begun anew.
    const Reader stale(fFile, 0, kRow0), emptied(fFile, 0, kRow0);
    kAppends[0].run(fFile);
    EXPECT_THROW(resume(*stale, kRow0 + 800), FileChangedError);
    // It is taken where it ends now.
    const Bytes before = rowsOf(fFile);
    resume(*stale, kRow0 + std::ssize(before));
    core::write(*stale, Bytes(10, 'x'));
    EXPECT_EQ(stale->Close(), 1);
    EXPECT_EQ(rowsOf(fFile), before + Bytes(10, 'x'));
    makeFile(fFile, {});
    EXPECT_THROW(emptied->setFileToAppend(kRow0 + 800, false), FileChangedError);
}

}  // namespace recovery
