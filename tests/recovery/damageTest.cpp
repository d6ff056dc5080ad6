// Every way in which heading, index and records can lie, through every way into a file. The corpus is made here, each
// file with its reason.
#include "recoveryTest.h"

#include <orva/blockSize.h>

#include <sys/resource.h>

#include <functional>
#include <limits>

namespace recovery {

constexpr std::int64_t kSmall = 64;  // a row-0 position that keeps the files small
constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
const orva::foundPart kSmallPart{kSmall, false};

// A file taken apart. Blocks of 30, 50 and 40 bytes of rows.
struct Lie {
    Layout layout;
    Bytes rest;  // behind the index
    std::int64_t indexAt = layout.heading._indexPos;

    filePosRecord& record(std::size_t i) { return layout.records[i]; }
    compressionHeading& heading() { return layout.heading; }
};

struct LieCase {
    const char* name;
    void (*tell)(Lie&);
    const char* opens;    // the check that refuses to open the file; "" when it opens
    int readable;         // blocks that can be verified then
    const char* appends;  // the check that refuses an append
};

constexpr const char* kRepeats = "Analyze dictionary part error!";
constexpr const char* kWhole = "_size == 24 x (n + 1)";
constexpr const char* kCut = "ret == chInfo._size";
constexpr const char* kFollow = "blocks follow each other without gaps";

const LieCase kLies[] = {
    {"Nothing", [](Lie&) {}, "", 3, ""},
    {"HeadingSaysOtherPlace", [](Lie& l) { l.heading()._caseStartPos += 1; }, kRepeats, 0, kRepeats},
    {"HeadingIsZeros", [](Lie& l) { l.heading() = {}; }, kRepeats, 0, kRepeats},
    {"IndexAtNegativePlace", [](Lie& l) { l.heading()._indexPos = -1; }, "_indexPos behind the heading", 0,
     "_indexPos behind the heading"},
    {"IndexAtLeastPlace", [](Lie& l) { l.heading()._indexPos = kLeast; }, "_indexPos behind the heading", 0,
     "_indexPos behind the heading"},
    {"IndexInHeading", [](Lie& l) { l.heading()._indexPos = kSmall + 23; }, "_indexPos behind the heading", 0,
     "_indexPos behind the heading"},
    {"IndexBehindFile", [](Lie& l) { l.heading()._indexPos += 1; }, kCut, 0, kCut},
    {"IndexAtMostPlace", [](Lie& l) { l.heading()._indexPos = kMost; }, kCut, 0, kCut},
    {"IndexAtBlock", [](Lie& l) { l.heading()._indexPos = kSmall + 24; }, "firstRecord.orginalPos == -100", 0,
     "firstRecord.orginalPos == -100"},
    {"SizeZero", [](Lie& l) { l.heading()._size = 0; }, kWhole, 0, kWhole},
    {"SizeNegative", [](Lie& l) { l.heading()._size = -24; }, kWhole, 0, kWhole},
    {"SizeLeast", [](Lie& l) { l.heading()._size = kLeast; }, kWhole, 0, kWhole},
    {"SizeNotWholeRecords", [](Lie& l) { l.heading()._size -= 1; }, kWhole, 0, kWhole},
    {"SizeOneRecordShort", [](Lie& l) { l.heading()._size -= 24; }, kWhole, 0, kWhole},
    {"SizeOneRecordLong",
     [](Lie& l) {
         l.heading()._size += 24;
         l.rest = Bytes(24);
     },
     kWhole, 0, kWhole},
    {"SizePastTheFile", [](Lie& l) { l.heading()._size += 24; }, kCut, 0, kCut},
    {"SizeWithHighHalf", [](Lie& l) { l.heading()._size += std::int64_t{3} << 32; }, kCut, 0, kCut},
    {"SizeMost", [](Lie& l) { l.heading()._size = kMost / 24 * 24; }, kCut, 0, kCut},
    {"NoMark", [](Lie& l) { l.layout.first.orginalPos = -200; }, "firstRecord.orginalPos == -100", 0,
     "firstRecord.orginalPos == -100"},
    {"BlockSizeZero", [](Lie& l) { l.layout.first.orginalSize = 0; }, "firstRecord.orginalSize > 0", 0,
     "firstRecord.orginalSize > 0"},
    {"BlockSizeNegative", [](Lie& l) { l.layout.first.orginalSize = INT32_MIN; }, "firstRecord.orginalSize > 0", 0,
     "firstRecord.orginalSize > 0"},
    {"OtherBlockSizeIsFine", [](Lie& l) { l.layout.first.orginalSize = 1; }, "", 3, ""},
    {"PlaceOfFirstRecordIsFree", [](Lie& l) { l.layout.first.translatePos = -7; }, "", 3, ""},
    {"CountNegative", [](Lie& l) { l.layout.first.translateSize = -1; }, kWhole, 0, kWhole},
    {"CountMinusAll", [](Lie& l) { l.layout.first.translateSize = INT32_MIN; }, kWhole, 0, kWhole},
    {"CountTooHigh", [](Lie& l) { l.layout.first.translateSize = 4; }, kWhole, 0, kWhole},
    {"CountTooLow", [](Lie& l) { l.layout.first.translateSize = 2; }, kWhole, 0, kWhole},
    {"CountMost", [](Lie& l) { l.layout.first.translateSize = INT32_MAX; }, kWhole, 0, kWhole},
    {"CountThatWrapsAround", [](Lie& l) { l.layout.first.translateSize = 178956970 + 3; }, kWhole, 0, kWhole},
    {"RowsBeginElsewhere", [](Lie& l) { l.record(0).orginalPos -= 1; }, "record 0 at the row-0 position", 0, kFollow},
    {"PositionsEqual", [](Lie& l) { l.record(2).orginalPos = l.record(1).orginalPos; }, "orginalPos ascends", 0,
     "orginalPos ascends"},
    {"PositionsDescend", [](Lie& l) { std::swap(l.record(1), l.record(2)); }, "orginalPos ascends", 0,
     "orginalPos ascends"},
    {"PositionNegative", [](Lie& l) { l.record(1).orginalPos = kLeast; }, "orginalPos ascends", 0,
     "orginalPos ascends"},
    {"PositionOverflows", [](Lie& l) { l.record(2).orginalPos = kMost; }, "orginalSize >= 1", 0, "orginalSize >= 1"},
    {"RowsZero", [](Lie& l) { l.record(1).orginalSize = 0; }, "orginalSize >= 1", 0, "orginalSize >= 1"},
    {"RowsNegative", [](Lie& l) { l.record(1).orginalSize = INT32_MIN; }, "orginalSize >= 1", 0, "orginalSize >= 1"},
    {"RowsAboveABlock", [](Lie& l) { l.record(2).orginalSize = kBlock + 1; }, "", 2, kFollow},
    {"RowsMost", [](Lie& l) { l.record(2).orginalSize = INT32_MAX; }, "", 2, kFollow},
    {"RowsTooMany", [](Lie& l) { l.record(2).orginalSize += 1; }, "", 2, "outCount == bInfo.orginalSize"},
    {"RowsTooFew", [](Lie& l) { l.record(2).orginalSize -= 1; }, "", 2, "fData->fpos == endpos"},
    {"GapOfRows", [](Lie& l) { l.record(1).orginalPos += 1; }, "", 1, kFollow},
    {"OverlapOfRows", [](Lie& l) { l.record(1).orginalPos -= 1; }, "", 1, kFollow},
    {"BytesZero", [](Lie& l) { l.record(1).translateSize = 0; }, "", 2, kFollow},
    {"BytesNegative", [](Lie& l) { l.record(1).translateSize = -1; }, "", 2, kFollow},
    {"BytesAboveABlock", [](Lie& l) { l.record(1).translateSize = kBlock + 1; }, "", 2, kFollow},
    {"BytesMost", [](Lie& l) { l.record(1).translateSize = INT32_MAX; }, "", 2, kFollow},
    {"BytesPastTheFile", [](Lie& l) { l.record(2).translateSize += 97; }, "", 2, "_indexPos behind the last block"},
    {"BytesTooMany", [](Lie& l) { l.record(2).translateSize += 1; }, "", 2, "_indexPos behind the last block"},
    {"BytesTooFew", [](Lie& l) { l.record(2).translateSize -= 1; }, "", 2, "Z_STREAM_END at the last byte"},
    {"PlaceNegative", [](Lie& l) { l.record(1).translatePos = -1; }, "", 2, kFollow},
    {"PlaceLeast", [](Lie& l) { l.record(1).translatePos = kLeast; }, "", 2, kFollow},
    {"PlaceMost", [](Lie& l) { l.record(1).translatePos = kMost; }, "", 2, kFollow},
    {"PlaceOfAnotherBlock", [](Lie& l) { l.record(1).translatePos = l.record(0).translatePos; }, "", 2, kFollow},
    {"PlaceInIndex", [](Lie& l) { l.record(1).translatePos = l.indexAt; }, "", 2, kFollow},
    {"BlockCutOut",
     [](Lie& l) {
         l.layout.records.erase(l.layout.records.begin() + 1);
         l.heading()._size -= 24;
         l.layout.first.translateSize = 2;
     },
     "", 1, kFollow},
};

// Peak of memory that is resident, in KiB.
long peakMemory() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

class DamageTest : public support::TempDir {
protected:
    DamageTest() {
        core::makeFile(fFile, fBlocks, kSmall);
        fBytes = support::readBytes(fFile);
    }

