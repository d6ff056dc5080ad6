// False, truncated and unfinished files, through every entry point; and how many of their rows come back.
#include "recoveryTest.h"

#include <sys/resource.h>

using namespace support;

using testing::HasSubstr;

constexpr const char* kWhole = "_size == 24 x (n + 1)";
constexpr const char* kCut = "ret == chInfo._size";
constexpr const char* kFollow = "blocks follow each other without gaps";
constexpr const char* kNext = "orginalPos + orginalSize == next orginalPos";
constexpr const char* kEnd = "0: Z_STREAM_END at the last byte";
constexpr const char* kBytes = "translateSize in 1..4190208";
constexpr const char* kInside = "translatePos inside the file";
constexpr const char* kOverlap = "translatePos + translateSize <= next translatePos";

// The report of the loss of each of the blocks of 30, 50 and 40 bytes.
const std::string kLost[]{"0-30 its block is damaged;", "30-80 its block is damaged;", "80-120 its block is damaged;"};

struct LieCase {
    const char* name;
    void (*change)(Layout&);
    int readable;            // verifiable blocks; 0 if the file cannot be opened
    const char* check;       // check that refuses to open the file, or else to append to it
    const char* block = "";  // check that refuses to read the block that is not verifiable
};

// Changes to the headings and indexes of a file with blocks of 30, 50 and 40 bytes.
const LieCase kLies[] = {
    {"Nothing", [](Layout&) {}, 3, ""},
    {"HeadingElsewhere", [](Layout& l) { l.heading._caseStartPos += 1; }, 0, "Analyze dictionary part error!"},
    {"IndexAtLeast", [](Layout& l) { l.heading._indexPos = INT64_MIN; }, 0, "_indexPos behind the heading"},
    {"IndexBehindFile", [](Layout& l) { l.heading._indexPos += 1; }, 0, kCut},
    {"IndexAtMost", [](Layout& l) { l.heading._indexPos = INT64_MAX; }, 0, kCut},
    {"IndexAtBlock", [](Layout& l) { l.heading._indexPos = kRow0 + 24; }, 0, "firstRecord.orginalPos == -100"},
    {"SizeLeast", [](Layout& l) { l.heading._size = INT64_MIN; }, 0, kWhole},
    {"SizeNotWholeRecords", [](Layout& l) { l.heading._size -= 1; }, 0, kWhole},
    {"SizeWithHighHalf", [](Layout& l) { l.heading._size += std::int64_t{3} << 32; }, 0, kCut},
    {"BlockSizeZero", [](Layout& l) { l.first.orginalSize = 0; }, 0, "firstRecord.orginalSize > 0"},
    {"OtherBlockSizeIsFine", [](Layout& l) { l.first.orginalSize = 1; }, 3, ""},
    {"CountTooLow", [](Layout& l) { l.first.translateSize = 2; }, 0, kWhole},
    {"CountThatWrapsAround", [](Layout& l) { l.first.translateSize = 178956970 + 3; }, 0, kWhole},
    {"CountNegative", [](Layout& l) { l.first.translateSize = -1; }, 0, "firstRecord.translateSize >= 0"},
    {"PlaceInAnotherAndBytesBehindFile",
     [](Layout& l) { --l.records[2].translatePos, l.records[2].translateSize = kBlock; }, 2, kFollow, kInside},
    {"NoBytes", [](Layout& l) { l.records[2].translateSize = 0; }, 2, kFollow, kBytes},
    {"RowsBeginElsewhere", [](Layout& l) { --l.records[0].orginalPos; }, 0, "record 0 at the row-0 position"},
    {"PositionsEqual", [](Layout& l) { l.records[2].orginalPos = l.records[1].orginalPos; }, 0, "orginalPos ascends"},
    {"PositionOverflows", [](Layout& l) { l.records[2].orginalPos = INT64_MAX; }, 0, "orginalSize >= 1"},
    {"RowsZero", [](Layout& l) { l.records[1].orginalSize = 0; }, 0, "orginalSize >= 1"},
    {"RowsTooMany", [](Layout& l) { l.records[2].orginalSize += 1; }, 2, "0: outCount == bInfo.orginalSize"},
    {"RowsTooFew", [](Layout& l) { l.records[2].orginalSize -= 1; }, 2, "Z_STREAM_END"},
    {"RowsAboveABlock", [](Layout& l) { l.records[1].orginalSize = kBlock + 1; }, 2, kFollow, "orginalSize in 1.."},
    {"RowsIntoTheNext", [](Layout& l) { l.records[1].orginalSize += 1; }, 2, kFollow, kNext},
    {"GapOfRows", [](Layout& l) { l.records[1].orginalPos += 1; }, 1, kFollow, kNext},
    {"BytesAboveABlock", [](Layout& l) { l.records[1].translateSize = kBlock + 1; }, 2, kFollow, kBytes},
    {"BytesTooMany", [](Layout& l) { l.records[2].translateSize += 1; }, 2, "_indexPos behind the last block", kEnd},
    {"BytesTooFew", [](Layout& l) { l.records[2].translateSize -= 1; }, 2, kEnd, kEnd},
    {"PlaceMost", [](Layout& l) { l.records[1].translatePos = INT64_MAX; }, 2, kFollow, kInside},
    {"BytesIntoTheNext", [](Layout& l) { l.records[1].translateSize += 1; }, 2, kFollow, kOverlap},
    {"PlaceNegative", [](Layout& l) { l.records[1].translatePos = -1; }, 2, kFollow, kInside},
    {"PlaceOfAnother", [](Layout& l) { l.records[1].translatePos = kRow0 + 24; }, 2, kFollow, kOverlap},
};

