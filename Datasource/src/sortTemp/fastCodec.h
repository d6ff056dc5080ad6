// The fast engines behind zlibCompressBlock: they make the same kind of streams in less time. Built with
// ORVA_FAST_CODEC.
//
// They return a result only for a whole stream that fits. In every other case (no room, damaged input, no memory) they
// return nothing, and the caller runs zlib, so that results, counts and failures are zlib's.
//
// Levels:  1 is ISA-L's, on big-endian machines libdeflate's; 2 is libdeflate's level 1, and 3 and above are
//          libdeflate's own.
// Threads: any. Each thread keeps the engine state that it has used until it ends: 700 KB, for a level above 1 as much
//          again, for 10 and above 9 MB.
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
// Makes a stream of stored blocks.
std::optional<blockOutcome> fastStore(const unsigned char* from, std::uint32_t size, unsigned char* to,
                                      std::uint32_t room) noexcept;
// True if deflating the block would save less than 1%, judged by samples at many places. `scratch` has
// fastDeflateRoom(size) bytes.
bool fastSeesNoise(const unsigned char* from, std::uint32_t size, unsigned char* scratch) noexcept;
// Room that is enough for fastDeflate and fastStore, whatever the block holds.
std::uint32_t fastDeflateRoom(std::uint32_t size) noexcept;

#else

// Without the engines no call returns a result.
inline constexpr auto fastDeflate = [](auto...) -> std::optional<blockOutcome> { return std::nullopt; };
inline constexpr auto fastInflate = fastDeflate, fastStore = fastDeflate;
inline constexpr auto fastSeesNoise = [](auto...) { return false; };
inline constexpr auto fastDeflateRoom = [](auto...) { return std::uint32_t{0}; };

#endif

}  // namespace orva