    Bytes told(void (*tell)(Lie&)) const {
        Lie lie{Layout(fBytes, kSmall), {}};
        tell(lie);
        Bytes bytes = support::slice(fBytes, 0, static_cast<std::size_t>(lie.indexAt));
        const Bytes heading = core::bytesOf(lie.heading());
        std::copy(heading.begin(), heading.end(), bytes.begin() + kSmall);
        bytes = bytes + core::bytesOf(lie.layout.first);
        for (const filePosRecord& record : lie.layout.records) bytes = bytes + core::bytesOf(record);
        return bytes + lie.rest;
    }

    // Rows from the start on, up to the end or the first failure.
    std::string read(int setting, Bytes& rows) const {
        return failureOf([&] {
            const core::Reader reader(fFile, setting, kSmall);
            for (Bytes piece = reader.read(7); !piece.empty(); piece = reader.read(7)) rows = rows + piece;
        });
    }
    std::string append() const {
        return failureOf([&] {
            const core::Reader stream(fFile, 0);
            stream->readFilePosInfo(kSmall, false);
            const auto end = kSmall + orva::finishedPart(fFile, kSmallPart).dataSize();
            stream->Seek(end, ORVA_StrBaseIO::SeekFromStart);
            stream->setFileToAppend(end, false);
            stream->Write("new rows", 8);
            stream->Close();
        });
    }
    // By the stream that knows the part, which the index of another process's append can take by surprise.
    std::string appendBehindGoodIndex(const Bytes& bytes) const {
        support::writeBytes(fFile, fBytes);
        const core::Reader stream(fFile, 0, kSmall);
        support::writeBytes(fFile, bytes);
        const auto end = kSmall + static_cast<std::int64_t>(fAll.size());
        stream->Seek(end, ORVA_StrBaseIO::SeekFromStart);
        return failureOf([&] { stream->setFileToAppend(end, false); });
    }
    std::string verify(int& good) const {
        good = 0;
        return failureOf([&] {
            orva::finishedPart part(fFile, kSmallPart);
            for (std::uint32_t i = 0; i < part.blockCount(); ++i) {
                const std::string failure = failureOf([&] { part.verifyBlock(i); });
                good += failure.empty() ? 1 : 0;
                EXPECT_TRUE(failure.empty() || saysWhy(failure)) << failure;
            }
        });
    }
    bool saysWhy(const std::string& failure) const {
        return failure.rfind("DamagedFileError ", 0) == 0 && failure.find(fFile) != std::string::npos;
    }
    bool isDamage(const std::string& failure) const { return failure.empty() || saysWhy(failure); }