struct DamageTest : FileTest {
    explicit DamageTest(const std::vector<std::size_t>& sizes = {30, 50, 40}) : fBlocks(blocksOf(sizes)) {}

    // Runs `run` on the file: it must end well or as damage of that file, and leave the file as it was.
    std::string enter(const Bytes& file, const std::function<void()>& run) const {
        lay({{fFile, file}});
        const std::string failure = failureOf(run);
        EXPECT_THAT(failure, testing::AnyOf("", testing::ContainsRegex("^DamagedFileError .*" + fFile)));
        EXPECT_TRUE(sameBytes(bytes(), file)) << failure;
        return failure;
    }

    void expectRecovered(const Bytes& file, const std::string& lost, const Bytes& rows,
                         const orva::recoverOptions& options = {kPart}) {
        EXPECT_THAT(recover(file, options), testing::MatchesRegex(lost));
        EXPECT_TRUE(sameBytes(fRows, rows));
    }
    // Recovers, and returns "begin-end why" for each lost range, "~" before estimates; or the failure.
    std::string recover(const Bytes& file, const orva::recoverOptions& options = {kPart}) {
        std::string text = enter(file, [&] {
            fReport = orva::recover(fFile, fOut, options);
            EXPECT_TRUE(secondReader(readBytes(fOut), kRow0, false).sound);
            fRows = rowsOf(fOut);
        });
        for (const orva::lostRange& lost : text.empty() ? fReport.lost : std::vector<orva::lostRange>()) {
            text += (lost.estimated ? "~" : "") + std::to_string(lost.begin - kRow0) + "-" +
                    std::to_string(lost.end - kRow0) + " " + lost.why + ";";
        }
        return text;
    }

