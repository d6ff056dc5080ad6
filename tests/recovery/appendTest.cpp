// Resuming finished files: what the file holds afterwards, and that an append which fails leaves what it found.
#include "recoveryTest.h"

#include <cerrno>

namespace recovery {

using Call = platform::faults::Call;
using Verdict = platform::faults::Verdict;

class AppendTest : public support::TempDir {
protected:
    const std::string fFile = path("file");

    std::int64_t sizeOfFile() const { return static_cast<std::int64_t>(std::filesystem::file_size(fFile)); }

    void swapFile() const {
        Bytes file = support::readBytes(fFile);
        Layout layout(file);
        const std::int64_t indexPos = layout.heading._indexPos;
        orva::swapHeading(layout.heading);
        orva::swapRecord(layout.first);
        for (filePosRecord& record : layout.records) orva::swapRecord(record);
        support::overwriteBytes(fFile, kRow0, core::bytesOf(layout.heading));
        Bytes index = core::bytesOf(layout.first);
        for (const filePosRecord& record : layout.records) index = index + core::bytesOf(record);
        support::overwriteBytes(fFile, static_cast<std::uint64_t>(indexPos), index);
    }
};

constexpr std::size_t kFull = kBlock;

// Where the new index stands: behind the last block if one was written, else where the last transfer ended.
enum IndexPlace { BehindBlocks, BehindOldIndex, BehindOldBlock };

struct AppendCase {
    Append append;
    std::vector<std::int32_t> sizes;  // of the blocks afterwards
    IndexPlace indexPlace;
};

const AppendCase kAppends[] = {
    {{"NothingToShortBlock", {300, 500}, 0, {}}, {300, 500}, BehindBlocks},
    {{"RowsJoinShortBlock", {300, 500}, 0, {200}}, {300, 700}, BehindBlocks},
    {{"ShortBlocksFollow", {300, 500}, 0, {200, 90, 1}}, {300, 700, 90, 1}, BehindBlocks},
    {{"RowsFillShortBlock", {300}, 0, {kFull}}, {kBlock, 300}, BehindBlocks},
    {{"CutInsideLastBlock", {300, 500}, 450, {}}, {300, 50}, BehindBlocks},
    {{"CutThenAdded", {300, 500}, 499, {70}}, {300, 71}, BehindBlocks},
    {{"CutToBlockStart", {300, 500}, 500, {}}, {300}, BehindOldBlock},
    {{"CutToNothing", {300}, 300, {}}, {}, BehindOldBlock},
    {{"CutToNothingThenAdded", {300}, 300, {40}}, {40}, BehindBlocks},
    {{"NothingToNothing", {}, 0, {}}, {}, BehindOldIndex},
    {{"FirstRows", {}, 0, {100}}, {100}, BehindBlocks},
    {{"NothingToFullBlock", {10, kFull}, 0, {}}, {10, kBlock}, BehindOldIndex},
    {{"RowsBehindFullBlock", {10, 20, 30, kFull}, 0, {1}}, {10, 20, 30, kBlock, 1}, BehindBlocks},
};

TEST_F(AppendTest, RowsBlocksAndIndexAfterwards) {
    for (const AppendCase& row : kAppends) {
        for (const int variant : {0, 1, 2, 3}) {
            Append append = row.append;
            append.safe = (variant & 1) != 0;
            const bool swap = (variant & 2) != 0;
            SCOPED_TRACE(append.name + std::string(append.safe ? ", safe" : "") + (swap ? ", swapped" : ""));
            append.makeOld(fFile);
            const Layout before(support::readBytes(fFile));
            if (swap) swapFile();
            append.run(fFile, swap);

            const Layout after(support::readBytes(fFile));
            EXPECT_EQ(after.sizes(), row.sizes);
            std::int64_t place = kRow0 + kHeadingSize;
            for (const filePosRecord& record : after.records) {
                EXPECT_EQ(record.translatePos, place);
                place += record.translateSize;
            }
            const std::int64_t expected = row.indexPlace == BehindBlocks ? place
                                          : row.indexPlace == BehindOldIndex
                                              ? before.heading._indexPos + before.heading._size
                                              : before.heading._indexPos;
            EXPECT_EQ(after.heading._indexPos, expected);
            EXPECT_TRUE(support::sameBytes(rowsOf(fFile), append.newRows()));
            EXPECT_TRUE(support::sameBytes(support::slice(support::readBytes(fFile), 0, kRow0), Bytes(kRow0, 0xD5)));
            EXPECT_FALSE(hasSideFile(fFile));
            // What one append leaves, gaps and stale bytes included, the next one takes.
            Append again{"again", {}, 0, {33}, append.safe};
            const core::Reader stream(fFile, 0, kRow0);
            const auto end = kRow0 + static_cast<std::int64_t>(append.newRows().size());
            stream->setSafeAppend(append.safe);
            stream->Seek(end, ORVA_StrBaseIO::SeekFromStart);
            stream->setFileToAppend(end, false);
            again.write(*stream.operator->());
            stream->Close();
            EXPECT_TRUE(support::sameBytes(rowsOf(fFile), append.newRows() + again.newRows()));
        }
    }
}

// How the n-th call of an append fails.
enum Fault { Once, FromThenOn, CutShort };

class AppendFault : public platform::faults::Hook {
public:
    AppendFault(Fault fault, int nth) : fFault(fault), fNth(nth) {}
    bool met() const { return fCount >= fNth; }
    Call call() const { return fCall; }

