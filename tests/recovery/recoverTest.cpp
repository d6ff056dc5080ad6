// What comes back from damaged and unfinished files: which rows, where, and what the report says of the others.
#include "recoveryTest.h"

namespace recovery {

class RecoverTest : public support::TempDir {
protected:
    RecoverTest() {
        core::makeFile(fFile, fBlocks);
        fBytes = support::readBytes(fFile);
        fLayout = Layout(fBytes);
    }

    // Recovers `bytes`. "begin-end why" of what is lost; estimates begin with a "~".
    std::string recover(const Bytes& bytes, const orva::recoverOptions& options = {kPart}) {
        support::writeBytes(fFile, bytes);
        fReport = orva::recover(fFile, path("out"), options);
        EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), bytes));
        fRows = rowsOf(path("out"));
        EXPECT_EQ(Layout(support::readBytes(path("out"))).heading._caseStartPos, fReport.part.row0Pos);
        std::string text;
        for (const orva::lostRange& lost : fReport.lost) {
            text += (lost.estimated ? "~" : "") + std::to_string(lost.begin - kRow0) + "-" +
                    std::to_string(lost.end - kRow0) + " " + lost.why + ";";
        }
        return text;
    }

    Bytes without(std::size_t block) const {
        Bytes rows;
        for (std::size_t i = 0; i < fBlocks.size(); ++i)
            rows = rows + (i == block ? Bytes(fBlocks[i].size()) : fBlocks[i]);
        return rows;
    }
    Bytes damaged(std::size_t block) const {
        Bytes bytes = fBytes;
        const filePosRecord& record = fLayout.records[block];
        bytes[static_cast<std::size_t>(record.translatePos + record.translateSize / 2)] ^= 0x10;
        return bytes;
    }
    // Without heading and index.
    Bytes unfinished(Bytes bytes) const {
        std::fill_n(bytes.begin() + kRow0, kHeadingSize, static_cast<unsigned char>(0));
        bytes.resize(static_cast<std::size_t>(fLayout.heading._indexPos));
        return bytes;
    }

    const std::string fFile = path("file");
    const std::vector<Bytes> fBlocks = Append{"", {300, 500, 400, 200}, 0, {}}.oldBlocks();
    const Bytes fAll = core::joined(fBlocks);
    Bytes fBytes;
    Layout fLayout{core::bytesOf(compressionHeading{0, 24, 24}) + core::bytesOf(filePosRecord{}), 0};
    orva::recoverReport fReport;
    Bytes fRows;
};

TEST_F(RecoverTest, AnyByteOfHeadingOrIndexMayBeWrong) {
    const auto flipped = [&](std::int64_t from, std::int64_t size) {
        for (std::int64_t at = from; at < from + size; ++at) {
            for (const unsigned bit : {static_cast<unsigned>(at * 3 % 7), 7U}) {
                SCOPED_TRACE("bit " + std::to_string(bit) + " of byte " + std::to_string(at));
                Bytes bytes = fBytes;
                bytes[static_cast<std::size_t>(at)] ^= static_cast<unsigned char>(1U << bit);
                EXPECT_EQ(recover(bytes), "");
                EXPECT_TRUE(support::sameBytes(fRows, fAll));
                EXPECT_EQ(fReport.blocks, fBlocks.size());
                EXPECT_TRUE(fReport.hadIndex || !fReport.hadHeading || at > kRow0 + 24);
            }
        }
    };
    flipped(kRow0, kHeadingSize);
    flipped(fLayout.heading._indexPos, fLayout.heading._size);
}

TEST_F(RecoverTest, ADamagedBlockCostsItsRowsAlone) {
    for (std::size_t block = 0; block < fBlocks.size(); ++block) {
        const filePosRecord& record = fLayout.records[block];
        const std::int64_t begin = record.orginalPos - kRow0;
        const std::string exact =
            std::to_string(begin) + "-" + std::to_string(begin + record.orginalSize) + " its block is damaged;";
        int harmless = 0;
        for (std::int64_t at = record.translatePos; at < record.translatePos + record.translateSize; ++at) {
            SCOPED_TRACE("byte " + std::to_string(at) + " of block " + std::to_string(block));
            Bytes bytes = fBytes;
            bytes[static_cast<std::size_t>(at)] ^= static_cast<unsigned char>(1 << (at * 5 % 8));
            const std::string lost = recover(bytes);
            // Some bits mean nothing, such as the length of a code that the block does not use.
            harmless += lost.empty() ? 1 : 0;
            EXPECT_TRUE(support::sameBytes(fRows, lost.empty() ? fAll : without(block)));
            if (lost.empty()) continue;
            EXPECT_EQ(lost, exact);
            EXPECT_EQ(fReport.rows + record.orginalSize, static_cast<std::int64_t>(fAll.size()));
        }
        EXPECT_LT(harmless * 10, record.translateSize);
        // The index tells as much when no heading points to it.
        Bytes headless = damaged(block);
        headless[kRow0] ^= 1;
        EXPECT_EQ(recover(headless), exact);
        EXPECT_TRUE(support::sameBytes(fRows, without(block)));
        // Closing the gap moves what comes behind it.
        EXPECT_EQ(recover(damaged(block), {kPart, false, true}), exact);
        EXPECT_EQ(fRows.size(), fAll.size() - fBlocks[block].size());
    }
}