    // Enters the file through every entry point: rows that come out are the file's own, in their places. Returns the
    // result of recover.
    std::string enterEverywhere(const Bytes& file) {
        for (const int threading : {0, 2}) {
            enter(file, [&] {
                const Reader reader(fFile, threading, kRow0);
                for (std::size_t at = 0; at < fAll.size() + 7; at += 7)
                    EXPECT_TRUE(sameBytes(reader.read(7), slice(fAll, at, 7)));
            });
        }
        fReadable = 0;
        fReads.clear();
        fOpens = enter(file, [&] {
            orva::finishedPart part(fFile, kPart);
            for (std::uint32_t i = 0; i < part.blockCount(); ++i) {
                const std::string failure = failureOf([&] { part.verifyBlock(i); });
                fReadable += failure.empty() ? 1 : 0;
                fReads += failure;
            }
        });
        // Once with a stream that knows the file as it is, and once with one that another process has surprised.
        for (const Bytes& known : {file, fBytes}) {
            fAppends = enter(file, [&] {
                writeBytes(fFile, known);
                const Reader stream(fFile, 0, kRow0);
                const std::int64_t end = kRow0 + orva::finishedPart(fFile, kPart).dataSize();
                writeBytes(fFile, file);
                resume(*stream, end);
                writeBlocks(*stream, fBlocks);
                stream->abandon();
            });
        }
        recover(file, {});
        return recover(file);
    }

    // The rows with these blocks left out, or as zeros.
    Bytes rowsWithout(unsigned damage, bool dropped = false) const {
        std::vector<Bytes> blocks = fBlocks;
        for (Bytes& block : blocks) {
            if ((damage >> (&block - blocks.data()) & 1U) != 0) block = Bytes(dropped ? 0 : block.size());
        }
        return joined(blocks);
    }
    Bytes damaged(unsigned damage) const {
        Bytes file = fBytes;
        for (const filePosRecord& record : fLayout.records) {
            if ((damage & 1U) != 0) file[static_cast<std::size_t>(record.translatePos) + 4] ^= 0x10;
            damage >>= 1U;
        }
        return file;
    }
    static Bytes indexOf(const Layout& lie) {
        Bytes index = bytesOf(lie.first);
        for (const filePosRecord& record : lie.records) index = std::move(index) + bytesOf(record);
        return index;
    }
    // The file with this heading and index.
    Bytes withLayout(Bytes file, const Layout& lie) const {
        return with(with(std::move(file), kRow0, bytesOf(lie.heading)), fLayout.heading._indexPos, indexOf(lie));
    }
    // The blocks of a finished file, as they stand in it.
    static Bytes storedBlocks(const Bytes& file) {
        return slice(file, kRow0 + kHeadingSize, Layout(file).heading._indexPos - kRow0 - kHeadingSize);
    }
    // The file without heading and index.
    Bytes unfinished(const Bytes& file) const {
        return with(slice(file, 0, fLayout.heading._indexPos), kRow0, Bytes(kHeadingSize));
    }

    const std::vector<Bytes> fBlocks;
    const Bytes fAll = joined(fBlocks), fBytes = finished(fBlocks);
    const Layout fLayout{fBytes};
    // The first block, as it stands in the file.
    const Bytes fFirst = slice(fBytes, kRow0 + kHeadingSize, fLayout.records[0].translateSize);
    Bytes fRows;
    orva::recoverReport fReport;
    std::string fOpens, fReads, fAppends;
    int fReadable = 0;
};

TEST_F(DamageTest, EveryLieIsToldByTheCheckThatItFails) {
    for (const LieCase& row : kLies) {
        SCOPED_TRACE(row.name);
        Layout lie = fLayout;
        row.change(lie);
        // Its blocks are whole, which shows without the index.
        EXPECT_EQ(enterEverywhere(withLayout(fBytes, lie)), "");
        EXPECT_TRUE(sameBytes(fRows, fAll));
        EXPECT_EQ(fReadable, row.readable);
        EXPECT_EQ(fOpens.empty(), row.readable != 0);
        EXPECT_THAT(row.readable == 0 ? fOpens : fAppends, HasSubstr(row.check));
        EXPECT_THAT(fAppends, testing::AnyOf("", HasSubstr(row.check), HasSubstr(kFollow)));
        EXPECT_THAT(fReads, HasSubstr(row.block));
        EXPECT_EQ(fAppends.empty(), row.readable == 3);
    }
}