    Verdict before(Call call, int, std::uint64_t size) override {
        ++fCount;
        if (fCount == fNth) fCall = call;
        const bool writes = call == Call::Write || call == Call::Truncate || call == Call::Sync;
        switch (fFault) {
            case Once:
                return fCount == fNth ? Verdict::fail(ENOSPC) : Verdict::goOn();
            case FromThenOn:  // a disk that stays full
                return fCount >= fNth && writes ? Verdict::fail(ENOSPC) : Verdict::goOn();
            case CutShort:
                if (fCount == fNth && call == Call::Write) return Verdict::atMost(size / 2);
                return fCount == fNth + 1 && fCall == Call::Write ? Verdict::fail(ENOSPC) : Verdict::goOn();
        }
        return Verdict::goOn();
    }

private:
    const Fault fFault;
    const int fNth;
    int fCount = 0;
    Call fCall = Call::Open;
};

const Append kFailing[] = {
    {"ShortLastBlock", {300, 500}, 0, {200, 90}},
    {"CutLastBlock", {300, 500}, 490, {200, 90}},
    {"FullLastBlock", {300, kFull}, 0, {200, 90}},
    {"NoBlocks", {}, 0, {200, 90}},
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class AppendFailureTest : public AppendTest, public testing::WithParamInterface<Append> {};

TEST_P(AppendFailureTest, AtAnyCallLeavesTheRowsOrSaysWhatGetsThem) {
    int failures = 0;
    int undone = 0;
    Append append = GetParam();
    append.makeOld(fFile);
    const Bytes old = support::readBytes(fFile);
    for (const int variant : {0, 1, 2, 3, 4, 5}) {
        const Fault fault = static_cast<Fault>(variant / 2);
        append.safe = variant % 2 != 0;
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE(std::string(append.name) + (append.safe ? ", safe, fault " : ", fault ") +
                         std::to_string(fault) + " at call " + std::to_string(nth));
            support::writeBytes(fFile, old);
            AppendFault hook(fault, nth);
            std::string failure;
            {
                const core::Reader stream(fFile, 0, kRow0);
                const platform::faults::Installed installed(hook);
                try {
                    append.begin(*stream.operator->());
                    append.write(*stream.operator->());
                    stream->Close();
                } catch (const SystemFileException& error) {
                    failure = error.fExpression;
                } catch (const std::exception& error) {
                    failure = error.what();
                }
            }
            if (!hook.met()) break;
            ++failures;
            const bool notUndone = contains(failure, "could not be put back");
            const bool complete =
                failure.empty() || contains(failure, "the append itself is complete") || contains(failure, "\"rb\")");
            if (notUndone && append.safe) {
                EXPECT_TRUE(contains(failure, "--roll-back")) << failure;
                EXPECT_EQ(orva::rollBack(fFile), orva::rollBackResult::rolledBack);
                EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), old)) << failure;
            } else if (notUndone) {
                EXPECT_NE(fault, Once);
                const orva::recoverReport report = orva::recover(fFile, path("out"), {kPart});
                const Bytes rows = rowsOf(path("out"));
                const Bytes kept = support::slice(append.oldRows(), 0, append.oldRows().size() - append.cut);
                EXPECT_TRUE(support::sameBytes(support::slice(rows, 0, kept.size()), kept)) << failure;
                EXPECT_EQ(report.lost.size(), 0U) << failure;
            } else if (complete) {
                EXPECT_TRUE(support::sameBytes(rowsOf(fFile), append.newRows())) << failure;
            } else {
                undone += contains(failure, "holds the rows that it held before") ? 1 : 0;
                EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), old)) << failure;
            }
            // A file of the rows before is left with no side file, or with a word about it.
            if (hasSideFile(fFile)) {
                EXPECT_TRUE(contains(failure, "--roll-back") || contains(failure, "remove this file")) << failure;
                std::filesystem::remove(orva::sideFileName(fFile));
            }
        }
    }
    RecordProperty("failures", failures);
    EXPECT_GT(failures, 200);
    EXPECT_GT(undone, 15);
}

