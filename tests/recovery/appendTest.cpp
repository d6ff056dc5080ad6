// Resuming finished files: what the file holds afterwards. That an append which fails leaves what it found is told in
// core/faultTest.cpp.
#include "recoveryTest.h"

namespace recovery {

class AppendTest : public FileTest {};

TEST_F(AppendTest, RowsBlocksAndIndexAfterwards) {
    for (Append append : kAppends) {
        for (const bool swap : {false, true}) {
            SCOPED_TRACE(append.name + std::string(swap ? ", swapped" : ""));
            makeFile(fFile, blocksOf(append.old));
            const compressionHeading before = Layout(bytes()).heading;
            const Bytes old = swap ? swapped(bytes()) : bytes();
            lay({{fFile, old}});
            append.road = 0;
            append.run(fFile, swap);
            const Bytes appended = bytes();
            const Layout after(appended);
            EXPECT_EQ(after.sizes(), append.sizes);
            std::int64_t indexPos = before._indexPos + (append.indexPlace == BehindOldIndex ? before._size : 0);
            if (append.indexPlace == BehindBlocks) {
                indexPos = after.records.back().translatePos + after.records.back().translateSize;
            }
            EXPECT_EQ(after.heading._indexPos, indexPos);
            EXPECT_TRUE(sameBytes(rowsOf(fFile), append.newRows()));
            EXPECT_TRUE(sameBytes(support::slice(appended, 0, kRow0), Bytes(kRow0, 0xD5)));
            // The same file on every road. Where a safe one cuts rows, the old index behind the new one has no mark.
            const bool stands = before._indexPos >= after.heading._indexPos + after.heading._size;
            const Bytes blotted = with(appended, before._indexPos, Bytes(8));
            for (append.road = 1; append.road < 6; ++append.road) {
                lay({{fFile, old}});
                append.run(fFile, swap);
                const bool blots = append.cut != 0 && append.road % 2 == 1 && stands;
                EXPECT_EQ(present(), (Files{{fFile, blots ? blotted : appended}})) << append.road;
            }
            // What one append leaves, gaps and stale bytes included, the next one takes; a destructor finishes it.
            const Append again{"", {append.newRows().size()}, 0, {33}};
            again.write(core::Reader(fFile));
            EXPECT_TRUE(sameBytes(rowsOf(fFile), append.newRows() + again.addedRows()));
        }
    }
}

TEST_F(AppendTest, OneAtATimeAndNoneBesideASideFile) {
    Append append = kAppends[0];
    // A refused stream says so again, and has nothing to finish.
    const auto refusal = [&] {
        const core::Reader stream(fFile);
        const std::string failure = failureOf([&] { append.write(stream); });
        EXPECT_EQ(failureOf([&] { stream.read(1); }), failure);
        EXPECT_EQ(stream->Close(), 1);
        return failure;
    };
    makeFile(fFile, blocksOf(append.old));
    {
        const core::Reader first(fFile);
        const core::Reader second(fFile, 0, kRow0);
        append.write(first);
        support::writeBytes(fSide, {'.', 'O', 'R'});
        EXPECT_EQ(failureOf([&] { second->setFileToAppend(kRow0, false); }),
                  "SystemFileException 1201 fData->pRealFile.Open(GetNameStr(),\"r+b\") errno 11 " + fFile);
        EXPECT_EQ(failureOf([&] { orva::rollBack(fFile); }), core::fileError(1002, EWOULDBLOCK, fFile));
    }
    EXPECT_EQ(orva::rollBack(fFile), orva::rollBackResult::sideFileStale);
    EXPECT_EQ(orva::rollBack(fFile), orva::rollBackResult::nothingToDo);
    EXPECT_TRUE(sameBytes(rowsOf(fFile), append.newRows()));
    append.road = 1;
    makeFile(fFile, blocksOf(append.old));
    const Bytes side = interrupted(append).at(fSide);
    for (append.road = 0; append.road < 2; ++append.road) {
        support::writeBytes(fSide, side);
        EXPECT_EQ(refusal(), core::fileError(1002, EEXIST, fSide));
        // A file that begins anew leaves it; a new part over the heading that it has saved takes it away, with the
        // first block.
        const Bytes old = bytes();
        makeFile(fFile, blocksOf(append.old));
        EXPECT_TRUE(std::filesystem::exists(fSide));
        support::writeBytes(fFile, old);
        {
            zcmpsFilestr stream(ORVA_FileStream(fFile.c_str(), "r+b"));
            core::beginRows(stream);
            core::write(stream, Bytes(10));
            EXPECT_TRUE(std::filesystem::exists(fSide));
            stream.Flush();
            EXPECT_FALSE(std::filesystem::exists(fSide));
        }
        support::writeBytes(fFile, old);
        // One that cannot be opened is there all the same.
        std::filesystem::create_directory(fSide);
        EXPECT_EQ(refusal(), core::fileError(1002, EEXIST, fSide));
        std::filesystem::remove(fSide);
    }
}

// Whatever else a stream that appends is told to do, the rows are there again first, or the failure stays the last
// word.
TEST_F(AppendTest, WhatIsNotFinishedIsUndoneAndAFailureIsFinal) {
    Append append = kAppends[0];
    makeFile(fFile, blocksOf(append.old));
    const Files before = present();
    for (append.road = 0; append.road < 2; ++append.road) {
        {
            const core::Reader stream(fFile);
            append.write(stream);
            stream->readFilePosInfo(kRow0, false);
            EXPECT_EQ(present(), before);
            EXPECT_TRUE(sameBytes(stream.read(1'000), append.oldRows()));
            append.write(stream);
            stream->setRow0Pos(kRow0);
            stream->abandon();
        }
        EXPECT_EQ(present(), before);
        const core::Reader stream(fFile);
        append.begin(stream, append.keptEnd());
        std::string failure;
        {
            int left = 1;
            const core::CallHook full([&](const Step& step, std::uint64_t) {
                return step.call == Call::Write && left-- > 0 ? Verdict::fail(ENOSPC) : Verdict::goOn();
            });
            failure = failureOf([&] { core::writeBlocks(*stream, blocksOf(append.added)); });
        }
        EXPECT_EQ(failure, core::fileError(1002, ENOSPC, fFile));
        EXPECT_EQ(failureOf([&] { core::resume(*stream, append.keptEnd()); }), failure);
        EXPECT_EQ(failureOf([&] { stream->setRow0Pos(kRow0); }), failure);
        EXPECT_EQ(present(), before);
        stream->readFilePosInfo(kRow0, false);
        EXPECT_TRUE(sameBytes(stream.read(1'000), append.oldRows()));
    }
}

TEST_F(AppendTest, TheEndIsTheCallersDutyInAShortBlockAndTheFilesBehindAFullOne) {
    const auto begin = [&](std::int64_t at, std::int64_t end) {
        const core::Reader stream(fFile, 0, kRow0);
        stream->Seek(kRow0 + at, ORVA_StrBaseIO::SeekFromStart);
        stream->setFileToAppend(kRow0 + end, false);
    };
    makeFile(fFile, blocksOf({300, 500}));
    EXPECT_ASSERTION(begin(800, 799), "fFilePos == endpos");
    EXPECT_ASSERTION(begin(801, 801), "endpos inside the last block");
    EXPECT_ASSERTION(begin(299, 299), "endpos inside the last block");
    // Nor is it a breach if another process has appended since the index was read.
    const auto elsewhere = testing::HasSubstr("fData->fpos == endpos");
    {
        const core::Reader stale(fFile, 0, kRow0);
        kAppends[0].run(fFile);
        EXPECT_THAT(failureOf([&] { core::resume(*stale, kRow0 + 800); }), elsewhere);
        // It is taken where it ends now.
        const Bytes before = rowsOf(fFile);
        core::resume(*stale, kRow0 + std::ssize(before));
        core::write(*stale, Bytes(10, 'x'));
        EXPECT_EQ(stale->Close(), 1);
        EXPECT_EQ(rowsOf(fFile), before + Bytes(10, 'x'));
    }
    {
        const core::Reader stale(fFile, 0, kRow0);
        makeFile(fFile, {});
        EXPECT_THAT(failureOf([&] { stale->setFileToAppend(kRow0 + 800, false); }), elsewhere);
    }
    makeFile(fFile, {Bytes(kBlock, 1)});
    EXPECT_THAT(failureOf([&] { begin(5, 5); }), elsewhere);
}

}  // namespace recovery