TEST_F(DamageTest, AWrongByteCostsTheRowsOfItsBlockAtMost) {
    for (std::int64_t at = kRow0; at < std::ssize(fBytes); ++at) {
        const auto ends = [&](const filePosRecord& r) { return r.translatePos + r.translateSize <= at; };
        const auto block = std::ranges::count_if(fLayout.records, ends);
        const bool between = at < kRow0 + kHeadingSize || block == 3;  // in heading or index
        for (const unsigned bit : {static_cast<unsigned>(at * 3 % 7), 7U}) {
            SCOPED_TRACE("bit " + std::to_string(bit) + " of byte " + std::to_string(at));
            const auto wrong = static_cast<unsigned char>(fBytes[static_cast<std::size_t>(at)] ^ (1U << bit));
            const std::string text = enterEverywhere(with(fBytes, at, {wrong}));
            // Some bits have no effect, such as the length of a code that the block does not use.
            EXPECT_TRUE(text.empty() || (!between && text == kLost[block])) << text;
            EXPECT_TRUE(sameBytes(fRows, text.empty() ? fAll : rowsWithout(1U << block)));
        }
    }
}

TEST_F(DamageTest, AFileCutShortKeepsItsCompleteBlocks) {
    for (std::size_t size = kRow0 - 1; size < fBytes.size(); ++size) {
        SCOPED_TRACE("cut to " + std::to_string(size) + " bytes");
        const Bytes file = slice(fBytes, 0, size);
        fRows.clear();
        const std::string text = enterEverywhere(file);
        EXPECT_TRUE(sameBytes(fRows, standingRows(file, kRow0 + kHeadingSize)));
        // The heading states how many blocks there were.
        EXPECT_EQ(text.empty(), fRows == fAll) << text;
    }
    EXPECT_THAT(enterEverywhere({}), HasSubstr("no block of compressed rows"));
}

