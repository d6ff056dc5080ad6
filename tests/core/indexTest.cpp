// The bytes of heading and index, in both byte orders, and look-up. Lies of an index are told in
// recovery/damageTest.cpp. The example: two full blocks and a third of 100,000 bytes behind a dictionary part of 1,000,
// deflated to 1,500,000, 1,400,000 and 40,000 bytes.
#include "coreTest.h"
#include "format/filePosInfo.h"

#include <sstream>

namespace core {
namespace {

using Records = std::vector<filePosRecord>;

constexpr const char* kHeading = "e8 03 00 00 00 00 00 00 60 e0 2c 00 00 00 00 00 60 00 00 00 00 00 00 00";
constexpr const char* kIndex =
    "9c ff ff ff ff ff ff ff 00 00 00 00 00 00 00 00 00 f0 3f 00 03 00 00 00 "
    "e8 03 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00 f0 3f 00 60 e3 16 00 "
    "e8 f3 3f 00 00 00 00 00 60 e7 16 00 00 00 00 00 00 f0 3f 00 c0 5c 15 00 "
    "e8 e3 7f 00 00 00 00 00 20 44 2c 00 00 00 00 00 a0 86 01 00 40 9c 00 00";
const Records kExample = {{1'000, 1'024, 4'190'208, 1'500'000},
                          {4'191'208, 1'501'024, 4'190'208, 1'400'000},
                          {8'381'416, 2'901'024, 100'000, 40'000}};

// The example as a file, all but its blocks.
Bytes example(bool swap) {
    Bytes bytes[2];
    for (const int i : {0, 1}) {
        std::istringstream stream(i == 0 ? kHeading : kIndex);
        for (unsigned value = 0; stream >> std::hex >> value;) bytes[i].push_back(static_cast<unsigned char>(value));
    }
    const Bytes file = support::with(support::with({}, 1'000, bytes[0]), 2'941'024, bytes[1]);
    return swap ? swapped(file) : file;
}

Bytes serialized(filePosInfo& index) {
    std::uint32_t length = 0;
    const unsigned char* bytes = index.serialize(length);
    return Bytes(bytes, bytes + length);
}

TEST(Layout, HeadingAndIndexAreWrittenAndReadAsDocumentedInBothByteOrders) {
    filePosInfo written(kBlock);
    EXPECT_EQ(serialized(written), bytesOf(filePosRecord{-100, 0, kBlock, 0}));
    EXPECT_EQ(written.writtenEnd(77), 77);
    for (const filePosRecord& r : kExample) {
        written.addRecord(r.orginalPos, r.translatePos, r.orginalSize, r.translateSize);
    }
    for (const bool swap : {false, true}) {
        compressionHeading heading{1'000, 2'941'024, 96};
        if (swap) orva::swapHeading(heading);
        EXPECT_EQ(bytesOf(heading), support::slice(example(swap), 1'000, kHeadingSize));
        Bytes bytes = support::slice(example(swap), 2'941'024, 96);
        EXPECT_TRUE(swap || serialized(written) == bytes);
        filePosInfo index(1);
        index.parseForRead(bytes.data(), swap);
        index.parseForRead(nullptr, swap);  // changes nothing
        ASSERT_EQ(index.parsedCount(), 3u);
        EXPECT_EQ(index.blockSize(), kBlock);
        for (std::uint32_t i = 0; i < 3; ++i) EXPECT_EQ(bytesOf(index.parsed(i)), bytesOf(kExample[i]));

        // For an append, the last block is left to the caller.
        filePosInfo appended(1);
        EXPECT_EQ(bytesOf(appended.parseForAppend(bytes.data(), swap)), bytesOf(kExample[2]));
        EXPECT_EQ(appended.recordCount(), 2u);
        EXPECT_EQ(appended.writtenEnd(0), 2'901'024);
        EXPECT_ASSERTION(appended.findRecord(1'000), "pInfoBuffer != 0");
        EXPECT_ASSERTION(appended.parseForAppend(nullptr, false), "buff != 0");
        Bytes none = bytesOf(filePosRecord{-100, 0, kBlock, 0});
        EXPECT_EQ(filePosInfo(1).parseForAppend(none.data(), false).orginalPos, -100);
    }
}

void parse(filePosInfo& index, const Records& records) {
    Bytes bytes = bytesOf(filePosRecord{-100, 0, kBlock, static_cast<std::int32_t>(records.size())});
    for (const filePosRecord& record : records) bytes = std::move(bytes) + bytesOf(record);
    index.parseForRead(bytes.data(), false);
}

TEST(Lookup, NeedsAnIndexAndFindsNothingInAnEmptyOne) {
    filePosInfo index(kBlock);
    EXPECT_ASSERTION(index.findRecord(1), "pInfoBuffer != 0");
    parse(index, {{0, 24, kBlock, 1'000}});
    EXPECT_ASSERTION(index.findRecord(1), "pInfoBuffer->orginalPos != 0");
    parse(index, {});
    EXPECT_EQ(index.findRecord(1'000).orginalPos, -200);
}

// A damaged index may hold overlapping records. The block that begins at a position is still found there, so that each
// of the sound ones stays readable.
TEST(Lookup, AgreesWithANaiveSearchWhateverWasFoundBefore) {
    support::RandomBytes random(11);
    for (int round = 0; round < 300; ++round) {
        const bool shortBlocks = random.oneIn(2);
        const bool damaged = random.oneIn(3);
        std::int64_t pos = random.between(1, random.oneIn(2) ? 10'000 : 1'000'000'000'000);
        const std::int64_t begin = pos;
        Records records;
        for (std::uint64_t i = 1 + random.below(40); i > 0; --i) {
            const auto size = static_cast<std::int32_t>(shortBlocks ? random.between(1, kBlock) : kBlock);
            const bool lies = damaged && random.oneIn(6);
            records.push_back({pos, 24, lies ? static_cast<std::int32_t>(random.between(1, INT32_MAX)) : size, 1});
            pos += size;
        }
        filePosInfo index(kBlock);
        parse(index, records);
        for (int i = 0; i < 100; ++i) {
            const std::int64_t at =
                damaged ? records[random.below(records.size())].orginalPos : random.between(begin - 3, pos + 3);
            const auto holds = [&](const filePosRecord& r) {
                return damaged ? r.orginalPos == at : r.orginalPos <= at && at < r.orginalPos + r.orginalSize;
            };
            const auto expected = std::find_if(records.begin(), records.end(), holds);
            const filePosRecord found = index.findRecord(at);
            ASSERT_EQ(found.orginalPos, expected != records.end() ? expected->orginalPos : -200) << "at " << at;
            ASSERT_TRUE(expected == records.end() || bytesOf(found) == bytesOf(*expected)) << "at " << at;
        }
    }
}

}  // namespace
}  // namespace core
