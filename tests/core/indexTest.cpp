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

Bytes fromHex(const char* digits) {
    Bytes bytes;
    std::istringstream stream(digits);
    for (unsigned value = 0; stream >> std::hex >> value;) bytes.push_back(static_cast<unsigned char>(value));
    return bytes;
}
Bytes indexOf(const Records& records) {
    Bytes bytes = bytesOf(filePosRecord{-100, 0, kBlock, static_cast<std::int32_t>(records.size())});
    for (const filePosRecord& record : records) bytes = std::move(bytes) + bytesOf(record);
    return bytes;
}

TEST(Layout, HeadingAndIndexAreWrittenAndReadAsDocumentedInBothByteOrders) {
    filePosInfo written(kBlock);
    EXPECT_EQ(written.writtenEnd(77), 77);
    for (const filePosRecord& r : kExample) {
        written.addRecord(r.orginalPos, r.translatePos, r.orginalSize, r.translateSize);
    }
    std::uint32_t length = 0;
    const unsigned char* serialized = written.serialize(length);
    EXPECT_EQ(Bytes(serialized, serialized + length), fromHex(kIndex));
    const Bytes file = support::with(support::with({}, 1'000, fromHex(kHeading)), 2'941'024, fromHex(kIndex));
    for (const bool swap : {false, true}) {
        const Bytes bytes = swap ? swapped(file) : file;
        compressionHeading heading{1'000, 2'941'024, 96};
        if (swap) orva::swapHeading(heading);
        EXPECT_EQ(bytesOf(heading), support::slice(bytes, 1'000, kHeadingSize));
        Bytes stored = support::slice(bytes, 2'941'024, 96);
        filePosInfo index(1);
        index.parseForRead(stored.data(), swap);
        index.parseForRead(nullptr, swap);  // changes nothing
        ASSERT_EQ(index.parsedCount(), 3u);
        EXPECT_EQ(index.blockSize(), kBlock);
        for (std::uint32_t i = 0; i < 3; ++i) EXPECT_EQ(bytesOf(index.parsed(i)), bytesOf(kExample[i]));
        // For an append, the last block is left to the caller.
        filePosInfo appended(1);
        EXPECT_EQ(bytesOf(appended.parseForAppend(stored.data(), swap)), bytesOf(kExample[2]));
        EXPECT_EQ(appended.recordCount(), 2u);
        EXPECT_EQ(appended.writtenEnd(0), 2'901'024);
    }
    EXPECT_EQ(filePosInfo(1).parseForAppend(indexOf({}).data(), false).orginalPos, -100);
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
        for (std::uint64_t i = damaged + random.below(40); i > 0; --i) {
            const auto size = static_cast<std::int32_t>(shortBlocks ? random.between(1, kBlock) : kBlock);
            const bool lies = damaged && random.oneIn(6);
            records.push_back({pos, 24, lies ? static_cast<std::int32_t>(random.between(1, INT32_MAX)) : size, 1});
            pos += size;
        }
        filePosInfo index(kBlock);
        index.parseForRead(indexOf(records).data(), false);
        for (int i = 0; i < 100; ++i) {
            const std::int64_t at =
                damaged ? records[random.below(records.size())].orginalPos : random.between(begin - 3, pos + 3);
            const auto expected = std::ranges::find_if(records, [&](const filePosRecord& r) {
                return r.orginalPos == at || (!damaged && r.orginalPos < at && at < r.orginalPos + r.orginalSize);
            });
            const filePosRecord found = index.findRecord(at);
            ASSERT_EQ(found.orginalPos, expected != records.end() ? expected->orginalPos : -200) << "at " << at;
            ASSERT_TRUE(expected == records.end() || bytesOf(found) == bytesOf(*expected)) << "at " << at;
        }
    }
}

}  // namespace
}  // namespace core
