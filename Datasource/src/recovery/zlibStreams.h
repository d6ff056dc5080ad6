// zlibStreams: the zlib streams of a file, wherever in it one may begin. A block is one of them, which says itself
// where it ends and whether it is whole.
//
// Owner:   the caller owns the file; two blocks of memory are its own.
// Failure: FileError from the disk, bad_alloc.
#pragma once

#include "base/blockBuffer.h"
#include "format/blockTransfer.h"

#include <orva/blockSize.h>
#include <orva/file.h>
#include <orva/zlibCompress.h>

#include <algorithm>
#include <cstdint>

namespace orva {

class zlibStreams {
public:
    explicit zlibStreams(ORVA_File& file) : fFile(file), fCompressed(kBlockSize), fRows(kBlockSize) {}

    ORVA_File& file() const { return fFile; }
    // What becomes of the bytes at `place`, `likely` of them. It reads further only as far as the stream goes on: a
    // file of very short blocks would be read many times over.
    blockOutcome at(std::int64_t place, std::uint32_t likely) {
        for (std::uint32_t size = std::clamp(likely, 4096U, kBlockSize);; size = std::min(size, kBlockSize / 8) * 8) {
            const std::uint32_t count = fFile.Read(fCompressed.get(), size, place);
            fRead += count;
            const blockOutcome outcome =
                requireMemory(fCodec.inflateWhole(fCompressed.get(), count, fRows.get(), kBlockSize));
            const bool ranOut = outcome.end == blockOutcome::incomplete && outcome.consumed == count && count == size;
            if (!ranOut || size == kBlockSize) return outcome;
        }
    }
    // The rows, `size` bytes, of a whole stream of that length there, until the next call; null if there is none.
    const unsigned char* rowsAt(std::int64_t place, std::uint32_t length, std::int64_t size) {
        const blockOutcome found = at(place, length);
        const bool asTold = found.end == blockOutcome::complete && found.produced == size && found.consumed == length;
        return asTold ? fRows.get() : nullptr;
    }
    // Bytes that at() has read so far.
    std::int64_t bytesRead() const { return fRead; }

private:
    ORVA_File& fFile;
    zlibCompressBlock fCodec;
    const blockBuffer fCompressed;
    const blockBuffer fRows;
    std::int64_t fRead = 0;
};

}  // namespace orva
