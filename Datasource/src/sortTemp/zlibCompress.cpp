#include "base/assertion.h"
#include "sortTemp/fastCodec.h"

#include <orva/zlibCompress.h>

#include <zlib.h>

#include <algorithm>
#include <optional>

namespace {

constexpr unsigned char kFullWindow = 0x78;  // first byte of a zlib header with a 32 KiB window

blockOutcome::End endOf(int answer) {
    if (answer == Z_STREAM_END) return blockOutcome::complete;
    if (answer == Z_STREAM_ERROR) return blockOutcome::misused;
    return answer == Z_MEM_ERROR ? blockOutcome::noMemory : blockOutcome::incomplete;
}

}  // namespace

std::int32_t zlibCompressBlock::compressBlock(unsigned char* from, std::uint32_t size, unsigned char* to,
                                              std::uint32_t& room) {
    return runCall(deflating, from, size, to, room);
}

std::int32_t zlibCompressBlock::decompressBlock(unsigned char* from, std::uint32_t size, unsigned char* to,
                                                std::uint32_t& room) {
    return runCall(inflating, from, size, to, room);
}

std::int32_t zlibCompressBlock::runCall(direction way, unsigned char* from, std::uint32_t size, unsigned char* to,
                                        std::uint32_t& room) {
    ORVA_ASSERT(from != nullptr || to != nullptr || room != 0 || size != 0, "souce||dest||outCount||inCount");
    const blockOutcome outcome =
        way == deflating ? deflateWhole(from, size, to, room) : inflateWhole(from, size, to, room);
    if (outcome.end == blockOutcome::misused || outcome.end == blockOutcome::notStarted) return 0;
    room = outcome.produced;
    return static_cast<std::int32_t>(room);
}

std::int32_t zlibCompressBlock::bestLevel() {
    return ORVA_FAST_CODEC ? orva::kBestFastLevel : Z_BEST_COMPRESSION;
}

blockOutcome zlibCompressBlock::deflateWhole(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                             std::uint32_t room, std::int32_t level) {
    take(from, size, to, room);
    return runBlock(level, deflating);
}

blockOutcome zlibCompressBlock::inflateWhole(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                             std::uint32_t room) {
    take(from, size, to, room);
    return runBlock(kFastestLevel, inflating);
}

blockOutcome zlibCompressBlock::storeWhole(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                           std::uint32_t room) {
    take(from, size, to, room);
    const std::optional<blockOutcome> outcome = orva::fastStore(from, size, to, room);
    return outcome ? *outcome : runZlib(ORVA_FAST_CODEC ? Z_NO_COMPRESSION : Z_BEST_SPEED, deflating);
}

void zlibCompressBlock::take(const unsigned char* from, std::uint32_t size, unsigned char* to, std::uint32_t room) {
    souce = from;
    inCount = size;
    dest = to;
    outCount = room;
}

bool zlibCompressBlock::looksLikeNoise(const unsigned char* from, std::uint32_t size, unsigned char* scratch) {
    return orva::fastSeesNoise(from, size, scratch);
}

std::uint32_t zlibCompressBlock::compressRoom(std::uint32_t size) {
    return std::max(static_cast<std::uint32_t>(compressBound(size)), orva::fastDeflateRoom(size));
}

// The fast engine inflates only streams with a full window: for a smaller one only zlib refuses distances that are too
// long.
blockOutcome zlibCompressBlock::runBlock(std::int32_t level, direction way) {
    std::optional<blockOutcome> outcome;
    if (souce != nullptr && dest != nullptr && inCount != 0) {
        if (way == deflating) outcome = orva::fastDeflate(level, souce, inCount, dest, outCount);
        if (way == inflating && souce[0] == kFullWindow) outcome = orva::fastInflate(souce, inCount, dest, outCount);
    }
    return outcome ? *outcome : runZlib(std::min(level, Z_BEST_COMPRESSION), way);
}

blockOutcome zlibCompressBlock::runZlib(int level, direction way) {
    z_stream stream{};
    if ((way == deflating ? deflateInit(&stream, level) : inflateInit(&stream)) != Z_OK) {
        return {blockOutcome::notStarted, 0, 0};
    }
    stream.next_in = const_cast<unsigned char*>(souce);  // zlib only reads it
    stream.avail_in = inCount;
    stream.next_out = dest;
    stream.avail_out = outCount;
    const int answer = way == deflating ? deflate(&stream, Z_FINISH) : inflate(&stream, Z_FINISH);
    const blockOutcome outcome{endOf(answer), outCount - stream.avail_out, inCount - stream.avail_in};
    outCount = outcome.produced;
    way == deflating ? deflateEnd(&stream) : inflateEnd(&stream);
    return outcome;
}
