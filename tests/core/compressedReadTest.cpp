// Reading: what needs no file, and how a damaged file or block is refused. What reads deliver is modelTest.cpp's. Lies
// of heading and index are told in recovery/damageTest.cpp.
#include "coreTest.h"

#include <gmock/gmock.h>

namespace core {
namespace {

using testing::HasSubstr;

class CompressedRead : public support::TempDir, public testing::WithParamInterface<int> {
protected:
    // Short blocks at the logical positions 1000, 2000 and 4000.
    CompressedRead() {
        makeFile(fName, fBlocks);
        fFile = support::readBytes(fName);
    }
    std::int64_t recordOf(std::int64_t number) const { return Layout(fFile).heading._indexPos + 24 * (number + 1); }
    template <class Value>
    void patch(std::int64_t offset, Value value) const {
        support::overwriteBytes(fName, static_cast<std::uint64_t>(offset), bytesOf(value));
    }
    Reader opened() const { return Reader(fName, GetParam(), kRow0); }

    const Watchdog fWatchdog;
    const std::string fName = path("rows.orva");
    const Bytes fRows = support::RandomBytes(32).rows(3'500);
    const std::vector<Bytes> fBlocks{support::slice(fRows, 0, 1'000), support::slice(fRows, 1'000, 2'000),
                                     support::slice(fRows, 3'000, 500)};
    Bytes fFile;
};
INSTANTIATE_TEST_SUITE_P(Roads, CompressedRead, testing::Values(0, 2, kSeveral), testing::PrintToStringParamName());

TEST_P(CompressedRead, StaysInsideTheLoadedBlockWithoutTheFile) {
    const Reader reader = opened();
    reader.readAt(4'100, 100);  // the last block, behind which nothing is read ahead
    const BadPlace broken(Call::Read, EIO);
    reader->Seek(-10, ORVA_StrBaseIO::SeekFromCurrent);
    EXPECT_EQ(reader.read(20), support::slice(fRows, 3'190, 20));
    EXPECT_EQ(reader.readAt(4'000, 5), support::slice(fRows, 3'000, 5));
    EXPECT_EQ(reader.readAt(1'000, 0), Bytes());
    for (const std::int64_t offset : {INT64_MAX, INT64_MAX}) reader->Seek(offset, ORVA_StrBaseIO::SeekFromCurrent);
    EXPECT_EQ(reader->Tell(), INT64_MAX);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(reader->Seek(INT64_MIN, ORVA_StrBaseIO::SeekFromCurrent), 0);
    EXPECT_EQ(reader->Tell(), INT64_MIN);
}

TEST_P(CompressedRead, AFileThatCannotBeOpenedSaysWhyAgainAndCanBeTriedAgain) {
    const Reader reader(fName, GetParam());
    for (const auto& [length, check] : {std::pair(std::size_t{kRow0 + 23}, "ret == sizeof(compressionHeading)"),
                                        std::pair(fFile.size() - 1, "ret == chInfo._size")}) {
        support::writeBytes(fName, support::slice(fFile, 0, length));
        const std::string failure = failureOf([&] { reader->readFilePosInfo(kRow0, false); });
        EXPECT_THAT(failure, testing::AllOf(HasSubstr(check), HasSubstr(fName)));
        EXPECT_EQ(failureOf([&] { reader.read(1); }), failure);
    }
    support::writeBytes(fName, fFile);
    reader->readFilePosInfo(kRow0, false);
    EXPECT_EQ(reader.read(4'000), fRows);
}

// A field of block 1's record, in which a lie stands. The blocks beside it stay readable.
TEST_P(CompressedRead, DamagedBlockIsRefusedAndTheOthersStayReadable) {
    const std::int32_t packed = Layout(fFile).records[1].translateSize;
    const struct {
        std::int64_t field, lie;
        const char* says;
    } cases[] = {
        {16, 4'190'209, "orginalSize in 1..4190208"},
        {16, 2'001, "orginalPos + orginalSize == next orginalPos"},
        {16, 1'999, "orginalPos + orginalSize == next orginalPos"},
        {20, 0, "translateSize in 1..4190208"},
        {20, 4'190'209, "translateSize in 1..4190208"},
        {20, 4'000'000, "translatePos inside the file"},
        {8, -1, "translatePos inside the file"},
        {8, INT32_MAX, "translatePos inside the file"},
        {8, kRow0 + 24, "0: outCount == bInfo.orginalSize"},
        {20, packed + 1, "0: Z_STREAM_END at the last byte"},
        {20, packed - 1, "0: Z_STREAM_END at the last byte"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.says) + ": " + std::to_string(c.lie));
        support::writeBytes(fName, fFile);
        c.field == 8 ? patch(recordOf(1) + 8, c.lie) : patch(recordOf(1) + c.field, static_cast<std::int32_t>(c.lie));
        const Reader reader = opened();
        EXPECT_THAT(failureOf([&] { reader.readAt(1'500, 1'000); }),
                    testing::AllOf(testing::StartsWith("DamagedFileError"), HasSubstr(fName),
                                   HasSubstr("block 1 (logical positions 2000 to "),
                                   HasSubstr("[" + std::string(c.says) + "]")));
        EXPECT_EQ(reader->Tell(), 2'000) << "behind the last byte delivered";
        EXPECT_EQ(reader.readAt(4'000, 600), fBlocks[2]);
        EXPECT_EQ(reader.readAt(1'000, 1'000), fBlocks[0]);
    }
}

// Far behind the row-0 position the guess of a look-up cannot be right, so nothing but the gap answers.
TEST_P(CompressedRead, APositionThatNoBlockHoldsIsDamageNotTheEnd) {
    constexpr std::int64_t row0 = 9'000'000;
    makeFile(fName, fBlocks, row0);
    patch(Layout(support::readBytes(fName), row0).heading._indexPos + 2 * 24 + 16, 1'500);
    const Reader reader(fName, GetParam(), row0);
    EXPECT_THAT(failureOf([&] { reader.readAt(row0 + 2'600, 1); }), HasSubstr("bInfo.orginalPos != -200"));
    EXPECT_EQ(reader.readAt(row0 + 3'000, 500), fBlocks[2]);
    std::filesystem::resize_file(fName, row0 + 30);
    EXPECT_THAT(failureOf([&] { reader.readAt(row0 + 10, 1); }), HasSubstr("ret == bInfo.translateSize"));
}

using BlockCache = ShortBlocks;
TEST_F(BlockCache, ABlockThatTheCacheHoldsCostsNoFileCall) {
    const std::vector<filePosRecord> records = Layout(fFile).records;
    const Reader rows(fName, 0, kRow0);
    rows->setBlockCache(2);
    CallHook hook([](Call, std::uint64_t) { return Verdict::goOn(); });
    const platform::faults::Installed installed(hook);
    const auto loads = [&](std::size_t number) {
        const std::uint64_t before = hook.count();
        EXPECT_EQ(rows.readAt(records[number].orginalPos, fBlocks[number].size()), fBlocks[number]);
        return hook.count() != before;
    };
    std::vector<bool> loaded;
    for (const std::size_t number : {0, 2, 0, 2, 0, 4, 0, 2}) loaded.push_back(loads(number));
    EXPECT_EQ(loaded, (std::vector<bool>{1, 1, 0, 0, 0, 1, 0, 1})) << "the least recently used block goes first";
    rows->readFilePosInfo(kRow0, false);
    EXPECT_TRUE(loads(0)) << "a file that is opened anew";
}

}  // namespace
}  // namespace core
