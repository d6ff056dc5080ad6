// Where a finished file is resumed. What it holds afterwards is told in core/modelTest.cpp; that an append which fails
// leaves what it found, in core/faultTest.cpp.
#include "recoveryTest.h"

namespace recovery {

using AppendTest = FileTest;

TEST_F(AppendTest, TheEndIsTheCallersDutyInAShortBlockAndTheFilesBehindAFullOne) {
    const auto begin = [&](std::int64_t at, std::int64_t end) {
        const Reader stream(fFile, 0, kRow0);
        stream->Seek(kRow0 + at, ORVA_StrBaseIO::SeekFromStart);
        stream->setFileToAppend(kRow0 + end, false);
    };
    makeFile(fFile, {Bytes(kBlock, 1)});
    EXPECT_THAT(failureOf([&] { begin(5, 5); }), testing::HasSubstr("fData->fpos == endpos"));
    makeFile(fFile, blocksOf({300, 500}));
    EXPECT_DEATH(begin(800, 799), testing::HasSubstr("fFilePos == endpos"));
    for (const std::int64_t at : {801, 299})
        EXPECT_DEATH(begin(at, at), testing::HasSubstr("endpos inside the last block"));
    // Nor is it a breach if another process has appended since the index was read, or has begun anew.
    const Reader stale(fFile, 0, kRow0), emptied(fFile, 0, kRow0);
    kAppends[0].run(fFile);
    EXPECT_THROW(resume(*stale, kRow0 + 800), FileChangedError);
    // It is taken where it ends now.
    const Bytes before = rowsOf(fFile);
    resume(*stale, kRow0 + std::ssize(before));
    EXPECT_EQ(failureOf([&] { emptied->setFileToAppend(kRow0, false); }),
              "SystemFileException 1201 fData->pRealFile.Open(GetNameStr(),\"r+b\") errno 11 " + fFile);
    core::write(*stale, Bytes(10, 'x'));
    EXPECT_EQ(stale->Close(), 1);
    EXPECT_EQ(rowsOf(fFile), before + Bytes(10, 'x'));
    makeFile(fFile, {});
    EXPECT_THROW(emptied->setFileToAppend(kRow0 + 800, false), FileChangedError);
}

}  // namespace recovery