// Without an index only the next block tells where a damaged one ends, and nothing how many rows it held.
TEST_F(RecoverTest, WithoutAnIndexALostBlockIsAGuess) {
    for (const std::size_t block : {std::size_t{0}, std::size_t{1}, std::size_t{2}}) {
        SCOPED_TRACE(block);
        const std::string lost = recover(unfinished(damaged(block)));
        EXPECT_THAT(lost, testing::StartsWith("~" + std::to_string(fLayout.records[block].orginalPos - kRow0) + "-"));
        EXPECT_THAT(lost, testing::EndsWith("its block is damaged, and no index tells its size;"));
        EXPECT_EQ(fReport.blocks, fBlocks.size() - 1);
        recover(unfinished(damaged(block)), {kPart, false, true});
        Bytes rest;
        for (std::size_t i = 0; i < fBlocks.size(); ++i) rest = i == block ? rest : rest + fBlocks[i];
        EXPECT_TRUE(support::sameBytes(fRows, rest));
    }
    EXPECT_EQ(recover(unfinished(damaged(3))), "");
    EXPECT_EQ(fReport.blocks, 3U);
}

TEST_F(RecoverTest, EveryCompleteBlockOfAFileCutShort) {
    for (std::size_t size = kRow0 + 1; size < fBytes.size(); ++size) {
        SCOPED_TRACE("cut to " + std::to_string(size) + " bytes");
        std::size_t whole = 0;
        Bytes rows;
        for (const filePosRecord& record : fLayout.records) {
            if (record.translatePos + record.translateSize > static_cast<std::int64_t>(size)) break;
            rows = rows + fBlocks[whole++];
        }
        const Bytes bytes = support::slice(fBytes, 0, size);
        if (whole == 0) {
            EXPECT_THAT(failureOf([&] { recover(bytes); }), testing::HasSubstr("no block of compressed rows"));
            continue;
        }
        const std::string lost = recover(bytes);
        EXPECT_TRUE(support::sameBytes(fRows, rows));
        EXPECT_EQ(fReport.blocks, whole);
        // The heading knows how many blocks there were.
        EXPECT_EQ(lost.empty(), whole == fBlocks.size()) << lost;
    }
}

TEST_F(RecoverTest, ThePlaceOfThePartIsFoundWithoutAHeading) {
    EXPECT_EQ(recover(unfinished(fBytes), {}), "");
    EXPECT_EQ(fReport.part.row0Pos, kRow0);
    EXPECT_TRUE(support::sameBytes(fRows, fAll));
    EXPECT_FALSE(fReport.hadHeading);
    EXPECT_EQ(fReport.committedRows, 0);
    const std::string nothing = failureOf([&] { recover(Bytes(5000, 0x78), {}); });
    EXPECT_THAT(nothing, testing::HasSubstr("no block of compressed rows"));
    EXPECT_THAT(failureOf([&] { recover(unfinished(fBytes), {kPart, true}); }), testing::HasSubstr("ever finished"));
}

TEST_F(RecoverTest, AFileOfTheOtherByteOrder) {
    compressionHeading heading = fLayout.heading;
    orva::swapHeading(heading);
    Bytes index;
    std::vector<filePosRecord> records = fLayout.records;
    records.insert(records.begin(), fLayout.first);
    for (filePosRecord& record : records) {
        orva::swapRecord(record);
        index = index + core::bytesOf(record);
    }
    Bytes bytes = damaged(1);
    std::copy(index.begin(), index.end(), bytes.begin() + fLayout.heading._indexPos);
    const std::string lost = "300-800 its block is damaged;";
    const Bytes order = core::bytesOf(heading);
    std::copy(order.begin(), order.end(), bytes.begin() + kRow0);
    EXPECT_EQ(recover(bytes, {}), lost);
    EXPECT_TRUE(fReport.part.swapped);
    std::fill_n(bytes.begin() + kRow0, 24, static_cast<unsigned char>(0));
    EXPECT_EQ(recover(bytes), lost);
    EXPECT_TRUE(support::sameBytes(fRows, without(1)));
}

