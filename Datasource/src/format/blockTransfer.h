// One block of rows to the file and back. Every road goes through here: the inline ones, the workers, append, verify.
// So a block is deflated, cut, recorded, checked and refused in the same way whoever asks.
//
// Units:   logical positions and file offsets, in bytes.
// Owner:   the caller owns all memory, the codec included; nothing is kept here.
// Threads: no state. The file locks itself; codec and buffers belong to one thread at a time.
// Failure: FileError from the file, DamagedFileError for a block that is not what its record says, bad_alloc when the
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

// A block's size that can be true, in rows as well as in the file.
constexpr bool isBlockSize(std::int64_t size) {
    return size >= 1 && size <= kBlockSize;
}

// Throws bad_alloc where the codec found no memory, else gives the outcome back.
const blockOutcome& requireMemory(const blockOutcome& outcome);

// Room for the longest zlib streams that a block of `size` bytes can become.
std::uint32_t deflateRoom(std::uint32_t size = kBlockSize);

// A block deflated: one zlib stream, or two for its halves where one would pass the format's limit.
struct deflatedBlock {
    std::uint32_t rows;        // of the first stream
    std::uint32_t length;      // of the first stream
    std::uint32_t secondRows;  // 0: there is no second
    std::uint32_t secondLength;
};

// Deflates the `size` bytes (1 to kBlockSize) of `block` into `scratch`, which has deflateRoom(size) bytes.
deflatedBlock deflateBlock(zlibCompressBlock& codec, std::int32_t level, const unsigned char* block, std::uint32_t size,
                           unsigned char* scratch);

// Writes what deflateBlock made at the file offset `place` and adds its record, or its two records after both writes;
// `pos` is the block's logical position. Gives the file offset behind what it wrote.
std::int64_t writeDeflated(ORVA_File& file, filePosInfo& index, const deflatedBlock& deflated,
                           const unsigned char* scratch, std::int64_t pos, std::int64_t place);

// What writing a block takes: `scratch` has the deflateRoom of the longest one.
struct writeRoad {
    ORVA_File& file;
    filePosInfo& index;
    zlibCompressBlock& codec;
    unsigned char* scratch;
    std::int32_t level = zlibCompressBlock::kFastestLevel;
};

// Both.
std::int64_t writeBlock(const writeRoad& road, const unsigned char* block, std::uint32_t size, std::int64_t pos,
                        std::int64_t place);

// Writes all of it or throws: also when somebody closed the file under the stream.
void writeAll(ORVA_File& file, const void* bytes, std::uint64_t size, std::int64_t place);

// What reading a block takes: `compressed` has kBlockSize bytes.
struct readRoad {
    bytesFrom file;
    zlibCompressBlock& codec;
    unsigned char* compressed;
    bool ahead = false;  // nobody has asked for the block yet: ORVA_File::ReadAhead
};

// Memory for the compressed bytes of any block of that index, and for the rows of one.
blockBuffer compressedRoom(std::span<const filePosRecord> records);
blockBuffer rowRoom(std::span<const filePosRecord> records);

// A record together with what it is held against.
struct blockPlace {
    filePosRecord record;
    std::uint32_t number;                   // of the block, for messages
    std::optional<std::int64_t> nextStart;  // logical position of the next block, where there is one
    std::int64_t fileEnd;
    bool overlaps = false;  // a neighbour's bytes in the file, and is not the more credible of the two
};

// Of the block with that number among all records of an index.
blockPlace placeOf(std::span<const filePosRecord> records, std::uint32_t number, std::int64_t fileEnd);
inline blockPlace placeOf(const filePosInfo& index, std::uint32_t number) {
    return placeOf(index.records(), number, index.placeLimit());
}

// The number of the block that begins at `pos`; a breach if none does.
std::uint32_t blockAt(const filePosInfo& index, std::int64_t pos);

// Reads the block's compressed bytes into `road.compressed`. A record that cannot be true is refused before any memory
// is touched.
void readCompressed(const readRoad& road, const blockPlace& block);

// Inflates what readCompressed brought, or bytes from elsewhere, into `dest`, which has room for orginalSize, at most
// for kBlockSize: a record that claims more is refused. The block is good only when its zlib stream ended, with its
// checksum, exactly at its last byte and at orginalSize bytes. Gives orginalSize.
std::uint32_t inflateBlock(const readRoad& road, const blockPlace& block, unsigned char* dest);

// Both.
std::uint32_t readBlock(const readRoad& road, const blockPlace& block, unsigned char* dest);

}  // namespace orva
