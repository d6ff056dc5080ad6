// The one block size of the library: stream buffers, worker buffers and compressed blocks all have it.
#pragma once

#include <cstdint>

// 4 MiB less 4,096: 8,184 sectors of 512 bytes. A constant of the file format, docs/format.md.
#ifdef ORVA_BLOCK_SIZE
inline constexpr std::uint32_t kBlockSize = ORVA_BLOCK_SIZE;  // a build for fuzz targets, never installed
inline constexpr std::uint32_t kShortestBlockLength = kBlockSize / 64;
inline constexpr std::uint32_t kHandyBlockLength = kBlockSize / 4;
#else
inline constexpr std::uint32_t kBlockSize = 4'190'208;
// The shortest full blocks that a writer may choose: below this the index costs more than shorter blocks save.
inline constexpr std::uint32_t kShortestBlockLength = 65'536;
// The block length of the command's files. Beside files of the longest blocks they are as small and written and read as
// fast, and a single row takes a quarter of the time.
inline constexpr std::uint32_t kHandyBlockLength = 1'048'576;
#endif
static_assert(kBlockSize % 512 == 0, "direct reads end on multiples of a sector");

// Reads from the page cache run at full speed into memory that begins on a multiple of this, and were measured at half
// of it into the 16-byte aligned memory of malloc.
inline constexpr std::uint32_t kBufferAlignment = 64;
