// The two block codecs, with whole, damaged, cut and misused blocks. The bytes of heading and index are those that
// modelTest.cpp turns into the other byte order, and compressedTest.cpp and recovery/damageTest.cpp change by offset.
#include "coreTest.h"
#include "format/blockTransfer.h"
#include "format/storedBytes.h"

using namespace support;

const Bytes kRows = RandomBytes(7).rows(100'000), kRandom = RandomBytes(8).noise(kBlock);

Bytes deflated(const Bytes& rows, int level = 1) {
    Bytes out(zlibCompressBlock::compressRoom(sizeOf(rows)));
    const auto outcome = zlibCompressBlock().deflateWhole(rows.data(), sizeOf(rows), out.data(), sizeOf(out), level);
    EXPECT_EQ(outcome.end, blockOutcome::complete);
    out.resize(outcome.produced);
    return out;
}
// The public operations return the number of bytes produced, and 0 for a call that zlib refuses. The codec's fuzz
// target compares with zlib how a stream ended, and recovery/damageTest.cpp checks it for blocks.
TEST(ZlibCodec, AnswersByTheBytesProduced) {
    const Bytes packed = deflated(kRows);
    constexpr auto pack = &zlibCompressBlock::compressBlock, unpack = &zlibCompressBlock::decompressBlock;
    const struct {
        const char* name;
        decltype(pack) call;
        Bytes from;
        std::uint32_t room, lowest, highest;
    } cases[] = {
        {"Whole", unpack, packed, 100'000, 100'000, 100'000},
        {"WholeTheOtherWay", pack, kRows, 120'000, 1'000, 99'999},
        {"TooLittleRoomToInflateGivesTheRoom", unpack, packed, 99'999, 99'999, 99'999},
        {"TooLittleRoomToDeflateGivesTheRoom", pack, kRandom, 100'000, 100'000, 100'000},
        {"NoZlibDataGivesNothing", unpack, Bytes(1'000, 'x'), 1'000, 0, 0},
        {"ACutStreamGivesItsPart", unpack, slice(packed, 0, packed.size() / 2), 100'000, 10'000, 99'999},
    };
    for (const auto& c : cases) {
        Bytes from = c.from, to(c.room + 1, 0xEE);
        std::uint32_t outCount = c.room, none = c.room;
        const auto result = (zlibCompressBlock().*c.call)(from.data(), sizeOf(from), to.data(), outCount);
        EXPECT_TRUE(outCount >= c.lowest && outCount <= c.highest && result == std::int64_t{outCount}) << c.name;
        EXPECT_EQ(to[c.room], 0xEE) << c.name;
        EXPECT_EQ((zlibCompressBlock().*c.call)(from.data(), sizeOf(from), nullptr, none), 0) << c.name;
        EXPECT_EQ(none, c.room) << "no destination";
    }
}

TEST(ZlibCodec, AHigherLevelIsWorthItsTimeAndNeedsItsRoom) {
    EXPECT_GT(deflated(kRows).size(), deflated(kRows, 2).size());
    EXPECT_GT(deflated(kRows, 2).size(), deflated(kRows, zlibCompressBlock::bestLevel()).size());
    unsigned char tight = 0;
    EXPECT_NE(zlibCompressBlock().deflateWhole(kRandom.data(), 100, &tight, 1, 6).end, blockOutcome::complete);
}

// Blocks of noise are stored without trying; a block that is noise in part loses at most a hundredth of its ratio.
TEST(ZlibCodec, NoiseInPartCostsNoRatio) {
    const struct {
        const char* name;
        std::size_t begin, count, every;  // of each `every` bytes after `begin`, up to `count`, the first repeats
    } cases[] = {
        {"AHundredthAndAHalfAtSomePlace", 1'234'567, kBlock / 64, 1},
        {"AByteOfEight", 0, kBlock, 8},
        {"AByteOfThirty", 0, kBlock, 30},
        {"AllButTheBeginning", 3'000'000, kBlock - 3'000'000, 2},
    };
    Bytes scratch(orva::deflateRoom());
    zlibCompressBlock codec;
    for (const auto& c : cases) {
        Bytes block = kRandom;
        for (std::size_t i = 0; i < c.count; i += c.every) block[c.begin + i] = 7;
        const orva::deflatedBlock made = orva::deflateBlock(codec, 1, block.data(), kBlock, scratch.data());
        const auto without = static_cast<double>(deflated(block).size());
        EXPECT_LE(made.length + made.secondLength, 1.01 * without) << c.name;
    }
}

TEST(Lz4Codec, CompressesByLevelAndReportsWhatDoesNotFit) {
    constexpr std::uint32_t failed = 1U << 31;  // or above
    Bytes rows = kRows, packed(120'000), back(100'000);
    char* const from = reinterpret_cast<char*>(rows.data());
    char* const to = reinterpret_cast<char*>(packed.data());
    const auto unpack = [&](std::uint32_t size, std::uint32_t room) {
        return lz4CompressBlock::decompressBlock(to, size, reinterpret_cast<char*>(back.data()), room);
    };
    std::vector<std::uint32_t> sizes;
    for (const int level : {0, 1, 12}) {
        EXPECT_EQ(lz4CompressBlock::compressBlock(from, 100'000, to, level == 0 ? 20'000 : 100, level), 0U);
        const auto size = sizes.emplace_back(lz4CompressBlock::compressBlock(from, 100'000, to, 120'000, level));
        EXPECT_TRUE(unpack(size, 100'000) == 100'000 && back == kRows);
        EXPECT_TRUE(unpack(size, 99'999) >= failed && unpack(size - 3, 100'000) >= failed);
    }
    EXPECT_TRUE(sizes[0] > sizes[1] && sizes[1] == sizes[2]);
}

// An index can be longer than a file transfers at a time.
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
