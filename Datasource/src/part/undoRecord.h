// undoRecord: a copy of the bytes that an append overwrites. Restores them in the file, and converts them to and from
// the content of the side file. Layout: docs/recovery.md, "The side file".
//
// Units:   file offsets, in bytes.
// Threads: no state.
// Failure: FileError from the disk.
#pragma once

#include "format/indexTransfer.h"
#include "format/storedBytes.h"
#include "part/heldSideFile.h"

#include <orva/file.h>

#include <cstdint>
#include <optional>
#include <span>

namespace orva {

// The first bytes of a side file, in the byte order of the machine that appends. Machines of both orders can read it.
struct sideFileHead {
    std::int64_t mark = 0x3250504156524f2e;  // ".ORVAPP2" on disk, or "2PPAVRO."
    std::int64_t row0Pos = 0;
    std::int64_t fileSize = 0;      // of the data file before the append
    std::int64_t untouchedEnd = 0;  // before this offset the append overwrites only the heading
    std::int64_t untouchedSum = 0;  // checksum of the last bytes before untouchedEnd
    rawHeading heading{};
};

struct undoRecord : sideFileHead {
    std::int64_t indexPos = 0;  // from the heading
    fileBytes index;
    fileBytes block;  // the old last block, at untouchedEnd; empty if the append does not rewrite it
};

// The `size` bytes at `place`; empty if the file ends before their end.
fileBytes bytesAt(const bytesFrom& file, std::int64_t place, std::int64_t size);

// The checksum of the last bytes before `untouchedEnd`, at most 4,096 and none before the blocks; nothing if the file
// ends before `untouchedEnd`.
std::optional<std::int64_t> untouchedSum(const bytesFrom& file, std::int64_t row0Pos, std::int64_t untouchedEnd);

// Writes `kept` at `place`. Ignores a failed write if these bytes stand there already: a full file system may have no
// room even to overwrite.
void putBack(ORVA_File& file, std::span<const unsigned char> kept, std::int64_t place);

// Restores length, last block and index, but not the heading. `durable`: the block is synced before the index is
// written, and the index before the return.
void restoreTail(ORVA_File& file, const undoRecord& undo, bool durable);

// The content of the side file.
fileBytes serialize(const undoRecord& undo);
// A side file is at most this much longer than the data file was before the append.
inline constexpr std::int64_t kSideFileOverhead = 4096;

// True if no append can have made a side file of this content.
bool isForeign(const fileBytes& sideFile);
// Nothing for a side file that was cut short or changed since. Trusts no offset in it: each must agree with the saved
// heading and index.
std::optional<undoRecord> parse(const fileBytes& sideFile);

// The content of `side`, the side file of `data`, which is then open; nothing if there is none that is trusted and
// intact.
std::optional<undoRecord> readUndoRecord(heldSideFile& side, const bytesFrom& data);

}  // namespace orva