// With an index the gap is exact. Without one only the next block shows where it ends, and nothing how many rows it
// held.
TEST_F(DamageTest, ALostBlockWithAndWithoutHeadingAndIndex) {
    const std::string untold = " its block is damaged, and no index tells its size;";
    const std::string guesses[] = {"~0-50" + untold, "~30-70" + untold, ""};  // as long as the longest block found
    for (const unsigned i : {0U, 1U, 2U}) {
        SCOPED_TRACE("block " + std::to_string(i));
        const Bytes rows = rowsWithout(1U << i), dropped = rowsWithout(1U << i, true), file = damaged(1U << i);
        expectRecovered(file, kLost[i], dropped, kDropLost);
        expectRecovered(with(file, kRow0, {1}), kLost[i], rows);
        expectRecovered(unfinished(file), guesses[i], dropped, kDropLost);
        expectRecovered(swapped(file, kRow0), kLost[i], rows, {});
        EXPECT_TRUE(fReport.part.swapped);
        // Removing or inserting bytes moves everything after them, the index too.
        const auto at = static_cast<std::size_t>(fLayout.records[i].translatePos) + 5;
        for (const std::size_t from : {at - 2, at + 1, at + 7}) {
            expectRecovered(slice(fBytes, 0, at) + slice(fBytes, from, fBytes.size()), kLost[i], rows);
            EXPECT_FALSE(fReport.lastRewritten);
        }
    }
    const std::int64_t index = fLayout.heading._indexPos, second = fLayout.records[1].translatePos;
    const std::int64_t low = std::endian::native == std::endian::little ? 0 : 7;  // a number's lowest byte
    // The begin of the last record's rows and the end of all rows, as it states it, are one piece of evidence, not two.
    const auto begin = static_cast<unsigned char>((kRow0 + 88) % 256);
    expectRecovered(with(damaged(2), index + 3 * kRecordSize + low, {begin}), "~" + kLost[1], rowsWithout(2));
    // The last record's begin and the end that it claims are no evidence for a size that is too large.
    Layout lie = fLayout;
    lie.records[2].orginalSize = kBlock + 1;
    expectRecovered(withLayout(damaged(4), lie), "~80-[0-9]+ its block is damaged;", rowsWithout(4, true));
    // If nothing states a block's place, a stream in the dictionary part does not count as the block.
    const Bytes two = with(with(damaged(1), 0, fFirst), index + kRecordSize + 15, {0x40});
    expectRecovered(with(two, second + 4, Bytes(9)), kLost[0] + kLost[1], rowsWithout(3));
    // Nor does a heading that points to no index, if another one does.
    expectRecovered(with(fBytes, 100, bytesOf(compressionHeading{100, 500, kRecordSize})), "", fAll, {});
    EXPECT_EQ(fReport.part.row0Pos, kRow0);
    // Finds the block after the damage wherever it falls in a search window.
    const Bytes head = slice(unfinished(fBytes), 0, second);
    const Bytes tail = slice(fBytes, second, fLayout.records[1].translateSize);
    for (std::size_t gap = (1U << 18) - 24; gap < (1U << 18) + 2; ++gap)
        expectRecovered(head + Bytes(gap, 1) + tail, "~30-6[0-9]{5}" + untold, fBlocks[0] + fBlocks[1], kDropLost);
    // What a truncated file has lost lies at its end, and not in a gap before.
    expectRecovered(slice(damaged(1), 0, fLayout.records[2].translatePos),
                    guesses[0] + "~100-150 its blocks are gone, and no index tells their size;",
                    Bytes(50) + fBlocks[1]);
    // An index that stands in the place of the last block describes that block; without the others it is no part
    // without rows.
    const Bytes records = slice(fBytes, index, 4 * kRecordSize);
    expectRecovered(slice(fBytes, 0, fLayout.records[2].translatePos) + records, kLost[2], rowsWithout(4));
    EXPECT_THAT(recover(slice(fBytes, 0, kRow0 + kHeadingSize) + records), HasSubstr("no block of compressed rows"));
    // After the place of a lost index only blocks that continue the part count, and no index of blocks at other
    // places, which is another file's.
    expectRecovered(with(fBytes, index, {1}) + fFirst, "", fAll);
    Layout other = fLayout;
    for (filePosRecord& record : other.records) ++record.translatePos;
    other.records.push_back({kRow0 + 120, index, 5, 5});
    ++other.first.translateSize;
    expectRecovered(with(fBytes, index, {1}) + indexOf(other), "", fAll);
    expectRecovered(unfinished(fBytes), "", fAll, {});
    EXPECT_EQ(fReport.part.row0Pos, kRow0);
    EXPECT_FALSE(fReport.hadHeading);
    EXPECT_THAT(recover(unfinished(fBytes), {kPart, true}), HasSubstr("ever finished"));
    // Refuses to recover in place, by whatever name.
    std::filesystem::create_hard_link(fFile, path("link"));
    EXPECT_EQ(failureOf([&] { orva::recover(fFile, path("link"), {}); }), fileError(1002, EINVAL, path("link")));
}

// Streams that hold much and end wrong could be tried for ever. What is missing then lies after the last block found.
TEST_F(DamageTest, WhatLooksLikeBlocksIsTriedForAWhile) {
    const Bytes block = storedBlocks(finished({Bytes(kBlock)}));
    Bytes stream = block;
    stream.back() ^= 1;
    Bytes file = slice(fBytes, 0, fLayout.records[1].translatePos), mixed = unfinished(file);
    for (int i = 0; i < 80; ++i) file = std::move(file) + stream;
    for (int i = 0; i < 30; ++i) mixed = std::move(mixed) + block + stream + stream + stream;
    const compressionHeading heading{kRow0, std::ssize(file), 9 * kRecordSize};
    expectRecovered(with(file, kRow0, bytesOf(heading)), "~30-[0-9]+ the search was given up here: .*", fBlocks[0],
                    {kPart, true});
    recover(mixed, kDropLost);
    EXPECT_EQ(fReport.blocks, 31) << "each of them pays for more";
}

struct FourBlocks : DamageTest {
    FourBlocks() : DamageTest({30, 50, 40, 60}) {}
};

