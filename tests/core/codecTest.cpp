// The two block codecs: what comes back for whole, damaged, cut and misused blocks.
#include "coreTest.h"

#include <orva/lz4Compress.h>
#include <orva/zlibCompress.h>

#include <gmock/gmock.h>

namespace core {
namespace {

constexpr const char* kLz4Breach = "souce && dest && outCount && inCount";

Bytes rowsOf(std::size_t size) {
    return support::RandomBytes(7).rows(size);
}
Bytes noiseOf(std::size_t size) {
    return support::RandomBytes(8).noise(size);
}

Bytes deflated(const Bytes& rows) {
    const auto size = static_cast<std::uint32_t>(rows.size());
    Bytes out(zlibCompressBlock::compressRoom(size));
    const blockOutcome outcome =
        zlibCompressBlock().deflateWhole(rows.data(), size, out.data(), static_cast<std::uint32_t>(out.size()));
    EXPECT_EQ(outcome.end, blockOutcome::complete);
    out.resize(outcome.produced);
    return out;
}

// The public operations tell how many bytes came out, and 0 for a call that zlib refuses.
TEST(ZlibCodec, AnswersByTheBytesProduced) {
    const Bytes rows = rowsOf(100'000);
    const Bytes packed = deflated(rows);
    const struct {
        const char* name;
        bool compress;
        Bytes from;
        std::uint32_t room, lowest, highest;
    } cases[] = {
        {"Whole", false, packed, 100'000, 100'000, 100'000},
        {"WholeBlockOfNoise", false, deflated(noiseOf(kBlock)), kBlock, kBlock, kBlock},
        {"WholeTheOtherWay", true, rows, 120'000, 1'000, 99'999},
        {"TooLittleRoomToInflateGivesTheRoom", false, packed, 99'999, 99'999, 99'999},
        {"TooLittleRoomToDeflateGivesTheRoom", true, noiseOf(100'000), 100'000, 100'000, 100'000},
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
        EXPECT_TRUE(result >= c.lowest && result <= c.highest) << result;
        EXPECT_EQ(outCount, result);
        EXPECT_EQ(to[c.room], 0xEE);
        outCount = 500;
        EXPECT_EQ(run(nullptr, outCount), 0u) << "no destination";
        EXPECT_EQ(outCount, 500u);
    }
    std::uint32_t none = 0;
    EXPECT_ASSERTION(zlibCompressBlock().compressBlock(nullptr, 0, nullptr, none), "souce||dest||outCount||inCount");
}

TEST(ZlibCodec, TellsHowTheStreamEnded) {
    const Bytes rows = noiseOf(3'000);
    const Bytes packed = deflated(rows);
    const auto size = static_cast<std::uint32_t>(packed.size());
    Bytes out(4'000);
    const auto inflate = [&](const Bytes& block, std::uint32_t room) {
        return zlibCompressBlock().inflateWhole(block.data(), static_cast<std::uint32_t>(block.size()), out.data(),
                                                room);
    };
    for (const Bytes& whole : {packed, joined({packed, {0}})}) {
        const blockOutcome outcome = inflate(whole, 4'000);
        EXPECT_TRUE(outcome.end == blockOutcome::complete && outcome.produced == 3'000 && outcome.consumed == size);
        EXPECT_EQ(support::slice(out, 0, 3'000), rows);
    }
    EXPECT_EQ(inflate(packed, 2'999).end, blockOutcome::incomplete);
    EXPECT_EQ(inflate(support::slice(packed, 0, size - 1), 3'000).end, blockOutcome::incomplete);
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

TEST(Lz4Codec, CompressesByLevelAndReportsWhatDoesNotFit) {
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
        EXPECT_GT(lz4(false, packed, back, 499'999), 2'147'483'647u);
        EXPECT_GT(lz4(false, support::slice(packed, 0, packed.size() - 3), back, 500'000), 2'147'483'647u);
    }
    EXPECT_EQ(lz4(true, rows, back, static_cast<std::uint32_t>(fast.size()) - 1, 0), 0u);
    EXPECT_EQ(lz4(true, rows, back, 100, 1), 0u);
    char b[8] = {};
    EXPECT_ASSERTION(lz4CompressBlock::compressBlock(nullptr, 8, b, 8, 0), kLz4Breach);
    EXPECT_ASSERTION(lz4CompressBlock::decompressBlock(b, 0, b, 8), kLz4Breach);
}

}  // namespace
}  // namespace core