INSTANTIATE_TEST_SUITE_P(, AppendFailureTest, testing::ValuesIn(kFailing), nameOf);

TEST_F(AppendTest, AbandonPutsTheOldTailBack) {
    for (Append append : kFailing) {
        for (const bool safe : {false, true}) {
            SCOPED_TRACE(append.name);
            append.safe = safe;
            append.makeOld(fFile);
            const Bytes old = support::readBytes(fFile);
            const core::Reader stream(fFile, 0, kRow0);
            append.begin(*stream.operator->());
            append.write(*stream.operator->());
            EXPECT_FALSE(support::readBytes(fFile) == old);
            stream->abandon();
            EXPECT_EQ(stream->Close(), 0);
            EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), old));
            EXPECT_FALSE(hasSideFile(fFile));
        }
    }
}

TEST_F(AppendTest, DestructionFinishesIt) {
    const Append& append = kFailing[0];
    append.makeOld(fFile);
    {
        const core::Reader stream(fFile, 0, kRow0);
        append.begin(*stream.operator->());
        append.write(*stream.operator->());
    }
    EXPECT_TRUE(support::sameBytes(rowsOf(fFile), append.newRows()));
}

TEST_F(AppendTest, WhileOneAppendsNobodyElseDoes) {
    Append append = kFailing[0];
    append.safe = true;
    append.makeOld(fFile);
    const core::Reader first(fFile, 0, kRow0);
    const core::Reader second(fFile, 0, kRow0);
    append.begin(*first.operator->());
    append.write(*first.operator->());
    EXPECT_EQ(failureOf([&] { append.begin(*second.operator->()); }),
              "SystemFileException 1201 fData->pRealFile.Open(GetNameStr(),\"r+b\")");
    EXPECT_EQ(failureOf([&] { orva::rollBack(fFile); }), core::fileError(1002, EWOULDBLOCK, fFile));
    EXPECT_TRUE(hasSideFile(fFile));
    first->Close();
    EXPECT_TRUE(support::sameBytes(rowsOf(fFile), append.newRows()));
}

TEST_F(AppendTest, ASideFileHasToBeRolledBackFirst) {
    const std::string side = orva::sideFileName(fFile);
    const auto refusal = [&](Append append) {
        const core::Reader stream(fFile, 0, kRow0);
        return failureOf([&] { append.begin(*stream.operator->()); });
    };
    for (Append append : {kFailing[0], kFailing[2]}) {
        append.makeOld(fFile);
        support::writeBytes(side, {1, 2, 3});
        EXPECT_EQ(refusal(append), core::fileError(1002, EEXIST, side));
        append.safe = true;
        EXPECT_EQ(refusal(append), core::fileError(1002, EEXIST, side));
        EXPECT_EQ(orva::rollBack(fFile), orva::rollBackResult::sideFileStale);
        EXPECT_EQ(refusal(append), "");
        EXPECT_EQ(orva::rollBack(fFile), orva::rollBackResult::nothingToDo);
    }
    // One that cannot be opened is there all the same.
    std::filesystem::create_directory(side);
    EXPECT_EQ(refusal(kFailing[0]), core::fileError(1002, EEXIST, side));
}

