// Reading: what reads deliver inside, across and outside the rows, and what a damaged file says. The rows stand in two
// full blocks and a third of 100,000 bytes; damage is done to three short blocks of 1,000, 2,000 and 500 bytes.
#include "coreTest.h"

#include <orva/inspect.h>

#include <gmock/gmock.h>

namespace core {
namespace {

using platform::faults::Call;
using testing::AllOf;
using testing::HasSubstr;

class CompressedRead : public support::TempDir, public testing::WithParamInterface<int> {
protected:
    static void SetUpTestSuite() {
        const std::string name = testing::TempDir() + "orvaReadTest" + std::to_string(getpid());
        gRows = support::RandomBytes(31).rows(2 * kBlock + 100'000);
        makeFile(name, {gRows});
        gFile = support::readBytes(name);
        gShortRows = support::RandomBytes(32).rows(3'500);
        makeFile(name, {part(0, 1'000), part(1'000, 2'000), part(3'000, 500)});
        gShortFile = support::readBytes(name);
        std::filesystem::remove(name);
    }
    static Bytes part(std::size_t offset, std::size_t size) { return support::slice(gShortRows, offset, size); }

    int setting() const { return GetParam(); }
    Reader opened(const Bytes& file, bool swap = false) const {
        return Reader(made("rows.orva", file), setting(), kRow0, swap);
    }
    Reader rowsFile() const { return opened(gFile); }

    inline static Bytes gRows, gFile, gShortRows, gShortFile;
};
INSTANTIATE_TEST_SUITE_P(Settings, CompressedRead, testing::Values(0, 1, 2, 5), testing::PrintToStringParamName());

TEST_P(CompressedRead, DeliversTheRowsThatAreThere) {
    constexpr std::int64_t end = 8'481'416;
    struct Case {
        const char* name;
        std::int64_t pos;
        std::uint32_t size, delivered;
    } const cases[] = {
        {"IntoTheSecondBlock", 1'000, 4'190'218, 4'190'218},
        {"AllThreeBlocks", 1'000, 8'480'416, 8'480'416},
        {"MoreThanThereIs", 8'481'000, 1'000, 416},
        {"AtTheEnd", end, 10, 0},
        {"InTheLastBlocksSpanButPastItsData", 9'000'000, 10, 0},
        {"FarPastTheEnd", INT64_MAX - 1, 10, 0},
        {"BelowTheFirstByte", 999, 10, 0},
        {"BelowZero", INT64_MIN, 10, 0},
        {"OnlyTheLastByte", end - 1, 2, 1},
        {"BackToTheFirstBlock", 1'001, 3, 3},
        {"NothingAskedInside", 2'000, 0, 0},
    };
    const Watchdog watchdog("reading rows hangs\n");
    const Reader reader = rowsFile();
    EXPECT_EQ(reader->Tell(), kRow0);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes bytes = reader.readAt(c.pos, c.size);
        EXPECT_EQ(reader->Tell(), c.pos + c.delivered);
        ASSERT_EQ(bytes.size(), c.delivered);
        if (c.delivered == 0) continue;
        EXPECT_TRUE(support::sameBytes(bytes, support::slice(gRows, static_cast<std::size_t>(c.pos - kRow0), c.size)));
    }
    EXPECT_EQ(reader->Good(), 1);
    EXPECT_EQ(reader->EndOfFile(), 0);
    EXPECT_EQ(reader->Close(), 1);
    EXPECT_EQ(reader.readAt(5'000'000, 100), support::slice(gRows, 4'999'000, 100)) << "without its worker, inline";
}

TEST_P(CompressedRead, StaysInsideTheLoadedBlockWithoutTheFile) {
    const Reader reader = rowsFile();
    reader.readAt(8'400'000, 1'000);  // the last block, behind which nothing is read ahead
    CallHook hook([](Call, std::uint64_t) { return CallHook::Verdict::fail(EIO); });
    const platform::faults::Installed installed(hook);
    reader->Seek(-10, ORVA_StrBaseIO::SeekFromCurrent);
    EXPECT_EQ(reader.read(20), support::slice(gRows, 8'399'990, 20));
    EXPECT_EQ(reader.readAt(8'381'416, 5), support::slice(gRows, 8'380'416, 5));
    EXPECT_EQ(reader.readAt(0, 0).size(), 0u);
    EXPECT_EQ(hook.count(), 0u);
}

TEST_P(CompressedRead, SeekSaturatesAndNeverFails) {
    const Reader reader = opened(gShortFile);
    struct Case {
        std::int64_t offset, tell;
    } const cases[] = {{INT64_MAX, INT64_MAX}, {INT64_MIN, -1}, {INT64_MIN, INT64_MIN}, {-1, INT64_MIN}};
    reader->Seek(100, ORVA_StrBaseIO::SeekFromStart);
    for (const Case& c : cases) {
        EXPECT_EQ(reader->Seek(c.offset, ORVA_StrBaseIO::SeekFromCurrent), 0);
        EXPECT_EQ(reader->Tell(), c.tell);
    }
}

TEST_P(CompressedRead, FilesOfAllShapes) {
    const Watchdog watchdog("reading a small file hangs\n");
    EXPECT_EQ(opened(gShortFile).readAt(kRow0, 5'000), gShortRows) << "short blocks leave no gap";
    makeFile(path("empty"), {});
    const Reader empty(path("empty"), setting(), kRow0);
    EXPECT_EQ(empty.read(10).size(), 0u);
    EXPECT_EQ(empty->Tell(), kRow0);
    makeFile(path("one"), {part(0, 10)});
    const Reader one(path("one"), setting(), kRow0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(one.readAt(kRow0, 20), part(0, 10));
}

template <class Value>
void patch(Bytes& file, std::int64_t offset, Value value) {
    std::memcpy(file.data() + offset, &value, sizeof value);
}

void swapAll(Bytes& file) {
    const Layout layout(file);
    compressionHeading heading = layout.heading;
    orva::swapHeading(heading);
    patch(file, kRow0, heading);
    for (std::size_t i = 0; i <= layout.records.size(); ++i) {
        filePosRecord record = i == 0 ? layout.first : layout.records[i - 1];
        orva::swapRecord(record);
        patch(file, layout.heading._indexPos + static_cast<std::int64_t>(i) * 24, record);
    }
}

TEST_P(CompressedRead, OtherByteOrder) {
    Bytes file = gShortFile;
    swapAll(file);
    EXPECT_EQ(opened(file, true).read(4'000), gShortRows);
    EXPECT_THAT(failureOf([&] { opened(file, false); }), HasSubstr("Analyze dictionary part error!"));
    EXPECT_THAT(failureOf([&] { opened(gShortFile, true); }), HasSubstr("Analyze dictionary part error!"));
}

// Offsets of fields: of the heading, of the index, of block 1's record.
constexpr std::int64_t kIndexPosField = kRow0 + 8;
constexpr std::int64_t kSizeField = kRow0 + 16;
std::int64_t recordOf(const Bytes& file, int number) {
    return Layout(file).heading._indexPos + 24 * (number + 1);
}

struct Damage {
    const char* name;
    void (*does)(Bytes& file);
    const char* says;
};
const Damage kUnreadable[] = {
    {"EndsInTheHeading", [](Bytes& f) { f.resize(kRow0 + 23); }, "ret == sizeof(compressionHeading)"},
    {"NotFinished", [](Bytes& f) { patch(f, kRow0, std::int64_t{0}); },
     "posofpos == chInfo._caseStartPos && \"Analyze dictionary part error!\""},
    {"EndsInTheIndex", [](Bytes& f) { f.pop_back(); }, "ret == chInfo._size"},
    {"IndexFarBehindTheFile", [](Bytes& f) { patch(f, kIndexPosField, INT64_MAX); }, "ret == chInfo._size"},
    {"IndexInsideTheHeading", [](Bytes& f) { patch(f, kIndexPosField, kRow0 + 23); }, "_indexPos behind the heading"},
    {"IndexBeforeTheFile", [](Bytes& f) { patch(f, kIndexPosField, INT64_MIN); }, "_indexPos behind the heading"},
    {"IndexOfNoBytes", [](Bytes& f) { patch(f, kSizeField, std::int64_t{0}); }, "_size == 24 x (n + 1)"},
    {"IndexBelowNoBytes", [](Bytes& f) { patch(f, kSizeField, std::int64_t{-24}); }, "_size == 24 x (n + 1)"},
    {"IndexOfBrokenRecords", [](Bytes& f) { patch(f, kSizeField, std::int64_t{95}); }, "_size == 24 x (n + 1)"},
    {"IndexOfFourGigabytes", [](Bytes& f) { patch(f, kSizeField, std::int64_t{24} * 178'956'970); },
     "ret == chInfo._size"},
    {"IndexPast32Bits", [](Bytes& f) { patch(f, kSizeField, 96 + (std::int64_t{3} << 32)); }, "ret == chInfo._size"},
    {"FewerRecordsThanPromised", [](Bytes& f) { patch(f, recordOf(f, -1) + 20, 4); }, "_size == 24 x (n + 1)"},
    {"MoreRecordsThanPromised", [](Bytes& f) { patch(f, recordOf(f, -1) + 20, 2); }, "_size == 24 x (n + 1)"},
    {"CountBelowNone", [](Bytes& f) { patch(f, recordOf(f, -1) + 20, -1); }, "_size == 24 x (n + 1)"},
    {"NoIndexThere", [](Bytes& f) { patch(f, recordOf(f, -1), std::int64_t{-99}); }, "firstRecord.orginalPos == -100"},
    {"FirstBlockElsewhere", [](Bytes& f) { patch(f, recordOf(f, 0), std::int64_t{999}); },
     "record 0 at the row-0 position"},
};

TEST_P(CompressedRead, DamagedHeadingOrIndexIsRefusedByItsCheck) {
    for (const Damage& damage : kUnreadable) {
        SCOPED_TRACE(damage.name);
        Bytes file = gShortFile;
        damage.does(file);
        const Reader reader(made("rows.orva", file), setting());
        const std::string failure = failureOf([&] { reader->readFilePosInfo(kRow0, false); });
        EXPECT_THAT(failure, AllOf(testing::StartsWith("DamagedFileError"), HasSubstr(path("rows.orva")),
                                   HasSubstr("[" + std::string(damage.says) + "]")));
        EXPECT_EQ(failureOf([&] { reader.read(1); }), failure);
        support::overwriteBytes(path("rows.orva"), 0, gShortFile);
        reader->readFilePosInfo(kRow0, false);
        EXPECT_EQ(reader.read(4'000), gShortRows);
    }
    for (const std::int64_t nowhere : {INT64_MIN, std::int64_t{-1}, std::int64_t{0}, INT64_MAX}) {
        EXPECT_THAT(failureOf([&] { Reader(made("rows.orva", gShortFile), setting(), nowhere); }),
                    HasSubstr("Analyze dictionary part error!"));
    }
}

TEST_P(CompressedRead, OtherBlockSizesInTheIndexAreWelcome) {
    for (const std::int32_t size : {1, 512, INT32_MAX}) {
        Bytes file = gShortFile;
        patch(file, recordOf(file, -1) + 16, size);
        EXPECT_EQ(opened(file).read(4'000), gShortRows);
    }
}

// Done to block 1, which holds the logical positions 2000 up to 4000. The blocks beside it stay readable.
const Damage kBadBlocks[] = {
    {"LongerThanABlock", [](Bytes& f) { patch(f, recordOf(f, 1) + 16, 4'190'209); }, "orginalSize in 1..4190208"},
    {"EndsBehindTheNextOnesStart", [](Bytes& f) { patch(f, recordOf(f, 1) + 16, 2'001); },
     "orginalPos + orginalSize == next orginalPos"},
    {"EndsBeforeTheNextOnesStart", [](Bytes& f) { patch(f, recordOf(f, 1) + 16, 1'999); },
     "orginalPos + orginalSize == next orginalPos"},
    {"NoCompressedBytes", [](Bytes& f) { patch(f, recordOf(f, 1) + 20, 0); }, "translateSize in 1..4190208"},
    {"CompressedBelowNone", [](Bytes& f) { patch(f, recordOf(f, 1) + 20, INT32_MIN); }, "translateSize in 1..4190208"},
    {"CompressedPastABlock", [](Bytes& f) { patch(f, recordOf(f, 1) + 20, 4'190'209); }, "translateSize in 1..4190208"},
    {"PlaceBelowZero", [](Bytes& f) { patch(f, recordOf(f, 1) + 8, std::int64_t{-1}); },
     "translatePos inside the file"},
    {"PlaceBehindTheFile", [](Bytes& f) { patch(f, recordOf(f, 1) + 8, INT64_MAX); }, "translatePos inside the file"},
    {"ReachesBehindTheFile", [](Bytes& f) { patch(f, recordOf(f, 1) + 20, 4'000'000); },
     "translatePos inside the file"},
    {"PlaceOfAnotherBlock", [](Bytes& f) { patch(f, recordOf(f, 1) + 8, kRow0 + 24); },
     "0: outCount == bInfo.orginalSize"},
    {"OneCompressedByteMore", [](Bytes& f) { ++f[static_cast<std::size_t>(recordOf(f, 1)) + 20]; },
     "0: Z_STREAM_END at the last byte"},
    {"OneCompressedByteLess", [](Bytes& f) { --f[static_cast<std::size_t>(recordOf(f, 1)) + 20]; },
     "0: Z_STREAM_END at the last byte"},
    {"NoZlibData", [](Bytes& f) { f[static_cast<std::size_t>(Layout(f).records[1].translatePos)] = 0; }, "ret!= 0"},
};

TEST_P(CompressedRead, DamagedBlockIsRefusedAndTheOthersStayReadable) {
    const Watchdog watchdog("reading around a damaged block hangs\n");
    for (const Damage& damage : kBadBlocks) {
        SCOPED_TRACE(damage.name);
        Bytes file = gShortFile;
        damage.does(file);
        const Reader reader = opened(file);
        EXPECT_THAT(
            failureOf([&] { reader.readAt(1'500, 1'000); }),
            AllOf(testing::StartsWith("DamagedFileError"), HasSubstr(path("rows.orva")),
                  HasSubstr("block 1 (logical positions 2000 to "), HasSubstr("[" + std::string(damage.says) + "]")));
        EXPECT_EQ(reader->Tell(), 2'000) << "behind the last byte delivered";
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(reader.readAt(4'000, 600), part(3'000, 500));
            EXPECT_EQ(reader.readAt(1'000, 1'000), part(0, 1'000));
            EXPECT_THAT(failureOf([&] { reader.readAt(2'000, 1); }), HasSubstr(damage.says));
        }
    }
}

// A record 0 that claims the whole file hides no other block, whatever was looked up before.
TEST_P(CompressedRead, ABlockThatClaimsItsNeighboursHidesNone) {
    Bytes file = gShortFile;
    patch(file, recordOf(file, 0) + 16, 3'400);
    const Reader reader = opened(file);
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(failureOf([&] { reader.readAt(1'000, 1); }), HasSubstr("block 0"));
        EXPECT_EQ(reader.readAt(2'000, 2'000), part(1'000, 2'000));
        EXPECT_EQ(reader.readAt(4'000, 500), part(3'000, 500));
    }
}

// Far behind the row-0 position the guess of a look-up cannot be right, so nothing but the gap answers.
TEST_P(CompressedRead, APositionThatNoBlockHoldsIsDamageNotTheEnd) {
    constexpr std::int64_t row0 = 9'000'000;
    makeFile(path("far"), {part(0, 1'000), part(1'000, 2'000), part(3'000, 500)}, row0);
    Bytes file = support::readBytes(path("far"));
    patch(file, Layout(file, row0).heading._indexPos + 2 * 24 + 16, 1'500);
    const Reader reader(made("far", file), setting(), row0);
    EXPECT_THAT(failureOf([&] { reader.readAt(row0 + 2'600, 1); }),
                AllOf(HasSubstr("DamagedFileError"), HasSubstr("bInfo.orginalPos != -200")));
    EXPECT_EQ(reader.readAt(row0 + 3'000, 9), part(3'000, 9));
}

TEST_P(CompressedRead, ABlockCutOffAfterOpeningIsDamage) {
    const Reader reader = opened(gShortFile);
    std::filesystem::resize_file(path("rows.orva"),
                                 static_cast<std::uintmax_t>(Layout(gShortFile).records[2].translatePos));
    EXPECT_THAT(failureOf([&] { reader.readAt(4'000, 1); }), HasSubstr("ret == bInfo.translateSize"));
    EXPECT_EQ(reader.readAt(1'000, 3'000), part(0, 3'000));
}

// Some bits mean nothing: filling behind the last code, a distance inside a run of equal bytes. All others are found.
TEST_P(CompressedRead, AFlippedBitIsFoundOrChangesNothing) {
    const Watchdog watchdog("reading flipped bits hangs\n");
    const filePosRecord record = Layout(gShortFile).records[1];
    const Reader reader = opened(gShortFile);
    int found = 0;
    int flipped = 0;
    for (std::int32_t i = 0; i < record.translateSize; i += 5, ++flipped) {
        SCOPED_TRACE("byte " + std::to_string(i));
        const auto offset = static_cast<std::uint64_t>(record.translatePos + i);
        support::flipBit(path("rows.orva"), offset, static_cast<unsigned>(i % 8));
        EXPECT_EQ(reader.readAt(1'000, 1'000), part(0, 1'000));
        Bytes bytes;
        const std::string failure = failureOf([&] { bytes = reader.read(2'000); });
        support::flipBit(path("rows.orva"), offset, static_cast<unsigned>(i % 8));
        found += !failure.empty();
        if (failure.empty()) {
            EXPECT_EQ(bytes, part(1'000, 2'000));
        } else {
            EXPECT_THAT(failure, AllOf(HasSubstr("DamagedFileError"), HasSubstr("block 1")));
        }
        EXPECT_TRUE(support::sameBytes(reader.readAt(2'000, 2'500), part(1'000, 2'500))) << "sound again";
    }
    EXPECT_GT(found, flipped * 8 / 10);
}

TEST_P(CompressedRead, AFailingDiskIsNoDamage) {
    const Reader reader = opened(gShortFile);
    const Reader unopened(path("rows.orva"), setting());
    const std::string broken = fileError(1003, EIO, path("rows.orva"));
    for (const Call call : {Call::Read, Call::Seek}) {
        const Failing failing(call, EIO);
        EXPECT_EQ(failureOf([&] { reader.readAt(1'200, 100); }), broken);
        EXPECT_EQ(reader->Tell(), 1'200);
        EXPECT_EQ(reader->Good(), 0);
        EXPECT_EQ(failureOf([&] { unopened->readFilePosInfo(kRow0, false); }), broken);
    }
    EXPECT_EQ(reader.read(1'800), part(200, 1'800));
    unopened->readFilePosInfo(kRow0, false);
    EXPECT_EQ(unopened.read(3'500), gShortRows);
}

class Inspection : public CompressedRead {};
INSTANTIATE_TEST_SUITE_P(Settings, Inspection, testing::Values(0));

TEST_P(Inspection, FindsThePartAndNamesItsBadBlocks) {
    Bytes swapped = gShortFile;
    swapAll(swapped);
    for (const bool other : {false, true}) {
        Bytes file = other ? swapped : gShortFile;
        ++file[static_cast<std::size_t>(Layout(gShortFile).records[1].translatePos) + 9];
        const std::string name = made("rows.orva", file);
        const auto part = orva::findPart(name);
        ASSERT_TRUE(part);
        EXPECT_EQ(part->row0Pos, kRow0);
        EXPECT_EQ(part->swapped, other);
        orva::finishedPart inspected(name, *part);
        EXPECT_EQ(inspected.blockCount(), 3u);
        EXPECT_EQ(inspected.dataSize(), 3'500);
        EXPECT_EQ(failureOf([&] { inspected.verifyBlock(0); }), "");
        EXPECT_THAT(failureOf([&] { inspected.verifyBlock(1); }), HasSubstr("block 1 (logical positions 2000 to 4000"));
        EXPECT_EQ(failureOf([&] { inspected.verifyBlock(2); }), "");
    }
    EXPECT_FALSE(orva::findPart(made("none", Bytes(10'000, 0))));
}

}  // namespace
}  // namespace core