// Whatever two fields of heading and index claim, every whole block comes back; and in its place if the index is right
// about rows.
TEST_F(FourBlocks, NoLieOfTheIndexCostsAWholeBlock) {
    const auto expectWhole = [&](const Layout& lie, unsigned damage, const std::string& name) {
        SCOPED_TRACE(name + ", damaged " + std::to_string(damage));
        const Bytes file = withLayout(damaged(damage), lie);
        recover(file, kDropLost);
        EXPECT_TRUE(sameBytes(fRows, rowsWithout(damage, true)));
        const auto aboutRows = [](Layout index) {
            for (filePosRecord& record : index.records) record = {record.orginalPos, 0, record.orginalSize, 0};
            return bytesOf(index.heading) + indexOf(index);
        };
        if (aboutRows(lie) != aboutRows(fLayout)) return;
        recover(file);
        // A gap at the very end is not filled if its length is an estimate.
        const Bytes all = rowsWithout(damage);
        EXPECT_TRUE(sameBytes(fRows, (damage & 8U) != 0 ? slice(all, 0, fRows.size()) : all));
    };
    for (const unsigned damage : {2U, 5U, 6U, 13U}) {
        for (const LieCase& one : kLies) {
            for (unsigned other = 0; other < 8; ++other) {
                Layout lie = fLayout;
                one.change(lie);
                filePosRecord& record = lie.records[other % 4];
                record.translatePos ^= other < 4 ? 0x40 : 0;
                record.translateSize ^= other < 4 ? 0 : 0x20;
                expectWhole(lie, damage, one.name + (" and other " + std::to_string(other)));
            }
        }
        for (unsigned pair = 0; pair < 16; ++pair) {
            Layout lie = fLayout;
            lie.records[pair % 4].translatePos = lie.records[pair / 4].translatePos;
            expectWhole(lie, damage, "one names another's place, pair " + std::to_string(pair));
        }
    }
}

// Rows that do not shrink are stored in their block as they are. Rows that are files of this format are not taken for
// the enclosing file, and their blocks do not cost one of its own.
TEST_F(DamageTest, RowsThatAreFilesTakeNoBlocksPlace) {
    Layout layout;
    std::vector<Bytes> blocks;
    Bytes file(kRow0 + kHeadingSize);
    for (const unsigned char seed : Bytes{0, 3, 6, 9}) {
        const Bytes rows = finished(blocksOf({30, 50, 40}, seed));
        uLongf size = rows.size() + 100;
        Bytes stored(size);
        ASSERT_EQ(compress2(stored.data(), &size, rows.data(), rows.size(), Z_NO_COMPRESSION), Z_OK);
        layout.records.push_back({kRow0 + std::ssize(joined(blocks)), std::ssize(file),
                                  static_cast<std::int32_t>(rows.size()), static_cast<std::int32_t>(size)});
        file = std::move(file) + slice(stored, 0, size);
        blocks.push_back(rows);
    }
    layout.first = {kFirstRecordMark, 0, kBlock, 4};
    file = with(std::move(file) + indexOf(layout), layout.records[0].translatePos + 4, Bytes(3));
    recover(file, kDropLost);
    EXPECT_TRUE(sameBytes(fRows, blocks[1] + blocks[2] + blocks[3]));
}