// Rows of a former life must not come back over the rows of a new one.
TEST_F(AppendTest, ANewPartDropsTheSideFileOfTheOldOne) {
    const Append& append = kFailing[0];
    append.makeOld(fFile);
    support::writeBytes(orva::sideFileName(fFile), {1, 2, 3});
    append.makeOld(fFile);
    EXPECT_FALSE(hasSideFile(fFile));
}

TEST_F(AppendTest, WhatTheFileDoesNotAllowIsRefusedUntouched) {
    struct Refusal {
        const char* name;
        void (*damage)(Layout&);
        const char* text;
    };
    const Refusal refusals[] = {
        {"GapBetweenBlocks", [](Layout& l) { l.records[1].translatePos += 1; }, "follow each other without gaps"},
        {"GapInPositions", [](Layout& l) { l.records[1].orginalPos += 1; }, "follow each other without gaps"},
        {"BlockTooLong", [](Layout& l) { l.records[0].translateSize = kBlock + 1; }, "follow each other without gaps"},
        {"IndexInsideBlocks", [](Layout& l) { l.heading._indexPos -= 1; }, "firstRecord.orginalPos == -100"},
        {"LastBlockShorterThanSaid", [](Layout& l) { l.records[1].orginalSize += 1; }, "outCount == bInfo.orginalSize"},
        {"LastBlockLongerThanSaid", [](Layout& l) { l.records[1].orginalSize -= 1; }, "fData->fpos == endpos"},
    };
    const Append append = kFailing[0];
    for (const Refusal& row : refusals) {
        SCOPED_TRACE(row.name);
        append.makeOld(fFile);
        const core::Reader stream(fFile, 0, kRow0);
        Layout layout(support::readBytes(fFile));
        const auto indexPos = static_cast<std::uint64_t>(layout.heading._indexPos);
        row.damage(layout);
        support::overwriteBytes(fFile, kRow0, core::bytesOf(layout.heading));
        support::overwriteBytes(fFile, indexPos + 24,
                                core::bytesOf(layout.records[0]) + core::bytesOf(layout.records[1]));
        const Bytes before = support::readBytes(fFile);
        const std::string failure = failureOf([&] { append.begin(*stream.operator->()); });
        EXPECT_THAT(failure, testing::StartsWith("DamagedFileError"));
        EXPECT_THAT(failure, testing::HasSubstr(row.text));
        EXPECT_EQ(failureOf([&] { stream->Read(&layout, 1); }), failure);
        EXPECT_EQ(stream->Close(), 1);
        EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), before));
    }
}

TEST_F(AppendTest, TheEndIsTheCallersDutyInAShortBlockAndTheFilesBehindAFullOne) {
    const auto begin = [&](std::int64_t at, std::int64_t endpos) {
        const core::Reader stream(fFile, 0, kRow0);
        stream->Seek(at, ORVA_StrBaseIO::SeekFromStart);
        stream->setFileToAppend(endpos, false);
    };
    kFailing[0].makeOld(fFile);
    EXPECT_ASSERTION(begin(kRow0 + 800, kRow0 + 799), "fFilePos == endpos");
    EXPECT_ASSERTION(begin(kRow0 + 801, kRow0 + 801), "endpos");
    EXPECT_ASSERTION(begin(kRow0 + 299, kRow0 + 299), "endpos");
    core::makeFile(fFile, {Bytes(kFull, 1)});
    EXPECT_THAT(failureOf([&] { begin(kRow0 + 5, kRow0 + 5); }), testing::HasSubstr("fData->fpos == endpos"));
}

}  // namespace recovery
