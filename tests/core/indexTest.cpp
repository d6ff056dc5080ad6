// The bytes of heading and index, in both byte orders. Lies of an index are told in
// recovery/damageTest.cpp. The example: two full blocks and a third of 100,000 bytes behind a dictionary part of 1,000,
// deflated to 1,500,000, 1,400,000 and 40,000 bytes.
#include "coreTest.h"
#include "format/filePosInfo.h"
#include "format/storedBytes.h"

#include <sstream>

namespace core {
namespace {

constexpr const char* kHeading = "e8 03 00 00 00 00 00 00 60 e0 2c 00 00 00 00 00 60 00 00 00 00 00 00 00";
constexpr const char* kIndex =
    "9c ff ff ff ff ff ff ff 00 00 00 00 00 00 00 00 00 f0 3f 00 03 00 00 00 "
    "e8 03 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00 f0 3f 00 60 e3 16 00 "
    "e8 f3 3f 00 00 00 00 00 60 e7 16 00 00 00 00 00 00 f0 3f 00 c0 5c 15 00 "
    "e8 e3 7f 00 00 00 00 00 20 44 2c 00 00 00 00 00 a0 86 01 00 40 9c 00 00";
const filePosRecord kExample[] = {{1'000, 1'024, 4'190'208, 1'500'000},
                                  {4'191'208, 1'501'024, 4'190'208, 1'400'000},
                                  {8'381'416, 2'901'024, 100'000, 40'000}};

Bytes fromHex(const char* digits) {
    Bytes bytes;
    std::istringstream stream(digits);
    for (unsigned value = 0; stream >> std::hex >> value;) bytes.push_back(static_cast<unsigned char>(value));
    return bytes;
}

TEST(Layout, HeadingAndIndexAreWrittenAndReadAsDocumentedInBothByteOrders) {
    filePosInfo written(kBlock);
    EXPECT_EQ(written.writtenEnd(77), 77);
    for (const auto& r : kExample) written.addRecord(r.orginalPos, r.translatePos, r.orginalSize, r.translateSize);
    std::uint32_t length = 0;
    const unsigned char* serialized = written.serialize(length);
    EXPECT_EQ(Bytes(serialized, serialized + length), fromHex(kIndex));
    const Bytes file = with(with({}, 1'000, fromHex(kHeading)), 2'941'024, fromHex(kIndex));
    for (const bool swap : {false, true}) {
        const Bytes bytes = swap ? swapped(file, kRow0) : file;
        compressionHeading heading{1'000, 2'941'024, 96};
        if (swap) orva::swapHeading(heading);
        EXPECT_EQ(bytesOf(heading), slice(bytes, 1'000, kHeadingSize));
        Bytes stored = slice(bytes, 2'941'024, 96);
        filePosInfo index(1), appended(1);
        index.parseForRead(stored.data(), swap);
        index.parseForRead(nullptr, swap);  // changes nothing
        ASSERT_EQ(index.parsedCount(), 3u);
        EXPECT_EQ(index.blockSize(), kBlock);
        for (std::uint32_t i = 0; i < 3; ++i) EXPECT_EQ(bytesOf(index.parsed(i)), bytesOf(kExample[i]));
        EXPECT_EQ(bytesOf(appended.parseForAppend(stored.data(), swap)), bytesOf(kExample[2]));
        EXPECT_TRUE(appended.recordCount() == 2 && appended.writtenEnd(0) == 2'901'024) << "the last is the caller's";
    }
    Bytes none = bytesOf(filePosRecord{-100, 0, kBlock, 0});
    EXPECT_EQ(filePosInfo(1).parseForAppend(none.data(), false).orginalPos, -100);
}

// An index can be longer than what a file takes at a time.
TEST(StoredBytes, MoveInPiecesOneBehindTheOther) {
    const char* const base = "";
    std::int64_t next = 0;
    const auto transfer = [&](const char* bytes, std::uint32_t count, std::int64_t place) {
        EXPECT_TRUE(bytes == base + next && place == next);
        next += count;
        return count;
    };
    EXPECT_TRUE(orva::inPieces(base, 2 * orva::kLongestTransfer + 1, 0, transfer));
    EXPECT_EQ(next, 2 * std::int64_t{orva::kLongestTransfer} + 1);
}

}  // namespace
}  // namespace core