// The old heading of an append that ended early: what stands behind the old index was never finished.
TEST_F(RecoverTest, AnInterruptedAppendIsToldApart) {
    struct Case {
        Append append;
        std::size_t committedBlocks;
        bool rewritten;
    };
    const Case cases[] = {
        {{"ShortLastBlock", {300, 500}, 0, {200, 90, 70}}, 2, true},
        {{"CutLastBlock", {300, 500}, 450, {20, 90, 70}}, 2, true},
        {{"FullLastBlock", {300, kBlock}, 0, {200, 90}}, 2, false},
        {{"NoBlocks", {}, 0, {200, 90}}, 0, false},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.append.name);
        row.append.makeOld(fFile);
        const Bytes oldHeading = support::slice(support::readBytes(fFile), kRow0, 24);
        row.append.run(fFile);
        Bytes bytes = support::readBytes(fFile);
        std::copy(oldHeading.begin(), oldHeading.end(), bytes.begin() + kRow0);
        std::int64_t committed = 0;
        const std::vector<std::int32_t> sizes = Layout(support::readBytes(fFile)).sizes();
        for (std::size_t i = 0; i < row.committedBlocks; ++i) committed += sizes[i];
        // With the new index in its place, torn, and not there yet.
        const std::size_t end = bytes.size();
        const std::size_t index = 24 * (sizes.size() + 1);
        for (const std::size_t size : {end, end - 10, end - index}) {
            bytes.resize(size);
            EXPECT_EQ(recover(bytes), "");
            EXPECT_TRUE(support::sameBytes(fRows, row.append.newRows()));
            EXPECT_EQ(fReport.committedRows, committed);
            EXPECT_EQ(fReport.lastRewritten, row.rewritten);
            EXPECT_EQ(recover(bytes, {kPart, true}), "");
            EXPECT_TRUE(support::sameBytes(
                fRows, support::slice(row.append.newRows(), 0, static_cast<std::size_t>(committed))));
        }
    }
}

// The old heading and index still stand, and so do old blocks. They must not pass for the new part's without a word.
TEST_F(RecoverTest, ANewPartOverAnOldOneIsNotCompletedFromIt) {
    for (const std::vector<std::size_t>& sizes : {std::vector<std::size_t>{350}, {350, 100}, {20}, {600, 5, 400}}) {
        support::writeBytes(fFile, fBytes);
        const Append fresh{"", {}, 0, sizes};
        {
            ORVA_FileStream source(fFile.c_str(), "r+b");
            zcmpsFilestr stream(source);
            stream.setRow0Pos(kRow0);
            stream.Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
            fresh.write(stream);
            stream.abandon();
        }
        const std::string lost = recover(support::readBytes(fFile));
        const Bytes rows = fresh.newRows();
        EXPECT_TRUE(support::sameBytes(support::slice(fRows, 0, rows.size()), rows));
        EXPECT_EQ(lost.empty(), fRows.size() == rows.size()) << lost;
    }
}

TEST_F(RecoverTest, NeverInPlace) {
    for (const std::string& output : {fFile, (fDirectory / "." / "file").string()}) {
        EXPECT_EQ(failureOf([&] { orva::recover(fFile, output, {}); }), core::fileError(1002, EINVAL, output));
    }
    std::filesystem::create_hard_link(fFile, path("link"));
    EXPECT_EQ(failureOf([&] { orva::recover(fFile, path("link"), {}); }), core::fileError(1002, EINVAL, path("link")));
    EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), fBytes));
}

TEST_F(RecoverTest, ASideFileThatCannotBeTrustedChangesNothing) {
    Append append{"", {300, 500}, 0, {200}, true};
    append.makeOld(fFile);
    const Bytes old = support::readBytes(fFile);
    Bytes side;
    {
        const core::Reader stream(fFile, 0, kRow0);
        append.begin(*stream.operator->());
        append.write(*stream.operator->());
        side = support::readBytes(orva::sideFileName(fFile));
        fBytes = support::readBytes(fFile);
        stream->abandon();
    }
    const auto rollBack = [&](const Bytes& data, const Bytes& sideBytes) {
        support::writeBytes(fFile, data);
        support::writeBytes(orva::sideFileName(fFile), sideBytes);
        return failureOf([&] { orva::rollBack(fFile); });
    };
    // Any damage is noticed: over a file that an append has changed it is refused, and stays for a second look.
    for (std::size_t at = 0; at < side.size(); ++at) {
        SCOPED_TRACE(at);
        Bytes bytes = side;
        bytes[at] ^= static_cast<unsigned char>(1 << (at % 8));
        EXPECT_THAT(rollBack(fBytes, bytes), testing::StartsWith("DamagedFileError"));
        EXPECT_THAT(rollBack(fBytes, support::slice(side, 0, at)), testing::StartsWith("DamagedFileError"));
        EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), fBytes));
        EXPECT_TRUE(hasSideFile(fFile));
    }
    EXPECT_THAT(rollBack(fBytes, Bytes(1 << 20)), testing::HasSubstr("longer than"));
    Bytes other = fBytes;
    other[5] ^= 1;
    EXPECT_THAT(rollBack(other, side), testing::HasSubstr("does not belong to"));
    EXPECT_TRUE(hasSideFile(fFile));
    // Whole and its own: every byte is as it was.
    EXPECT_EQ(rollBack(fBytes, side), "");
    EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), old));
    EXPECT_FALSE(hasSideFile(fFile));
}

}  // namespace recovery
