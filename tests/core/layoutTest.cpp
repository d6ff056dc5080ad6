// The bytes of heading and index, in both byte orders: two full blocks and a third of 100,000 bytes behind a dictionary
// part of 1,000, deflated to 1,500,000, 1,400,000 and 40,000 bytes.
#include "coreTest.h"
#include "filePosInfo.h"

#include <sstream>

namespace core {
namespace {

constexpr const char* kHeading = "e8 03 00 00 00 00 00 00 60 e0 2c 00 00 00 00 00 60 00 00 00 00 00 00 00";
constexpr const char* kIndex =
    "9c ff ff ff ff ff ff ff 00 00 00 00 00 00 00 00 00 f0 3f 00 03 00 00 00 "
    "e8 03 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00 f0 3f 00 60 e3 16 00 "
    "e8 f3 3f 00 00 00 00 00 60 e7 16 00 00 00 00 00 00 f0 3f 00 c0 5c 15 00 "
    "e8 e3 7f 00 00 00 00 00 20 44 2c 00 00 00 00 00 a0 86 01 00 40 9c 00 00";
constexpr const char* kOtherHeading = "00 00 00 00 00 00 03 e8 00 00 00 00 00 2c e0 60 00 00 00 00 00 00 00 60";
constexpr const char* kOtherIndex =
    "ff ff ff ff ff ff ff 9c 00 00 00 00 00 00 00 00 00 3f f0 00 00 00 00 03 "
    "00 00 00 00 00 00 03 e8 00 00 00 00 00 00 04 00 00 3f f0 00 00 16 e3 60 "
    "00 00 00 00 00 3f f3 e8 00 00 00 00 00 16 e7 60 00 3f f0 00 00 15 5c c0 "
    "00 00 00 00 00 7f e3 e8 00 00 00 00 00 2c 44 20 00 01 86 a0 00 00 9c 40";

constexpr filePosRecord kRecords[] = {{1'000, 1'024, 4'190'208, 1'500'000},
                                      {4'191'208, 1'501'024, 4'190'208, 1'400'000},
                                      {8'381'416, 2'901'024, 100'000, 40'000}};

Bytes fromHex(const char* text) {
    std::istringstream stream(text);
    Bytes bytes;
    for (unsigned value = 0; stream >> std::hex >> value;) bytes.push_back(static_cast<unsigned char>(value));
    return bytes;
}

Bytes ofThisMachine(const char* little, const char* big) {
    return fromHex(std::endian::native == std::endian::little ? little : big);
}

TEST(Layout, HeadingStandsInTheFileAsDocumented) {
    const compressionHeading heading{1'000, 2'941'024, 96};
    EXPECT_EQ(bytesOf(heading), ofThisMachine(kHeading, kOtherHeading));
    compressionHeading swapped = heading;
    orva::swapHeading(swapped);
    EXPECT_EQ(bytesOf(swapped), ofThisMachine(kOtherHeading, kHeading));
}

TEST(Layout, IndexIsWrittenAsDocumented) {
    filePosInfo index(kBlock);
    for (const filePosRecord& r : kRecords) {
        index.addRecord(r.orginalPos, r.translatePos, r.orginalSize, r.translateSize);
    }
    std::uint32_t length = 0;
    const unsigned char* bytes = index.serialize(length);
    EXPECT_EQ(Bytes(bytes, bytes + length), ofThisMachine(kIndex, kOtherIndex));
}

TEST(Layout, IndexIsReadInBothByteOrders) {
    for (const bool swap : {false, true}) {
        const Bytes bytes = swap ? ofThisMachine(kOtherIndex, kIndex) : ofThisMachine(kIndex, kOtherIndex);
        filePosInfo index(1);
        index.parseForRead(bytes.data(), swap);
        ASSERT_EQ(index.parsedCount(), 3u);
        EXPECT_EQ(index.blockSize(), kBlock);
        for (std::uint32_t i = 0; i < 3; ++i) EXPECT_EQ(bytesOf(index.parsed(i)), bytesOf(kRecords[i]));

        filePosInfo appended(1);
        Bytes copy = bytes;
        EXPECT_EQ(bytesOf(appended.parseForAppend(copy.data(), swap)), bytesOf(kRecords[2]));
        EXPECT_EQ(appended.recordCount(), 2u);
        EXPECT_EQ(appended.writtenEnd(0), 2'901'024);
    }
}

}  // namespace
}  // namespace core
