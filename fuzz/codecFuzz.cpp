// The block codec, both ways: compressed data come back; hostile input and any room stay within their bounds and end as
// with zlib alone, in the fast engines too.
#include "format/blockTransfer.h"
#include "fuzzTarget.h"

#include <libdeflate.h>

using namespace support;

constexpr std::ptrdiff_t kHeader = 2;  // bytes of a zlib stream's header

// Makes raw deflate bytes a zlib stream with the right checksum, so that it is never the checksum alone that refuses
// them.
Bytes withChecksum(const Bytes& raw) {
    static libdeflate_decompressor* const engine = libdeflate_alloc_decompressor();
    Bytes rows(kBlockSize);
    std::size_t taken = 0, produced = 0;
    libdeflate_deflate_decompress_ex(engine, raw.data(), raw.size(), rows.data(), rows.size(), &taken, &produced);
    rows.resize(produced);
    return Bytes{0x78, 0x01} + slice(raw, 0, taken) + checksumOf(rows);
}

Bytes rowsOfWhole(const unsigned char* stream, std::uint32_t length) {
    Inflated made = byZlib({stream, length});
    require(made.whole && made.taken == length, "a stream ends whole, with its last byte");
    return std::move(made.rows);
}

// If deflate cannot fit a block, both halves fit. Returns the streams.
Bytes deflateRoundTrip(const Bytes& block) {
    zlibCompressBlock codec;
    const std::int32_t level = 1 + static_cast<std::int32_t>(block.size()) % zlibCompressBlock::bestLevel();
    orva::deflatedBlock made{};
    const Bytes streams = filled(orva::deflateRoom(), [&](unsigned char* to) {
        made = orva::deflateBlock(codec, level, block.data(), sizeOf(block), to);
        return made.length + made.secondLength;
    });
    require(orva::isBlockSize(made.length) && made.secondLength <= kBlockSize, "a stream fits a block");
    Bytes rows = rowsOfWhole(streams.data(), made.length);
    if (made.secondRows != 0) rows = std::move(rows) + rowsOfWhole(streams.data() + made.length, made.secondLength);
    require(rows == block, "a block comes back as it was");
    return streams;
}

void deflateInto(const Bytes& block, std::uint32_t room) {
    bool whole = false;
    const Bytes stream = filled(room, [&](unsigned char* to) {
        const blockOutcome outcome = zlibCompressBlock().deflateWhole(block.data(), sizeOf(block), to, room);
        whole = outcome.end == blockOutcome::complete;
        return outcome.produced;
    });
    require(!whole || rowsOfWhole(stream.data(), sizeOf(stream)) == block, "what ends comes back as it was");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider steps(data, size);
    const auto room = steps.ConsumeIntegralInRange<std::uint32_t>(1, 2 * kBlockSize);
    const auto place = steps.ConsumeIntegral<std::uint16_t>();
    const auto damage = steps.ConsumeIntegral<std::uint8_t>();
    const Bytes block = steps.ConsumeRemainingBytes<unsigned char>();
    if (block.empty() || block.size() > kBlockSize) return 0;
    deflateInto(block, room);
    for (Bytes hostile : {block, deflateRoundTrip(block)}) {
        inflated(hostile, room);
        hostile[place % hostile.size()] ^= damage;
        hostile.push_back(damage);  // after the stream's end, if it still has one
        inflated(hostile, room);
        inflated(withChecksum(slice(hostile, kHeader, hostile.size())), room);
    }
    return 0;
}
