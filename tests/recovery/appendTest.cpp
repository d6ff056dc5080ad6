// Resuming finished files: what the file holds afterwards, and that an append which fails leaves what it found.
#include "recoveryTest.h"

#include <atomic>
#include <cerrno>

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
            // The same file on every road.
            for (append.road = 1; append.road < 4; ++append.road) {
                lay({{fFile, old}});
                append.run(fFile, swap);
                EXPECT_EQ(present(), (Files{{fFile, appended}})) << append.road;
            }
            // What one append leaves, gaps and stale bytes included, the next one takes; a destructor finishes it.
            const Append again{"", {append.newRows().size()}, 0, {33}};
            again.write(core::Reader(fFile));
            EXPECT_TRUE(sameBytes(rowsOf(fFile), append.newRows() + again.addedRows()));
        }
    }
}

class AppendFailureTest : public AppendTest {
protected:
    // Whether the append had an n-th call, which failed, a write half-way. `lasting`: no change works from then on.
    bool failAt(std::uint64_t nth, bool lasting, const Append& append, std::string& text) const {
        std::atomic<bool> torn{false};
        core::CallHook hook([&](Call call, std::uint64_t number) {
            const bool changes = call == Call::Write || call == Call::Truncate || call == Call::Sync;
            if (lasting) return number >= nth && changes ? Verdict::fail(ENOSPC) : Verdict::goOn();
            if (number == nth && call == Call::Write) return torn = true, Verdict::atMost(kTorn);
            return number == nth || torn.exchange(false) ? Verdict::fail(ENOSPC) : Verdict::goOn();
        });
        const core::Reader stream(fFile);
        const platform::faults::Installed installed(hook);
        try {
            text.clear();
            append.write(stream);
            stream->Close();
        } catch (const SystemFileException& error) {
            text = error.fExpression;
        } catch (const std::exception& error) {
            text = error.what();
        }
        return hook.count() >= nth;
    }
};

INSTANTIATE_TEST_SUITE_P(, AppendFailureTest, testing::Range(0, kWriting));

TEST_P(AppendFailureTest, AtAnyCallLeavesTheRowsOrSaysWhatGetsThem) {
    Append append = kAppends[GetParam()];
    makeFile(fFile, blocksOf(append.old));
    const Files old = present();
    std::string text;
    const auto says = [&](const char* part) { return text.find(part) != std::string::npos; };
    int failures = 0;
    int undone = 0;
    for (append.road = 0; append.road < 4; ++append.road) {
        lay(old);
        EXPECT_TRUE(interrupted(append) != old || append.road >= 2);
        EXPECT_EQ(present(), old) << "abandoned";
        for (const bool lasting : {false, true}) {
            for (std::uint64_t nth = 1; lay(old), failAt(nth, lasting, append, text); ++nth) {
                SCOPED_TRACE(testing::Message() << append.road << lasting << " call " << nth << ": " << text);
                ++failures;
                undone += says("holds the rows that it held before") ? 1 : 0;
                if (text.empty() || says("the append itself is complete") || says("\"rb\")")) {
                    EXPECT_TRUE(sameBytes(rowsOf(fFile), append.newRows()));
                    EXPECT_TRUE(!std::filesystem::exists(fSide) || says("remove this file"));
                } else if (says("'orva recover' gets them")) {
                    EXPECT_TRUE((append.road & 1) == 0 && orva::recover(fFile, fOut, {kPart}).lost.empty());
                    const Bytes kept = append.keptRows();
                    EXPECT_TRUE(sameBytes(support::slice(rowsOf(fOut), 0, kept.size()), kept));
                } else {
                    if (says("--roll-back")) orva::rollBack(fFile);
                    EXPECT_EQ(present(), old);
                }
            }
        }
    }
    RecordProperty("failures", failures);
    EXPECT_GT(failures, 200);
    EXPECT_GT(undone, 15);
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
        support::writeBytes(fSide, {1, 2, 3});
        EXPECT_EQ(failureOf([&] { second->setFileToAppend(kRow0, false); }),
                  "SystemFileException 1201 fData->pRealFile.Open(GetNameStr(),\"r+b\")");
        EXPECT_EQ(failureOf([&] { orva::rollBack(fFile); }), core::fileError(1002, EWOULDBLOCK, fFile));
    }
    EXPECT_EQ(orva::rollBack(fFile), orva::rollBackResult::sideFileStale);
    EXPECT_EQ(orva::rollBack(fFile), orva::rollBackResult::nothingToDo);
    EXPECT_TRUE(sameBytes(rowsOf(fFile), append.newRows()));
    for (append.road = 0; append.road < 2; ++append.road) {
        // Rows of a former life must not come back over those of a new one.
        support::writeBytes(fSide, {1, 2, 3});
        makeFile(fFile, blocksOf(append.old));
        EXPECT_FALSE(std::filesystem::exists(fSide));
        // One that cannot be opened is there all the same.
        std::filesystem::create_directory(fSide);
        EXPECT_EQ(refusal(), core::fileError(1002, EEXIST, fSide));
        std::filesystem::remove(fSide);
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
    makeFile(fFile, blocksOf({kBlock}));
    EXPECT_THAT(failureOf([&] { begin(5, 5); }), testing::HasSubstr("fData->fpos == endpos"));
}

}  // namespace recovery
