// Writes one block of rows to the file, and reads it back. The inline paths, the workers, append and verify all go
// through here, so that a block is deflated, cut, recorded, checked and refused in the same way for all of them.
//
// Units:   logical positions and file offsets, in bytes.
// Owner:   the caller owns all memory, the codec included; nothing is kept here.
// Threads: no state. The file locks itself; codec and buffers belong to one thread at a time.
// Failure: FileError from the file; DamagedFileError for a block that is not what its record says; bad_alloc if the
//          codec finds no memory.
#pragma once

#include "base/blockBuffer.h"
#include "format/filePosInfo.h"
#include "format/storedBytes.h"

#include <orva/blockSize.h>
#include <orva/compressedLayout.h>
#include <orva/file.h>
#include <orva/zlibCompress.h>

#include <cstdint>
#include <optional>
#include <span>

namespace orva {

// True for a size that a block can have, in rows or in the file.
constexpr bool isBlockSize(std::int64_t size) {
    return size >= 1 && size <= kBlockSize;
}

// Throws bad_alloc if the codec found no memory; otherwise returns `outcome`.
const blockOutcome& requireMemory(const blockOutcome& outcome);

// Room for the longest zlib streams that a block of `size` bytes can become.
std::uint32_t deflateRoom(std::uint32_t size = kBlockSize);

// A deflated block: one zlib stream, or one for each half if a single one would pass the format's limit.
struct deflatedBlock {
    std::uint32_t rows;        // in the first stream
    std::uint32_t length;      // bytes of the first stream
    std::uint32_t secondRows;  // 0: no second stream
    std::uint32_t secondLength;
};

// Deflates the `size` bytes (1 to kBlockSize) of `block` into `scratch`, which has deflateRoom(size) bytes.
deflatedBlock deflateBlock(zlibCompressBlock& codec, std::int32_t level, const unsigned char* block, std::uint32_t size,
                           unsigned char* scratch);

// Writes the output of deflateBlock at the file offset `place` and adds its record, or its two records after both
// writes. `pos` is the block's logical position. Returns the file offset after the written bytes.
std::int64_t writeDeflated(ORVA_File& file, filePosInfo& index, const deflatedBlock& deflated,
                           const unsigned char* scratch, std::int64_t pos, std::int64_t place);

// The means to write blocks; `scratch` has the deflateRoom of the longest one.
struct writeContext {
    ORVA_File& file;
    filePosInfo& index;
    zlibCompressBlock& codec;
    unsigned char* scratch;
    std::int32_t level = zlibCompressBlock::kFastestLevel;
};

// Deflates and writes a block.
std::int64_t writeBlock(const writeContext& context, const unsigned char* block, std::uint32_t size, std::int64_t pos,
                        std::int64_t place);

// Writes all of it or throws, also if somebody has closed the file under the stream.
void writeAll(ORVA_File& file, const void* bytes, std::uint64_t size, std::int64_t place);

// The means to read blocks; `compressed` has kBlockSize bytes.
struct readContext {
    bytesFrom file;
    zlibCompressBlock& codec;
    unsigned char* compressed;
};

// Memory for the compressed bytes of any block in the index, and for its rows.
blockBuffer compressedRoom(std::span<const filePosRecord> records);
blockBuffer rowRoom(std::span<const filePosRecord> records);

// A record, and what it is checked against.
struct blockPlace {
    filePosRecord record;
    std::uint32_t number;                   // the block's, for messages
    std::optional<std::int64_t> nextStart;  // logical position of the next block, if there is one
    std::int64_t fileEnd;
    bool overlaps = false;  // its bytes in the file overlap those of a more credible neighbour
};

// The place of block `number` among all records of an index.
blockPlace placeOf(std::span<const filePosRecord> records, std::uint32_t number, std::int64_t fileEnd);
inline blockPlace placeOf(const filePosInfo& index, std::uint32_t number) {
    return placeOf(index.records(), number, index.placeLimit());
}

// The number of the block that begins at `pos`. Asserts that there is one.
std::uint32_t blockAt(const filePosInfo& index, std::int64_t pos);

// Reads the block's compressed bytes into `context.compressed`. Refuses a record that cannot be true before it touches
// any memory.
void readCompressed(const readContext& context, const blockPlace& block);

// Inflates `context.compressed`, filled by readCompressed or otherwise, into `dest`, which has room for orginalSize but
// at most for kBlockSize: a record that claims more is refused. The block is good only if its zlib stream ended, with
// its checksum, exactly at its last byte and at orginalSize bytes. Returns orginalSize.
std::uint32_t inflateBlock(const readContext& context, const blockPlace& block, unsigned char* dest);

// Reads and inflates a block.
std::uint32_t readBlock(const readContext& context, const blockPlace& block, unsigned char* dest);

}  // namespace orva
