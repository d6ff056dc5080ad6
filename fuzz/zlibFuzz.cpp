// zlibCompressBlock: what it deflates comes back, in one stream or in two halves; hostile input and any room end as
// zlib alone would end them, on the fast road too.
#include "blockTransfer.h"
#include "fuzzTarget.h"

#if ORVA_FAST_CODEC
#include <libdeflate.h>
#endif

namespace {

using fuzz::Bytes;
using fuzz::require;

constexpr std::size_t kGuard = 64;  // bytes behind a room: the fast engines are no code that a sanitizer sees into

constexpr int kZlibForm = 15;  // zlib's names for what it is to read
constexpr int kRawForm = -15;

struct Outcome {
    int answer;
    std::size_t consumed;
    Bytes rows;
};

Outcome byZlib(const Bytes& from, std::size_t room, int form = kZlibForm) {
    z_stream z{};
    Bytes rows(room);
    inflateInit2(&z, form);
    z.next_in = const_cast<unsigned char*>(from.data());
    z.avail_in = static_cast<uInt>(from.size());
    z.next_out = rows.data();
    z.avail_out = static_cast<uInt>(room);
    const int answer = inflate(&z, Z_FINISH);
    rows.resize(room - z.avail_out);
    const std::size_t consumed = from.size() - z.avail_in;
    inflateEnd(&z);
    return {answer, consumed, rows};
}

// What the fast engine makes of raw deflate bytes, or zlib where it makes nothing.
Outcome byAny(const Bytes& raw) {
#if ORVA_FAST_CODEC
    const std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> engine(
        libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
    Outcome all{Z_STREAM_END, 0, Bytes(kBlockSize)};
    std::size_t produced = 0;
    if (libdeflate_deflate_decompress_ex(engine.get(), raw.data(), raw.size(), all.rows.data(), all.rows.size(),
                                         &all.consumed, &produced) == LIBDEFLATE_SUCCESS) {
        all.rows.resize(produced);
        return all;
    }
#endif
    return byZlib(raw, kBlockSize, kRawForm);
}

bool guardHeld(const Bytes& rows) {
    return std::all_of(rows.end() - kGuard, rows.end(), [](unsigned char byte) { return byte == 0xA5; });
}

// The fast engine takes some streams that zlib refuses, such as those with the code 286, which stands for nothing. It
// takes them with the right checksum only.
void requireChecksum(const Bytes& from, const Bytes& rows, const blockOutcome& ours) {
    const uLong sum = adler32(adler32(0, nullptr, 0), rows.data(), ours.produced);
    const unsigned char* end = from.data() + ours.consumed;
    require(ours.consumed >= 6 &&
                ((uLong{end[-4]} << 24) | (uLong{end[-3]} << 16) | (uLong{end[-2]} << 8) | end[-1]) == sum,
            "a stream that ends whole has its checksum");
}

void inflateAsZlib(const Bytes& from, std::uint32_t room) {
    zlibCompressBlock codec;
    Bytes rows(room + kGuard, 0xA5);
    const blockOutcome ours =
        codec.inflateWhole(from.data(), static_cast<std::uint32_t>(from.size()), rows.data(), room);
    const Outcome theirs = byZlib(from, room);
    require(guardHeld(rows), "no more is inflated than there is room");
    if (ours.end == blockOutcome::complete && theirs.answer != Z_STREAM_END) {
        return requireChecksum(from, rows, ours);
    }
    require((ours.end == blockOutcome::complete) == (theirs.answer == Z_STREAM_END), "a stream ends whole as for zlib");
    require(ours.produced == theirs.rows.size() && ours.consumed == theirs.consumed, "counts are zlib's");
    rows.resize(ours.produced);
    require(rows == theirs.rows, "bytes are zlib's");
}

// The zlib stream of raw deflate bytes with the checksum of what they give, so that it is never the checksum alone
// which refuses them.
Bytes withChecksum(const Bytes& raw) {
    const Outcome all = byAny(raw);
    Bytes stream{0x78, 0x01};
    stream.insert(stream.end(), raw.begin(), raw.begin() + static_cast<std::ptrdiff_t>(all.consumed));
    const uLong sum = adler32(adler32(0, nullptr, 0), all.rows.data(), static_cast<uInt>(all.rows.size()));
    for (const unsigned shift : {24U, 16U, 8U, 0U}) stream.push_back(static_cast<unsigned char>(sum >> shift));
    return stream;
}

void roundTrip(const Bytes& block, std::uint32_t room) {
    const auto size = static_cast<std::uint32_t>(block.size());
    zlibCompressBlock codec;
    for (const std::uint32_t given : {room, zlibCompressBlock::compressRoom(size)}) {
        Bytes deflated(given + kGuard, 0xA5);
        const blockOutcome outcome = codec.deflateWhole(block.data(), size, deflated.data(), given);
        require(guardHeld(deflated) && outcome.produced <= given, "no more is deflated than there is room");
        require(outcome.end == blockOutcome::complete || given < zlibCompressBlock::compressRoom(size),
                "with room enough a stream ends");
        if (outcome.end != blockOutcome::complete) continue;
        deflated.resize(outcome.produced);
        const Outcome back = byZlib(deflated, size);
        require(back.answer == Z_STREAM_END && back.rows == block, "it comes back as it was");
        inflateAsZlib(deflated, room);
    }
}

// Of a block that deflate cannot fit, both halves do.
void blockRoundTrip(const Bytes& block) {
    zlibCompressBlock codec;
    Bytes scratch(orva::deflateRoom());
    const auto size = static_cast<std::uint32_t>(block.size());
    const orva::deflatedBlock made = orva::deflateBlock(codec, block.data(), size, scratch.data());
    require(made.rows + made.secondRows == size, "no row is lost");
    require(orva::isBlockSize(made.length) && (made.secondRows == 0 || orva::isBlockSize(made.secondLength)),
            "a stream fits a block");
    Bytes rows = byZlib({scratch.begin(), scratch.begin() + made.length}, made.rows).rows;
    const auto second = scratch.begin() + made.length;
    const Bytes rest = byZlib({second, second + made.secondLength}, made.secondRows).rows;
    rows.insert(rows.end(), rest.begin(), rest.end());
    require(rows == block, "a block comes back as it was");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::uint32_t room = input.ConsumeIntegralInRange<std::uint32_t>(1, 2 * kBlockSize);
    const Bytes bytes = input.ConsumeRemainingBytes<unsigned char>();
    if (bytes.empty() || bytes.size() > kBlockSize) return 0;
    inflateAsZlib(bytes, room);
    inflateAsZlib(withChecksum(bytes), room);
    roundTrip(bytes, room);
    blockRoundTrip(bytes);
    return 0;
}
