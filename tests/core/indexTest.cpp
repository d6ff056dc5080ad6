// The block index: look-up with its cursor, both parses, and every lie of an index.
#include "coreTest.h"
#include "filePosInfo.h"

#include <gmock/gmock.h>

// The cursor is a hint that no result shows, so tests look at it here.
struct filePosInfoAccess {
    static std::atomic<std::uint32_t>& cursor(const filePosInfo& index) { return index.fCursor; }
};

namespace core {
namespace {

using Records = std::vector<filePosRecord>;

// As index bytes: the first record with the count, then the records.
Bytes indexBytes(const Records& records, std::int64_t mark = -100, std::int32_t blockSize = kBlock) {
    Bytes bytes = bytesOf(filePosRecord{mark, 0, blockSize, static_cast<std::int32_t>(records.size())});
    for (const filePosRecord& record : records) {
        const Bytes one = bytesOf(record);
        bytes.insert(bytes.end(), one.begin(), one.end());
    }
    return bytes;
}

void parse(filePosInfo& index, const Records& records) {
    index.parseForRead(indexBytes(records).data(), false);
}

Records fullBlocks(std::int64_t row0, std::uint32_t count, std::int32_t lastSize = kBlock) {
    Records records;
    for (std::uint32_t i = 0; i < count; ++i) {
        records.push_back({row0 + i * kBlock, row0 + 24 + i * std::int64_t{1'000}, kBlock, 1'000});
    }
    if (count != 0) records.back().orginalSize = lastSize;
    return records;
}

const Records kThree = fullBlocks(1'000, 3, 100'000);
const Records kFour = fullBlocks(1'000, 4);
const Records kOne = fullBlocks(1'000, 1);
const Records kNone;

struct LookupCase {
    const char* name;
    const Records& records;
    std::uint32_t cursor;
    std::int64_t pos, found;
    std::uint32_t cursorAfter;
};
const LookupCase kLookups[] = {
    {"FirstByte", kThree, 0, 1'000, 1'000, 1},
    {"ByteBeforeRow0", kThree, 0, 999, -200, 0},
    {"LastByte", kThree, 0, 8'481'415, 8'381'416, 0},
    {"ByteBehindTheLast", kThree, 2, 8'481'416, -200, 2},
    {"InsideTheLastBlocksSpanButBehindItsData", kThree, 1, 9'000'000, -200, 1},
    {"QuotientHits", kThree, 0, 8'000'000, 4'191'208, 2},
    {"SequentialReaderHitsByTheCursor", kThree, 1, 4'191'208, 4'191'208, 2},
    {"CursorMissesThenFirst", kThree, 2, 4'190'500, 1'000, 1},
    {"CursorAtTheLastGoesBehindIt", kThree, 2, 8'381'416, 8'381'416, 3},
    {"CursorBehindTheLastIsClamped", kThree, 3, 8'381'416, 8'381'416, 3},
    {"CursorFarOutsideIsClamped", kThree, 4'000'000'000, 4'191'208, 4'191'208, 2},
    {"QuotientTooHighSearchesDownward", kFour, 0, 8'381'000, 4'191'208, 2},
    {"OneRecordAgain", kOne, 1, 5'000, 1'000, 1},
    {"NoRecords", kNone, 0, 1'000, -200, 0},
};

TEST(Lookup, FindsTheBlockAndMovesTheCursor) {
    for (const LookupCase& c : kLookups) {
        SCOPED_TRACE(c.name);
        filePosInfo index(kBlock);
        parse(index, c.records);
        filePosInfoAccess::cursor(index) = c.cursor;
        EXPECT_EQ(index.findRecord(c.pos).orginalPos, c.found);
        EXPECT_EQ(filePosInfoAccess::cursor(index), c.cursorAfter);
    }
}

TEST(Lookup, NeedsAParsedIndexThatDoesNotBeginAtZero) {
    filePosInfo index(kBlock);
    EXPECT_ASSERTION(index.findRecord(1), "pInfoBuffer != 0");
    parse(index, fullBlocks(0, 1));
    EXPECT_ASSERTION(index.findRecord(1), "pInfoBuffer->orginalPos != 0");
}

// What look-up has to give, by the plainest means. Null: no block.
const filePosRecord* naive(const Records& records, std::int64_t pos) {
    for (const filePosRecord& r : records) {
        if (r.orginalPos <= pos && pos < r.orginalPos + r.orginalSize) return &r;
    }
    return nullptr;
}

TEST(Lookup, AgreesWithANaiveSearchWhateverTheCursor) {
    support::RandomBytes random(11);
    for (int round = 0; round < 200; ++round) {
        const bool shortBlocks = random.oneIn(2);
        std::int64_t pos = random.between(1, random.oneIn(2) ? 10'000 : 1'000'000'000'000);
        const std::int64_t begin = pos;
        Records records;
        for (std::uint64_t i = 1 + random.below(40); i > 0; --i) {
            const auto size = static_cast<std::int32_t>(shortBlocks ? random.between(1, kBlock) : kBlock);
            records.push_back({pos, 24, size, 1});
            pos += size;
        }
        filePosInfo index(kBlock);
        parse(index, records);
        for (int i = 0; i < 100; ++i) {
            filePosInfoAccess::cursor(index) = static_cast<std::uint32_t>(random.below(records.size() + 3));
            const std::int64_t at = random.between(begin - 3, pos + 3);
            const filePosRecord* expected = naive(records, at);
            const filePosRecord found = index.findRecord(at);
            ASSERT_EQ(found.orginalPos, expected != nullptr ? expected->orginalPos : -200) << "at " << at;
            ASSERT_TRUE(expected == nullptr || bytesOf(found) == bytesOf(*expected)) << "at " << at;
        }
    }
}

// Records of a damaged index may overlap and leave gaps. The block that begins at a position is still found there, so
// that each of the sound ones stays readable.
TEST(Lookup, FindsEachBlockOfADamagedIndexWhateverTheCursor) {
    support::RandomBytes random(12);
    for (int round = 0; round < 200; ++round) {
        Records records = fullBlocks(random.between(1, 100'000), 2 + static_cast<std::uint32_t>(random.below(20)));
        for (int lies = 0; lies < 3; ++lies) {
            records[random.below(records.size())].orginalSize = static_cast<std::int32_t>(random.between(1, INT32_MAX));
        }
        filePosInfo index(kBlock);
        parse(index, records);
        for (const filePosRecord& record : records) {
            for (std::uint32_t cursor = 0; cursor <= records.size(); ++cursor) {
                filePosInfoAccess::cursor(index) = cursor;
                ASSERT_EQ(index.findRecord(record.orginalPos).orginalPos, record.orginalPos) << "cursor " << cursor;
            }
        }
    }
}

TEST(Lookup, AMillionBlocksBehindATerabyte) {
    constexpr std::int64_t row0 = 1'000'000'000'000;
    const Records records = fullBlocks(row0, 1'000'000);
    filePosInfo index(kBlock);
    parse(index, records);
    support::RandomBytes random(13);
    for (int i = 0; i < 20'000; ++i) {
        const std::int64_t number = random.between(0, 999'999);
        const std::int64_t found = index.findRecord(row0 + number * kBlock + random.between(0, kBlock - 1)).orginalPos;
        ASSERT_EQ(found, row0 + number * kBlock);
    }
    EXPECT_EQ(index.numberOf(row0 + 999'999 * kBlock), 999'999u);
    EXPECT_EQ(index.dataEnd(0), row0 + 1'000'000 * kBlock);
}

TEST(IndexBytes, AreAFirstRecordAloneWithoutBlocks) {
    filePosInfo index(kBlock);
    std::uint32_t length = 0;
    const unsigned char* bytes = index.serialize(length);
    EXPECT_EQ(Bytes(bytes, bytes + length), indexBytes({}));
    EXPECT_EQ(index.writtenEnd(77), 77);
}

TEST(IndexBytes, SwappedTwiceAreThemselves) {
    filePosRecord record{1, 2, 3, 4};
    filePosInfo::swapRecord(&record);
    EXPECT_EQ(record.orginalPos, 0x0100000000000000);
    EXPECT_EQ(record.translateSize, 0x04000000);
    filePosInfo::swapRecord(&record);
    EXPECT_EQ(bytesOf(record), bytesOf(filePosRecord{1, 2, 3, 4}));
}

TEST(IndexBytes, ParsedForAppendingLeaveTheLastBlockToTheCaller) {
    for (const Records* records : {&kOne, &kThree}) {
        filePosInfo index(kBlock);
        Bytes bytes = indexBytes(*records);
        EXPECT_EQ(bytesOf(index.parseForAppend(bytes.data(), false)), bytesOf(records->back()));
        std::uint32_t length = 0;
        const unsigned char* again = index.serialize(length);
        EXPECT_EQ(Bytes(again, again + length), indexBytes(Records(records->begin(), records->end() - 1)));
    }
    filePosInfo index(kBlock);
    parse(index, kThree);
    Bytes empty = indexBytes({});
    EXPECT_EQ(index.parseForAppend(empty.data(), false).orginalPos, -100);
    EXPECT_ASSERTION(index.findRecord(1'000), "pInfoBuffer != 0");
    EXPECT_ASSERTION(index.parseForAppend(nullptr, false), "buff != 0");
}

TEST(IndexBytes, NoneAtAllChangeNothing) {
    filePosInfo index(kBlock);
    parse(index, kThree);
    index.parseForRead(nullptr, true);
    EXPECT_EQ(index.findRecord(1'000).orginalPos, 1'000);
}

TEST(IndexBytes, ThatLieAreRefused) {
    const auto changed = [](std::size_t number, filePosRecord record) {
        Records records = kThree;
        records[number] = record;
        return indexBytes(records);
    };
    Bytes negativeCount = indexBytes({});
    negativeCount[23] = 0x80;
    struct Case {
        const char* name;
        Bytes bytes;
        const char* check;
    } const cases[] = {
        {"NoMark", indexBytes(kThree, -200), "firstRecord.orginalPos == -100"},
        {"BlockSizeOfNone", indexBytes(kThree, -100, 0), "firstRecord.orginalSize > 0"},
        {"CountBelowNone", negativeCount, "firstRecord.translateSize >= 0"},
        {"EqualPositions", changed(1, kThree[0]), "orginalPos ascends"},
        {"DescendingPositions", changed(2, {1'001, 24, 1, 1}), "orginalPos ascends"},
        {"EmptyBlock", changed(0, {1'000, 24, 0, 1}), "orginalSize >= 1"},
        {"BlockBelowNone", changed(2, {8'381'416, 24, -5, 1}), "orginalSize >= 1"},
        {"EndBeyondAllPositions", changed(2, {INT64_MAX - 3, 24, 4, 1}), "orginalSize >= 1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        filePosInfo index(kBlock, "some.file");
        parse(index, kFour);
        EXPECT_THAT(failureOf([&] { index.parseForRead(c.bytes.data(), false); }),
                    testing::AllOf(testing::StartsWith("DamagedFileError \"some.file\""), testing::HasSubstr(c.check)));
        EXPECT_EQ(index.parsedCount(), 4u) << "a refused index changes nothing";
        Bytes bytes = c.bytes;
        filePosInfo other(kBlock);
        EXPECT_THAT(failureOf([&] { other.parseForAppend(bytes.data(), false); }), testing::HasSubstr(c.check));
        EXPECT_EQ(other.recordCount(), 0u);
    }
}

}  // namespace
}  // namespace core