    // Through every way in. Rows that come out are the file's own, and in their places.
    void enterEverywhere(const Bytes& bytes) {
        ++fEntered;
        support::writeBytes(fFile, bytes);
        for (const int setting : {0, 2}) {
            Bytes rows;
            const std::string failure = read(setting, rows);
            EXPECT_TRUE(isDamage(failure)) << failure;
            EXPECT_TRUE(support::sameBytes(rows, support::slice(fAll, 0, rows.size())));
        }
        int good = 0;
        EXPECT_TRUE(isDamage(verify(good)));
        for (const std::optional<orva::foundPart>& part :
             {std::optional(kSmallPart), std::optional<orva::foundPart>()}) {
            const std::string failure = failureOf([&] { orva::recover(fFile, path("out"), {part}); });
            EXPECT_TRUE(isDamage(failure)) << failure;
            EXPECT_TRUE(!failure.empty() || std::filesystem::file_size(path("out")) >= 24);
        }
        EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), bytes));
        const std::string failure = append();
        EXPECT_TRUE(isDamage(failure)) << failure;
        EXPECT_TRUE(failure.empty() || support::readBytes(fFile) == bytes);
    }

    const std::string fFile = path("file");
    const std::vector<Bytes> fBlocks = Append{"", {30, 50, 40}, 0, {}}.oldBlocks();
    const Bytes fAll = core::joined(fBlocks);
    Bytes fBytes;
    int fEntered = 0;
};

TEST_F(DamageTest, EveryLieIsToldByTheCheckThatItFails) {
    for (const LieCase& row : kLies) {
        SCOPED_TRACE(row.name);
        const Bytes bytes = told(row.tell);
        support::writeBytes(fFile, bytes);
        int good = 0;
        const std::string opening = verify(good);
        const std::string appending = appendBehindGoodIndex(bytes);
        EXPECT_EQ(opening.empty(), row.opens[0] == '\0') << opening;
        EXPECT_THAT(opening, testing::HasSubstr(row.opens));
        EXPECT_EQ(good, row.readable);
        EXPECT_EQ(appending.empty(), row.appends[0] == '\0') << appending;
        EXPECT_THAT(appending, testing::HasSubstr(row.appends));
        enterEverywhere(bytes);
        // Its blocks are whole, and tell so without the index.
        const orva::recoverReport report =
            orva::recover((support::writeBytes(fFile, bytes), fFile), path("out"), {kSmallPart});
        EXPECT_EQ(report.blocks, 3U);
        EXPECT_EQ(report.lost.size(), 0U);
    }
}

