// What an append overwrites, as bytes: put back into the file, and written to and read from the side file, whose layout
// is in docs/recovery.md.
//
// Units:   file offsets, in bytes.
// Threads: no state.
// Failure: FileError from the disk; DamagedFileError for a file that ends too early.
#pragma once

#include "format/indexTransfer.h"
#include "format/storedBytes.h"
#include "part/heldSideFile.h"

#include <orva/file.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace orva {

// The side file begins with it, in the byte order of the machine that appends. Each reads the other's.
struct sideFileHead {
    std::int64_t mark = 0x3250504156524f2e;  // ".ORVAPP2" on disk, or "2PPAVRO."
    std::int64_t row0Pos = 0;
    std::int64_t fileSize = 0;      // of the file before the append
    std::int64_t untouchedEnd = 0;  // the append overwrites nothing before this but the heading
    std::int64_t untouchedSum = 0;  // of the last bytes before it
    rawHeading heading{};
};

struct keptTail : sideFileHead {
    std::int64_t indexPos = 0;  // as the heading tells
    fileBytes index;
    fileBytes block;  // at untouchedEnd; none if the append rewrites none
};

// The `size` bytes at `place`; none if the file ends before.
fileBytes bytesAt(bytesFrom file, std::int64_t place, std::int64_t size);

// The checksum of up to 4,096 bytes before `untouchedEnd`, none of them before the blocks; nothing if the file ends
// before.
std::optional<std::int64_t> untouchedSum(bytesFrom file, std::int64_t row0Pos, std::int64_t untouchedEnd);

// Writes the bytes. Where that fails and they stand there it is well: a full file system may have no room for what is
// written over.
void putBack(ORVA_File& file, std::span<const unsigned char> kept, std::int64_t place);

// Makes the file what it was, but for the heading. `durable`: each step before the next one.
void restoreTail(ORVA_File& file, const keptTail& tail, bool durable);

fileBytes serialize(const keptTail& tail);
// A side file is longer than the file before the append by no more than this.
inline constexpr std::int64_t kSideFileOverhead = 4096;

// A side file that no append has begun.
bool isForeign(const fileBytes& sideFile);
// Nothing for one that was cut short, or changed since. Believes no place: all of them follow from the saved heading
// and index, or the file is not whole.
std::optional<keptTail> parse(const fileBytes& sideFile);

// What the side file of `data` keeps, if there is one that can be believed; `side` holds it open then.
std::optional<keptTail> keptIn(heldSideFile& side, bytesFrom data);

}  // namespace orva
