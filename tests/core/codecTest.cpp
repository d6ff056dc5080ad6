// The two block codecs: what comes back for whole, damaged, cut and misused blocks.
#include "coreTest.h"
#include "format/blockTransfer.h"

#include <orva/lz4Compress.h>
#include <orva/zlibCompress.h>

namespace core {
namespace {

const Bytes kRows = RandomBytes(7).rows(100'000);
const Bytes kNoise = RandomBytes(8).noise(kBlock);

std::uint32_t sizeOf(const Bytes& bytes) {
    return static_cast<std::uint32_t>(bytes.size());
}
Bytes deflated(const Bytes& rows, int level = 1) {
    Bytes out(zlibCompressBlock::compressRoom(sizeOf(rows)));
    const blockOutcome outcome =
        zlibCompressBlock().deflateWhole(rows.data(), sizeOf(rows), out.data(), sizeOf(out), level);
    EXPECT_EQ(outcome.end, blockOutcome::complete);
    out.resize(outcome.produced);
    return out;
}
// The public operations tell how many bytes came out, and 0 for a call that zlib refuses. How a stream ended is held
// against zlib by the fuzz target of the codec, and told of blocks in recovery/damageTest.cpp.
TEST(ZlibCodec, AnswersByTheBytesProduced) {
    const Bytes packed = deflated(kRows);
    const struct {
        const char* name;
        bool compress;
        Bytes from;
        std::uint32_t room, lowest, highest;
    } cases[] = {
        {"Whole", false, packed, 100'000, 100'000, 100'000},
        {"WholeTheOtherWay", true, kRows, 120'000, 1'000, 99'999},
        {"TooLittleRoomToInflateGivesTheRoom", false, packed, 99'999, 99'999, 99'999},
        {"TooLittleRoomToDeflateGivesTheRoom", true, kNoise, 100'000, 100'000, 100'000},
        {"NoZlibDataGivesNothing", false, Bytes(1'000, 'x'), 1'000, 0, 0},
        {"ACutStreamGivesItsPart", false, slice(packed, 0, packed.size() / 2), 100'000, 10'000, 99'999},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes from = c.from, to(c.room + 1, 0xEE);
        const auto run = [&](unsigned char* dest, std::uint32_t& room) {
            zlibCompressBlock codec;
            return c.compress ? codec.compressBlock(from.data(), sizeOf(from), dest, room)
                              : codec.decompressBlock(from.data(), sizeOf(from), dest, room);
        };
        std::uint32_t outCount = c.room;
        const auto result = static_cast<std::uint32_t>(run(to.data(), outCount));
        EXPECT_TRUE(result >= c.lowest && result <= c.highest && outCount == result) << result;
        EXPECT_EQ(to[c.room], 0xEE);
        EXPECT_TRUE(run(nullptr, outCount) == 0 && outCount == result) << "no destination";
    }
}

TEST(ZlibCodec, AHigherLevelIsWorthItsTimeAndNeedsItsRoom) {
    EXPECT_GT(deflated(kRows).size(), deflated(kRows, 2).size());
    EXPECT_GT(deflated(kRows, 2).size(), deflated(kRows, zlibCompressBlock::bestLevel()).size());
    unsigned char tight = 0;
    EXPECT_NE(zlibCompressBlock().deflateWhole(kNoise.data(), 100, &tight, 1, 6).end, blockOutcome::complete);
}

// Blocks of noise are stored without trying; what is noise in part only loses at most a hundredth of its ratio.
TEST(ZlibCodec, NoiseInPartCostsNoRatio) {
    const struct {
        const char* name;
        std::size_t begin, count, every;  // of each so many bytes behind `begin`, up to `count`, the first repeats
    } cases[] = {
        {"AHundredthAndAHalfAtSomePlace", 1'234'567, kBlock / 64, 1},
        {"AByteOfEight", 0, kBlock, 8},
        {"AByteOfThirty", 0, kBlock, 30},
        {"AllButTheBeginning", 3'000'000, kBlock - 3'000'000, 2},
    };
    Bytes scratch(orva::deflateRoom());
    zlibCompressBlock codec;
    for (const auto& c : cases) {
        Bytes block = kNoise;
        for (std::size_t i = 0; i < c.count; i += c.every) block[c.begin + i] = 7;
        const orva::deflatedBlock made = orva::deflateBlock(codec, 1, block.data(), kBlock, scratch.data());
        const auto without = static_cast<double>(deflated(block).size());
        EXPECT_LE(made.length + made.secondLength, 1.01 * without) << c.name;
    }
}

TEST(Lz4Codec, CompressesByLevelAndReportsWhatDoesNotFit) {
    constexpr std::uint32_t failed = 1U << 31;  // and above
    Bytes rows = kRows, packed(120'000), back(100'000);
    char* const from = reinterpret_cast<char*>(rows.data());
    char* const to = reinterpret_cast<char*>(packed.data());
    const auto unpack = [&](std::uint32_t size, std::uint32_t room) {
        return lz4CompressBlock::decompressBlock(to, size, reinterpret_cast<char*>(back.data()), room);
    };
    std::vector<std::uint32_t> sizes;
    for (const int level : {0, 1, 12}) {
        EXPECT_EQ(lz4CompressBlock::compressBlock(from, 100'000, to, level == 0 ? 20'000 : 100, level), 0U);
        const std::uint32_t size =
            sizes.emplace_back(lz4CompressBlock::compressBlock(from, 100'000, to, 120'000, level));
        EXPECT_TRUE(unpack(size, 100'000) == 100'000 && back == kRows);
        EXPECT_TRUE(unpack(size, 99'999) >= failed && unpack(size - 3, 100'000) >= failed);
    }
    EXPECT_TRUE(sizes[0] > sizes[1] && sizes[1] == sizes[2]);
}

}  // namespace
}  // namespace core
