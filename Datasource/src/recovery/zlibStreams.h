// zlibStreams: inflates zlib streams at any place in a file. A block is one zlib stream, which shows by itself where it
// ends and whether it is complete.
//
// Owner:   the caller owns the file; zlibStreams owns two blocks of memory.
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
    // Inflates the stream at `place`. Reads about `likely` bytes first, and more only if the stream goes on: otherwise
    // it would read a file of very short blocks many times over.
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
    // The rows of the complete stream at `place`, valid until the next call; null unless it has `length` bytes and
    // inflates to `size` bytes.
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