TEST_F(DamageTest, EveryTruncation) {
    for (std::size_t size = 0; size < fBytes.size(); ++size) {
        SCOPED_TRACE("cut to " + std::to_string(size));
        enterEverywhere(support::slice(fBytes, 0, size));
    }
}

TEST_F(DamageTest, EveryByteOfHeadingAndIndexFlipped) {
    const Layout layout(fBytes, kSmall);
    std::vector<std::int64_t> places;
    for (std::int64_t at = kSmall; at < kSmall + 24; ++at) places.push_back(at);
    for (std::int64_t at = layout.heading._indexPos; at < static_cast<std::int64_t>(fBytes.size()); ++at) {
        places.push_back(at);
    }
    for (const std::int64_t at : places) {
        for (const int bit : {static_cast<int>(at * 3 % 7), 7}) {
            SCOPED_TRACE("bit " + std::to_string(bit) + " of byte " + std::to_string(at));
            Bytes bytes = fBytes;
            bytes[static_cast<std::size_t>(at)] ^= static_cast<unsigned char>(1 << bit);
            enterEverywhere(bytes);
        }
    }
}

// Files that are not what they claim in ways that cost time or memory: each ends at once, within little memory.
TEST_F(DamageTest, NothingIsAllocatedOrSearchedForALie) {
    enterEverywhere(fBytes);
    const long before = peakMemory();
    const core::Watchdog watchdog("DamageTest.NothingIsAllocatedOrSearchedForALie");
    support::RandomBytes random(11);
    struct Hostile {
        const char* reason;
        Bytes bytes;
    };
    // A heading, an index of `count` records that all claim full blocks at the same place, as many as fit.
    const auto manyRecords = [&](std::int32_t count) {
        Bytes bytes = support::slice(fBytes, 0, static_cast<std::size_t>(Layout(fBytes, kSmall).heading._indexPos));
        const compressionHeading heading{kSmall, static_cast<std::int64_t>(bytes.size()),
                                         24 * (std::int64_t{count} + 1)};
        const Bytes head = core::bytesOf(heading);
        std::copy(head.begin(), head.end(), bytes.begin() + kSmall);
        bytes = bytes + core::bytesOf(filePosRecord{-100, 0, static_cast<std::int32_t>(kBlock), count});
        for (std::int32_t i = 0; i < count; ++i) {
            bytes = bytes + core::bytesOf(
                                filePosRecord{kSmall + i * kBlock, kSmall + 24, static_cast<std::int32_t>(kBlock), 9});
        }
        return bytes;
    };
    Bytes likeStreams;
    while (likeStreams.size() < 100'000) likeStreams = likeStreams + Bytes{0x78, 0x01};
    Bytes likeHeadings;
    for (std::int64_t at = 0; at < 100'000; at += 24) {
        likeHeadings = likeHeadings + core::bytesOf(compressionHeading{at, at + 24, 24});
    }
    Bytes likeIndexes;
    while (likeIndexes.size() < 100'000)
        likeIndexes = likeIndexes + core::bytesOf(filePosRecord{-100, 0, 1, INT32_MAX});
    Bytes stored{0x78, 0x01};  // one stream of stored blocks that never ends
    while (stored.size() < 100'000) stored = stored + Bytes{0x00, 0x05, 0x00, 0xfa, 0xff, 1, 2, 3, 4, 5};
    const Bytes front = support::slice(fBytes, 0, kSmall);
    const Hostile corpus[] = {
        {"Empty", {}},
        {"Noise", random.noise(100'000)},
        {"ManyRecords", manyRecords(40)},
        {"LooksLikeStreams", front + likeStreams},
        {"LooksLikeHeadings", likeHeadings},
        {"LooksLikeIndexes", fBytes + likeIndexes},
        {"HeadlessBeforeIndexes",
         support::slice(fBytes, 0, kSmall) + Bytes(24) + support::slice(fBytes, kSmall + 24, 60) + likeIndexes},
        {"EndlessStream", front + Bytes(24) + stored},
    };
    for (const Hostile& file : corpus) {
        SCOPED_TRACE(file.reason);
        enterEverywhere(file.bytes);
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(peakMemory() - before, 64 * 1024);
#else
    static_cast<void>(before);
#endif
}

}  // namespace recovery
