// The two block codecs: what comes back for whole, damaged, cut and misused blocks.
#include "coreTest.h"
#include "format/blockTransfer.h"
#include "support/secondReader.h"

#include <orva/lz4Compress.h>
#include <orva/zlibCompress.h>

namespace core {
namespace {

const Bytes kRows = support::RandomBytes(7).rows(100'000);
const Bytes kNoise = support::RandomBytes(8).noise(kBlock);

Bytes deflated(const Bytes& rows, int level = 1) {
    const auto size = static_cast<std::uint32_t>(rows.size());
    Bytes out(zlibCompressBlock::compressRoom(size));
    const blockOutcome outcome =
        zlibCompressBlock().deflateWhole(rows.data(), size, out.data(), static_cast<std::uint32_t>(out.size()), level);
    EXPECT_EQ(outcome.end, blockOutcome::complete);
    out.resize(outcome.produced);
    return out;
}

// The public operations tell how many bytes came out, and 0 for a call that zlib refuses.
TEST(ZlibCodec, AnswersByTheBytesProduced) {
    const Bytes packed = deflated(kRows);
    const struct {
        const char* name;
        bool compress;
        Bytes from;
        std::uint32_t room, lowest, highest;
    } cases[] = {
        {"Whole", false, packed, 100'000, 100'000, 100'000},
        {"WholeBlockOfNoise", false, deflated(kNoise), kBlock, kBlock, kBlock},
        {"WholeTheOtherWay", true, kRows, 120'000, 1'000, 99'999},
        {"TooLittleRoomToInflateGivesTheRoom", false, packed, 99'999, 99'999, 99'999},
        {"TooLittleRoomToDeflateGivesTheRoom", true, kNoise, 100'000, 100'000, 100'000},
        {"NoZlibDataGivesNothing", false, Bytes(1'000, 'x'), 1'000, 0, 0},
        {"ACutStreamGivesItsPart", false, support::slice(packed, 0, packed.size() / 2), 100'000, 10'000, 99'999},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto run = [&](unsigned char* to, std::uint32_t& room) {
            Bytes from = c.from;
            const auto size = static_cast<std::uint32_t>(from.size());
            zlibCompressBlock codec;
            return static_cast<std::uint32_t>(c.compress ? codec.compressBlock(from.data(), size, to, room)
                                                         : codec.decompressBlock(from.data(), size, to, room));
        };
        Bytes to(c.room + 1, 0xEE);
        std::uint32_t outCount = c.room;
        const std::uint32_t result = run(to.data(), outCount);
        EXPECT_TRUE(result >= c.lowest && result <= c.highest && outCount == result) << result;
        EXPECT_EQ(to[c.room], 0xEE);
        outCount = 500;
        EXPECT_TRUE(run(nullptr, outCount) == 0 && outCount == 500) << "no destination";
    }
    std::uint32_t none = 0;
    EXPECT_ASSERTION(zlibCompressBlock().compressBlock(nullptr, 0, nullptr, none), "souce||dest||outCount||inCount");
}

TEST(ZlibCodec, EveryLevelMakesOneStreamThatAnyReaderTakes) {
    for (int level = 1; level <= zlibCompressBlock::bestLevel(); ++level) {
        SCOPED_TRACE(level);
        for (const Bytes& rows : {kRows, support::slice(kNoise, 0, 300'000), Bytes(kBlock), Bytes(1, 'x')}) {
            const Bytes packed = deflated(rows, level);
            const support::Inflated back = support::byZlib(packed.data(), packed.size());
            EXPECT_TRUE(back.whole && back.taken == std::ssize(packed) && back.rows == rows);
            EXPECT_EQ(packed[0], 0x78);
        }
    }
    EXPECT_LT(deflated(kRows, zlibCompressBlock::bestLevel()).size(), deflated(kRows, 2).size());
    EXPECT_LT(deflated(kRows, 2).size(), deflated(kRows).size());
}

TEST(ZlibCodec, TellsHowTheStreamEnded) {
    const Bytes rows = support::slice(kNoise, 0, 3'000);
    const Bytes packed = deflated(rows);
    Bytes out(4'000);
    const auto inflate = [&](const Bytes& block, std::uint32_t room) {
        return zlibCompressBlock().inflateWhole(block.data(), static_cast<std::uint32_t>(block.size()), out.data(),
                                                room);
    };
    for (const Bytes& whole : {packed, packed + Bytes{0}}) {
        const blockOutcome outcome = inflate(whole, 4'000);
        EXPECT_TRUE(outcome.end == blockOutcome::complete && outcome.produced == 3'000 &&
                    outcome.consumed == packed.size() && support::slice(out, 0, 3'000) == rows);
    }
    EXPECT_EQ(inflate(packed, 2'999).end, blockOutcome::incomplete);
    EXPECT_EQ(inflate(support::slice(packed, 0, packed.size() - 1), 3'000).end, blockOutcome::incomplete);
    int fullLength = 0;
    for (std::size_t i = 0; i < packed.size(); i += 7) {
        Bytes damaged = packed;
        damaged[i] = static_cast<unsigned char>(damaged[i] ^ (1 << i % 8));
        const blockOutcome outcome = inflate(damaged, 3'000);
        EXPECT_NE(outcome.end, blockOutcome::complete) << "byte " << i;
        fullLength += outcome.produced == 3'000;
    }
    EXPECT_GT(fullLength, 300) << "the length alone tells too often for this test to show anything";
}

// Whoever has the compressed bytes from elsewhere than the file.
TEST(ZlibCodec, InflatesNoBlockLongerThanItsMemory) {
    ORVA_File file;
    zlibCompressBlock codec;
    Bytes from = deflated(Bytes(kBlock + 1));
    const filePosRecord lie{1, 25, kBlock + 1, static_cast<std::int32_t>(from.size())};
    Bytes rows(kBlock + 1);
    EXPECT_THAT(failureOf([&] {
                    orva::inflateBlock({file, codec, from.data()}, {lie, 0, {}, 0}, rows.data());
                }),
                testing::HasSubstr("orginalSize in 1.."));
}

// Blocks of noise are stored without trying; what is noise in part only loses at most a hundredth of its ratio.
TEST(ZlibCodec, NoiseInPartCostsNoRatio) {
    const struct {
        const char* name;
        std::size_t begin, count, every;  // of each so many bytes behind `begin`, up to `count`, the first repeats
    } cases[] = {
        {"AllNoise", 0, 0, 1},
        {"AHundredthAndAHalfAtSomePlace", 1'234'567, kBlock / 64, 1},
        {"HalfOfIt", kBlock / 2, kBlock / 2, 1},
        {"AByteOfEight", 0, kBlock, 8},
        {"AByteOfThirty", 0, kBlock, 30},
        {"AllButTheBeginning", 3'000'000, kBlock - 3'000'000, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes block = kNoise;
        for (std::size_t i = 0; i < c.count; i += c.every) block[c.begin + i] = 7;
        Bytes scratch(orva::deflateRoom());
        zlibCompressBlock codec;
        const orva::deflatedBlock made = orva::deflateBlock(codec, 1, block.data(), kBlock, scratch.data());
        EXPECT_LE(static_cast<double>(made.length + made.secondLength),
                  1.01 * static_cast<double>(deflated(block).size()));
        EXPECT_TRUE(c.count != 0 || made.secondRows == kBlock / 2);
    }
}

TEST(Lz4Codec, CompressesByLevelAndReportsWhatDoesNotFit) {
    constexpr std::uint32_t failed = 1U << 31;  // and above
    const auto lz4 = [](Bytes from, Bytes& to, std::uint32_t room, int level) {
        to.resize(room);
        auto* source = reinterpret_cast<char*>(from.data());
        auto* dest = reinterpret_cast<char*>(to.data());
        const auto size = static_cast<std::uint32_t>(from.size());
        const std::uint32_t count = level >= 0 ? lz4CompressBlock::compressBlock(source, size, dest, room, level)
                                               : lz4CompressBlock::decompressBlock(source, size, dest, room);
        to.resize(std::min(count, room));
        return count;
    };
    constexpr int back = -1;
    Bytes packed[3], out;
    for (const auto& [i, level] : {std::pair(0, 0), {1, 1}, {2, 12}}) lz4(kRows, packed[i], 120'000, level);
    EXPECT_TRUE(packed[1] == packed[2] && packed[1].size() < packed[0].size());
    for (const Bytes& block : packed) {
        EXPECT_TRUE(lz4(block, out, 100'000, back) == 100'000 && out == kRows);
        EXPECT_GE(lz4(block, out, 99'999, back), failed);
        EXPECT_GE(lz4(support::slice(block, 0, block.size() - 3), out, 100'000, back), failed);
        for (std::size_t i = 0; i < block.size(); i += 97) {
            const std::uint32_t count = lz4(support::with(block, i, {0xFF}), out, 100'000, back);
            EXPECT_TRUE(count <= 100'000 || count >= failed) << "byte " << i;
        }
    }
    EXPECT_EQ(lz4(kRows, out, static_cast<std::uint32_t>(packed[0].size()) - 1, 0), 0u);
    EXPECT_EQ(lz4(kRows, out, 100, 1), 0u);
    char b[8] = {};
    EXPECT_ASSERTION(lz4CompressBlock::compressBlock(nullptr, 8, b, 8, 0), "souce && dest && outCount && inCount");
    EXPECT_ASSERTION(lz4CompressBlock::decompressBlock(b, 0, b, 8), "souce && dest && outCount && inCount");
}

}  // namespace
}  // namespace core
