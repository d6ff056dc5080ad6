// lz4CompressBlock: what it compresses comes back; hostile input and any room stay within their bounds.
#include "fuzzTarget.h"

#include <orva/lz4Compress.h>

namespace {

using fuzz::Bytes;
using fuzz::require;

char* chars(Bytes& bytes) {
    return reinterpret_cast<char*>(bytes.data());
}

// Vectors of exactly the room: the sanitizer sees the first byte behind them.
void roundTrip(Bytes& block, std::uint32_t room, int level) {
    const auto size = static_cast<std::uint32_t>(block.size());
    Bytes compressed(room);
    const std::uint32_t length = lz4CompressBlock::compressBlock(chars(block), size, chars(compressed), room, level);
    require(length <= room, "no more is written than there is room");
    require(length != 0 || room < size + size / 255 + 16, "with room enough it fits");
    if (length == 0) return;
    compressed.resize(length);
    Bytes back(size);
    require(lz4CompressBlock::decompressBlock(chars(compressed), length, chars(back), size) == size, "it comes back");
    require(back == block, "it comes back as it was");
    Bytes small(size - 1);
    if (small.empty()) return;
    require(lz4CompressBlock::decompressBlock(chars(compressed), length, chars(small), size - 1) > INT32_MAX,
            "too little room is told");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::uint32_t room = input.ConsumeIntegralInRange<std::uint32_t>(1, 2 * kBlockSize);
    const int level = input.ConsumeBool() ? 1 : 0;
    Bytes bytes = input.ConsumeRemainingBytes<unsigned char>();
    if (bytes.empty() || bytes.size() > kBlockSize) return 0;
    roundTrip(bytes, room, level);
    Bytes rows(room);
    const std::uint32_t count =
        lz4CompressBlock::decompressBlock(chars(bytes), static_cast<std::uint32_t>(bytes.size()), chars(rows), room);
    require(count <= room || count > INT32_MAX, "damaged input is told, or gives no more than the room");
    return 0;
}