// A file of a few pages in holes of gigabytes costs only what the pages hold: in memory, output and time.
TEST_F(DamageTest, AFileOfHolesCostsWhatItStores) {
    constexpr std::int64_t kFar = std::int64_t{5} << 30, kBlocks = 178'956'969;
    const auto costs = [&](std::int64_t blocks, const std::string& lost, const std::map<std::int64_t, Bytes>& pieces) {
        writeBytes(fFile, {});
        std::filesystem::resize_file(fFile, INT64_MAX);
        for (const auto& [place, bytes] : pieces) overwriteBytes(fFile, place, bytes);
        expectInChild([&] {
            rusage before{}, after{};
            getrusage(RUSAGE_SELF, &before);
            const orva::recoverReport report = orva::recover(fFile, fOut, {});
            getrusage(RUSAGE_SELF, &after);
            EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 100'000) << "KiB";
            struct stat made {};
            EXPECT_TRUE(stat(fOut.c_str(), &made) == 0 && made.st_blocks < 4'000);
            EXPECT_EQ(report.blocks, blocks);
            EXPECT_EQ(report.lost.empty() ? "" : report.lost[0].why, lost);
        });
    };
    const Bytes mark = bytesOf(filePosRecord{-100, 0, 1, static_cast<std::int32_t>(kBlocks)});
    const compressionHeading heading{kRow0, kFar, (kBlocks + 1) * kRecordSize};
    const Bytes file = with(unfinished(fBytes), kRow0, bytesOf(heading));
    costs(3, "its blocks are gone, and no index tells their size", {{0, file}, {kFar, mark}});
    costs(4, "its block is damaged, and no index tells its size", {{0, file}, {kFar, mark}, {kFar / 2, fFirst}});
    Layout lie = fLayout;
    lie.records[2].translatePos = INT64_MAX - 5;
    lie.records[2].translateSize = INT32_MAX;
    costs(2, "its block is damaged", {{0, unfinished(damaged(2))}, {kFar, indexOf(lie)}});
    // The dictionary part can be a hole as well.
    Layout moved = fLayout;
    for (std::int64_t* place : {&moved.heading._caseStartPos, &moved.heading._indexPos}) *place += kFar - kRow0;
    for (filePosRecord& record : moved.records) record.orginalPos += kFar - kRow0, record.translatePos += kFar - kRow0;
    costs(3, "", {{0, {1}}, {kFar, slice(withLayout(fBytes, moved), kRow0, fBytes.size())}});
}

// Each gap is searched from its own place, without a window of its own. An index whose records all point after each of
// many gaps, to nothing, does not cost a trial for each record and gap.
TEST_F(DamageTest, ManyGapsAreReadOnceAndManyRecordsEndInTime) {
    Bytes file = slice(unfinished(fBytes), 0, kRow0 + kHeadingSize);
    for (int i = 0; i < 20'000; ++i) file = std::move(file) + fFirst + Bytes{1};
    std::uint64_t bytesRead = 0;
    const CallHook reads([&](const Step& step) { bytesRead += step.call == Call::Read ? step.size : 0; });
    recover(file, kDropLost);
    EXPECT_EQ(fReport.blocks, 20'000);
    EXPECT_LT(bytesRead, 1'000'000'000);

    Layout lie;
    const std::int64_t end = std::ssize(file);
    lie.heading = {kRow0, end + 1'000'000, 100'001 * kRecordSize};
    lie.first = {kFirstRecordMark, 0, kBlock, 100'000};
    for (std::int64_t i = 0; i < 100'000; ++i) lie.records.push_back({kRow0 + i, end + i * 7, 1, 4'000'000});
    file.resize(static_cast<std::size_t>(lie.heading._indexPos), 1);
    lay({{fFile, with(std::move(file), kRow0, bytesOf(lie.heading)) + indexOf(lie)}});
    expectInChild([&] { EXPECT_EQ(orva::recover(fFile, fOut, kDropLost).blocks, 20'000); });

    // A gap is not that of more blocks than its bytes have room for: all gaps could claim nearly all records.
    lie = fLayout;
    lie.records[1].orginalSize = 1;
    lie.records.insert(lie.records.begin() + 2, 5'000, {0, -1, 1, 1});
    for (std::int64_t i = 1; i < std::ssize(lie.records); ++i) lie.records[i].orginalPos = kRow0 + 29 + i;
    lie.first.translateSize += 5'000;
    lie.heading._size += 5'000 * kRecordSize;
    expectRecovered(withLayout(damaged(2), lie), "~30-5031 its block is damaged;",
                    fBlocks[0] + Bytes(5'001) + fBlocks[2]);
    // Nor does each damaged block cost a look at all records.
    bytesRead = 0;
    orva::finishedPart part(fFile, kPart);
    const Reader stream(fFile, 0, kRow0);
    for (std::uint32_t i = 2; i < 1'000; ++i) {
        EXPECT_THAT(failureOf([&] { part.verifyBlock(i); }), HasSubstr(kInside));
        stream->Seek(kRow0 + 29 + i, ORVA_StrBaseIO::SeekFromStart);
        EXPECT_THAT(failureOf([&] { stream.read(1); }), HasSubstr(kInside));
    }
    EXPECT_EQ(orva::verify(orva::Reader(fFile, {.row0 = kRow0})).bad.size(), 5'001);
    EXPECT_LT(bytesRead, 10'000'000);
}

// The old heading of an append that ended early: blocks after the old index were never finished.
TEST_F(DamageTest, AnInterruptedAppendIsToldApart) {
    for (const Append& append : std::span(kAppends).first(kWriting)) {
        SCOPED_TRACE(append.name);
        const Bytes heading = slice(finished(blocksOf(append.old)), kRow0, kHeadingSize);
        append.run(fFile);
        const Bytes file = with(bytes(), kRow0, heading), rows = append.newRows();
        const std::int64_t committed = std::accumulate(append.sizes.data(), &append.sizes[append.old.size()], 0);
        // With the new index in its place, torn, and missing.
        for (const std::size_t cut : {std::size_t{0}, std::size_t{10}, kRecordSize * (append.sizes.size() + 1)}) {
            const Bytes found = slice(file, 0, file.size() - cut);
            expectRecovered(found, "", rows);
            EXPECT_EQ(fReport.committedRows, committed);
            EXPECT_EQ(fReport.lastRewritten, committed != 0 && append.old.back() < kFull);
            expectRecovered(found, "", slice(rows, 0, committed), {kPart, true});
        }
    }
}

// The old heading and index still exist, and so do old blocks. They must not silently pass for the new part's.
TEST_F(DamageTest, ANewPartOverAnOldOneIsNotCompletedFromIt) {
    for (const std::vector<std::size_t>& sizes : {std::vector<std::size_t>{350}, {350, 100}, {20}, {600, 5, 400}}) {
        const Bytes fresh = joined(blocksOf(sizes, 50)), file = finished(blocksOf(sizes, 50));
        const std::string lost = recover(with(fBytes, kRow0 + kHeadingSize, storedBlocks(file)));
        EXPECT_TRUE(sameBytes(slice(fRows, 0, fresh.size()), fresh));
        EXPECT_TRUE(!lost.empty() || fRows.size() == fresh.size());
    }
}

TEST_F(DamageTest, ASideFileThatCannotBeTrustedChangesNothing) {
    Append append = kAppends[0];
    append.variant = 1;
    makeFile(fFile, blocksOf(append.old));
    const Files during = interrupted(append);
    const Bytes data = during.at(fFile), side = during.at(fSide);
    const auto refused = [&](const Bytes& saved) {
        const Files files{{fFile, data}, {fSide, saved}};
        lay(files);
        EXPECT_THAT(failureOf([&] { orva::rollBack(fFile); }), testing::StartsWith("DamagedFileError"));
        EXPECT_EQ(present(), files);
    };
    // If an append has changed the file, any damage of the side file is refused, and the side file stays for a second
    // look.
    for (std::size_t at = 0; at < side.size(); ++at) {
        refused(with(side, at, {static_cast<unsigned char>(side[at] ^ 0x20)}));
        refused(slice(side, 0, at));
    }
    // A right checksum does not make the numbers true: mark, row 0, old length, end of what was not touched, checksum
    // before it, heading, first record, last record.
    const std::pair<std::int64_t, std::int64_t> lies[] = {
        {0, 7},          {8, 0},     {8, INT64_MAX}, {16, 40}, {16, INT64_MIN},  {24, kRow0 - 1}, {24, kRow0 + 24},
        {24, INT64_MAX}, {32, 5},    {40, 12},       {48, -1}, {48, 1LL << 40},  {56, 0},         {56, 48},
        {56, INT64_MAX}, {64, -101}, {80, 3},        {112, 0}, {120, 1LL << 40}, {128, 99}};
    for (const auto& [at, value] : lies) refused(summed(slice(with(side, at, bytesOf(value)), 0, side.size() - 8)));
}
