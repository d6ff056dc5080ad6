#include "base/assertion.h"

#include <orva/lz4Compress.h>

#include <lz4.h>
#include <lz4hc.h>

#include <algorithm>
#include <climits>

namespace {

constexpr const char* kWholeRequest = "souce && dest && outCount && inCount";

}  // namespace

std::uint32_t lz4CompressBlock::compressBlock(char* souce, std::uint32_t inCount, char* dest, std::uint32_t outCount,
                                              int level) {
    ORVA_ASSERT(souce && dest && outCount && inCount, kWholeRequest);
    const int from = static_cast<int>(inCount);
    const int room = static_cast<int>(std::min<std::uint32_t>(outCount, INT_MAX));
    if (level == 0) return static_cast<std::uint32_t>(LZ4_compress_default(souce, dest, from, room));
    return static_cast<std::uint32_t>(LZ4_compress_HC(souce, dest, from, room, 0));
}

std::uint32_t lz4CompressBlock::decompressBlock(char* souce, std::uint32_t inCount, char* dest,
                                                std::uint32_t outCount) {
    ORVA_ASSERT(souce && dest && outCount && inCount, kWholeRequest);
    if (inCount > INT_MAX) return UINT32_MAX;  // LZ4 would take it as negative
    const int room = static_cast<int>(std::min<std::uint32_t>(outCount, INT_MAX));
    return static_cast<std::uint32_t>(LZ4_decompress_safe(souce, dest, static_cast<int>(inCount), room));
}
