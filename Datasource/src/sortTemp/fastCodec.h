// The fast engines behind zlibCompressBlock: the same streams in less time. Built with ORVA_FAST_CODEC.
//
// They answer only when they end in a whole stream that fits. In every other case (no room, damaged input, no memory)
// they give nothing, and zlib's road answers, so that results, counts and failures are zlib's.
//
// Levels:  1 is ISA-L's, 2 libdeflate's first one, and from 3 on they are libdeflate's own.
// Threads: any; each thread keeps the engines' state that it has used until it ends: 700 KB, for a level above the
//          first as much again, from 10 on 9 MB.
#pragma once

#include <orva/zlibCompress.h>

#include <cstdint>
#include <optional>

namespace orva {

inline constexpr std::int32_t kBestFastLevel = 12;

#if ORVA_FAST_CODEC

// `level` is 1 to kBestFastLevel.
std::optional<blockOutcome> fastDeflate(std::int32_t level, const unsigned char* from, std::uint32_t size,
                                        unsigned char* to, std::uint32_t room) noexcept;
std::optional<blockOutcome> fastInflate(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                        std::uint32_t room) noexcept;
// A stream of stored blocks.
std::optional<blockOutcome> fastStore(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                      std::uint32_t room) noexcept;
// Deflating the block would win less than 1% of it, as far as samples at many places show. `scratch` has
// fastDeflateRoom(size) bytes.
bool fastSeesNoise(const unsigned char* from, std::uint32_t size, unsigned char* scratch) noexcept;
// Room in which fastDeflate and fastStore end whatever the block holds.
std::uint32_t fastDeflateRoom(std::uint32_t size) noexcept;

#else

inline std::optional<blockOutcome> fastDeflate(std::int32_t, const unsigned char*, std::uint32_t, unsigned char*,
                                               std::uint32_t) {
    return std::nullopt;
}
inline std::optional<blockOutcome> fastInflate(const unsigned char*, std::uint32_t, unsigned char*, std::uint32_t) {
    return std::nullopt;
}
inline std::optional<blockOutcome> fastStore(const unsigned char*, std::uint32_t, unsigned char*, std::uint32_t) {
    return std::nullopt;
}
inline bool fastSeesNoise(const unsigned char*, std::uint32_t, unsigned char*) {
    return false;
}
inline std::uint32_t fastDeflateRoom(std::uint32_t) {
    return 0;
}

#endif

}  // namespace orva
