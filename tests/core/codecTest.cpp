// The two block codecs: what comes back for whole, damaged, cut and misused blocks.
#include "coreTest.h"

#include <orva/lz4Compress.h>
#include <orva/zlibCompress.h>

#include <gmock/gmock.h>

namespace core {
namespace {

Bytes deflated(const Bytes& rows) {
    Bytes out(zlibCompressBlock::compressRoom(static_cast<std::uint32_t>(rows.size())));
    zlibCompressBlock codec;
    const blockOutcome outcome = codec.deflateWhole(rows.data(), static_cast<std::uint32_t>(rows.size()), out.data(),
                                                    static_cast<std::uint32_t>(out.size()));
    EXPECT_EQ(outcome.end, blockOutcome::complete);
    out.resize(outcome.produced);
    return out;
}

blockOutcome inflated(const Bytes& block, std::uint32_t room) {
    Bytes out(room + 1);
    return zlibCompressBlock().inflateWhole(block.data(), static_cast<std::uint32_t>(block.size()), out.data(), room);
}

Bytes rowsOf(std::size_t size) {
    return support::RandomBytes(7).rows(size);
}
Bytes noiseOf(std::size_t size) {
    return support::RandomBytes(8).noise(size);
}

TEST(ZlibCodec, GivesBackWhatItTook) {
    for (const Bytes& rows : {Bytes(kBlock, 0), rowsOf(kBlock), noiseOf(kBlock), rowsOf(1), noiseOf(4'097)}) {
        zlibCompressBlock codec;
        Bytes packed(rows.size() + rows.size() / 100 + 100);
        auto packedSize = static_cast<std::uint32_t>(packed.size());
        Bytes source = rows;
        const auto result =
            codec.compressBlock(source.data(), static_cast<std::uint32_t>(rows.size()), packed.data(), packedSize);
        EXPECT_EQ(static_cast<std::uint32_t>(result), packedSize);
        Bytes back(rows.size());
        auto size = static_cast<std::uint32_t>(back.size());
        EXPECT_EQ(codec.decompressBlock(packed.data(), packedSize, back.data(), size), rows.size());
        EXPECT_EQ(size, rows.size());
        EXPECT_TRUE(support::sameBytes(back, rows));
    }
}

// The public operations tell only how many bytes came out, and 0 for a call that zlib refuses.
TEST(ZlibCodec, AnswersByTheBytesProduced) {
    const Bytes rows = rowsOf(100'000);
    const Bytes packed = deflated(rows);
    const Bytes noise = noiseOf(100'000);
    Bytes nonsense(1'000, 'x');
    Bytes half = support::slice(packed, 0, packed.size() / 2);
    struct Case {
        const char* name;
        bool compress;
        Bytes from;
        bool toNull;
        std::uint32_t room, lowest, highest, roomAfterFailure;
    } const cases[] = {
        {"TooLittleRoomToInflateGivesTheRoom", false, packed, false, 99'999, 99'999, 99'999, 0},
        {"TooLittleRoomToDeflateGivesTheRoom", true, noise, false, 100'000, 100'000, 100'000, 0},
        {"NoZlibDataGivesNothing", false, nonsense, false, 1'000, 0, 0, 0},
        {"ACutStreamGivesItsPart", false, half, false, 100'000, 10'000, 99'999, 0},
        {"NoDestinationIsAFailure", true, rows, true, 500, 0, 0, 500},
        {"NoDestinationIsAFailureTheOtherWay", false, packed, true, 500, 0, 0, 500},
    };
    for (Case c : cases) {
        SCOPED_TRACE(c.name);
        Bytes to(c.room + 1, 0xEE);
        std::uint32_t outCount = c.room;
        unsigned char* dest = c.toNull ? nullptr : to.data();
        zlibCompressBlock codec;
        const auto size = static_cast<std::uint32_t>(c.from.size());
        const auto result =
            static_cast<std::uint32_t>(c.compress ? codec.compressBlock(c.from.data(), size, dest, outCount)
                                                  : codec.decompressBlock(c.from.data(), size, dest, outCount));
        EXPECT_GE(result, c.lowest);
        EXPECT_LE(result, c.highest);
        EXPECT_EQ(outCount, c.roomAfterFailure != 0 ? c.roomAfterFailure : result);
        EXPECT_EQ(to[c.room], 0xEE);
    }
}

TEST(ZlibCodec, ACallOfNothingIsABreach) {
    std::uint32_t none = 0;
    EXPECT_ASSERTION(zlibCompressBlock().compressBlock(nullptr, 0, nullptr, none), "souce||dest||outCount||inCount");
}

TEST(ZlibCodec, TellsHowTheStreamEnded) {
    const Bytes rows = rowsOf(50'000);
    const Bytes packed = deflated(rows);
    Bytes wrongSum = packed;
    wrongSum.back() ^= 1;
    Bytes longer = packed;
    longer.push_back(0);
    const auto size = static_cast<std::uint32_t>(packed.size());
    struct Case {
        const char* name;
        Bytes block;
        std::uint32_t room;
        blockOutcome::End end;
        std::uint32_t produced, consumed;
    } const cases[] = {
        {"Whole", packed, 50'000, blockOutcome::complete, 50'000, size},
        {"MoreRoomThanNeeded", packed, 60'000, blockOutcome::complete, 50'000, size},
        {"ByteBehind", longer, 50'000, blockOutcome::complete, 50'000, size},
        {"WrongChecksum", wrongSum, 50'000, blockOutcome::incomplete, 50'000, size},
        {"ChecksumCut", support::slice(packed, 0, size - 1), 50'000, blockOutcome::incomplete, 50'000, size - 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const blockOutcome outcome = inflated(c.block, c.room);
        EXPECT_EQ(outcome.end, c.end);
        EXPECT_EQ(outcome.produced, c.produced);
        EXPECT_EQ(outcome.consumed, c.consumed);
    }
    EXPECT_EQ(inflated(packed, 49'999).end, blockOutcome::incomplete);
}

TEST(ZlibCodec, AFlippedBitNeverCountsAsEnded) {
    const Bytes packed = deflated(noiseOf(3'000));
    int fullLength = 0;
    for (std::size_t i = 0; i < packed.size(); i += 7) {
        Bytes damaged = packed;
        damaged[i] = static_cast<unsigned char>(damaged[i] ^ (1 << i % 8));
        const blockOutcome outcome = inflated(damaged, 3'000);
        EXPECT_NE(outcome.end, blockOutcome::complete) << "byte " << i;
        fullLength += outcome.produced == 3'000;
    }
    EXPECT_GT(fullLength, 300) << "the length alone tells too often for this test to show anything";
}

TEST(ZlibCodec, KnowsTheRoomThatAlwaysSuffices) {
    const Bytes noise = noiseOf(kBlock);
    EXPECT_GT(deflated(noise).size(), noise.size());
    Bytes out(kBlock);
    EXPECT_EQ(zlibCompressBlock().deflateWhole(noise.data(), kBlock, out.data(), kBlock).end, blockOutcome::incomplete);
}

std::uint32_t lz4(bool compress, Bytes from, Bytes& to, std::uint32_t room, int level = 0) {
    to.resize(room);
    auto* source = reinterpret_cast<char*>(from.data());
    auto* dest = reinterpret_cast<char*>(to.data());
    const auto size = static_cast<std::uint32_t>(from.size());
    const std::uint32_t count = compress ? lz4CompressBlock::compressBlock(source, size, dest, room, level)
                                         : lz4CompressBlock::decompressBlock(source, size, dest, room);
    if (count <= room) to.resize(count);
    return count;
}

TEST(Lz4Codec, LevelChoosesTheCompressorAndNothingElse) {
    const Bytes rows = rowsOf(500'000);
    Bytes fast, good, best, back;
    lz4(true, rows, fast, 600'000, 0);
    lz4(true, rows, good, 600'000, 1);
    lz4(true, rows, best, 600'000, 12);
    EXPECT_EQ(good, best);
    EXPECT_LT(good.size(), fast.size());
    for (const Bytes& packed : {fast, good}) {
        EXPECT_EQ(lz4(false, packed, back, 500'000), 500'000u);
        EXPECT_TRUE(support::sameBytes(back, rows));
    }
}

TEST(Lz4Codec, ReportsWhatDoesNotFit) {
    const Bytes rows = rowsOf(10'000);
    Bytes packed, out;
    lz4(true, rows, packed, 20'000, 0);
    EXPECT_EQ(lz4(true, rows, out, static_cast<std::uint32_t>(packed.size()) - 1, 0), 0u);
    EXPECT_EQ(lz4(true, rows, out, 100, 1), 0u);
    EXPECT_GT(lz4(false, packed, out, 9'999), 2'147'483'647u);
    EXPECT_GT(lz4(false, support::slice(packed, 0, packed.size() - 3), out, 10'000), 2'147'483'647u);
}

TEST(Lz4Codec, AMissingPartIsABreach) {
    char b[8] = {};
    const char* const text = "souce && dest && outCount && inCount";
    EXPECT_ASSERTION(lz4CompressBlock::compressBlock(nullptr, 8, b, 8, 0), text);
    EXPECT_ASSERTION(lz4CompressBlock::compressBlock(b, 8, b, 0, 1), text);
    EXPECT_ASSERTION(lz4CompressBlock::decompressBlock(b, 0, b, 8), text);
    EXPECT_ASSERTION(lz4CompressBlock::decompressBlock(b, 8, nullptr, 8), text);
}

}  // namespace
}  // namespace core
