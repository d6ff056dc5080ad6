// Reads heading and index of a compressed part, with every check that bytes of a file can reach. Their meaning:
// docs/format.md.
//
// Threads: no state; the file locks itself.
// Failure: FileError from the file; DamagedFileError, before any allocation larger than the file's size justifies.
#pragma once

#include "format/filePosInfo.h"
#include "format/storedBytes.h"

#include <orva/compressedLayout.h>
#include <orva/errors.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace orva {

// The heading in these 24 bytes, in host order, if it repeats `place` in the given byte order and could be true.
std::optional<compressionHeading> headingOf(const unsigned char* bytes, std::int64_t place, bool swap);

using rawHeading = std::array<unsigned char, kHeadingSize>;  // as stored

// The 24 bytes at `row0Pos`; zeros if the file ends before.
rawHeading rawHeadingAt(const bytesFrom& file, std::int64_t row0Pos);

// Reads the heading at `row0Pos` and returns it in host order. `positionCheck` is the caller's text for the check that
// the heading repeats its own position.
compressionHeading readHeading(const bytesFrom& file, std::int64_t row0Pos, bool swap, const char* positionCheck);

// Reads the index that the heading points to, its first record included, and returns it in host order. Its length must
// be whole records, lie inside the file and agree with the record count; the block records must ascend, from the row-0
// position. Reads a piece at a time, so that memory grows with the bytes that are really stored: an index that claims
// gigabytes of a hole is refused at the first impossible record. `atOnce`: in one read, for sources where each read is
// expensive.
std::vector<filePosRecord> readIndex(const bytesFrom& file, const compressionHeading& heading, bool swap,
                                     bool atOnce = false);
// The block records alone.
std::vector<filePosRecord> readRecords(const bytesFrom& file, const compressionHeading& heading, bool swap);

// An index and the heading that points to it, in host order.
struct partIndex {
    compressionHeading heading;
    bool swapped;  // stored in the other byte order
    std::vector<filePosRecord> records;
};

// The index that the heading points to; nothing if readIndex would refuse it.
std::optional<partIndex> indexOf(const bytesFrom& file, const compressionHeading& heading, bool swapped);
// The index that begins at `place`, with the heading that would point to it; nothing if there is none.
std::optional<partIndex> indexAt(const bytesFrom& file, std::int64_t row0Pos, std::int64_t place);
// The index that `raw`, which need not be stored in `file`, points to as the heading at `row0Pos`, in either byte
// order. Nothing if readIndex would refuse it or there are gaps between its blocks.
std::optional<partIndex> soundIndexOf(const bytesFrom& file, const rawHeading& raw, std::int64_t row0Pos);

// True if heading or index no longer stand there as they were read: somebody has written to the file since.
bool changedSince(const bytesFrom& file, const compressionHeading& heading, bool swap,
                  std::span<const filePosRecord> records);
// The same for a reader of block `number`. Looks only at the heading, at the first record, which an append overwrites
// before the others, and at that of the block: as many blocks may be damaged as there are records.
bool changedSince(const bytesFrom& file, const compressionHeading& heading, bool swap,
                  std::span<const filePosRecord> records, std::size_t number);

// Calls `read`, which reads a block, and again if it meets damage while `changed` sees no change: an append that is
// undone meanwhile restores the block and leaves no other trace. Only damage met twice is thrown as such, and
// FileChangedError if there was a change. An exception from `changed` counts as no change.
template <class Read, class Changed>
auto readRechecked(Read read, Changed changed) {
    const auto hasChanged = [&] {
        try {
            return changed();
        } catch (...) {
            return false;
        }
    };
    for (bool again = false;; again = true) {
        try {
            return read();
        } catch (const ::DamagedFileError& damage) {
            if (hasChanged()) throw ::FileChangedError(damage);
            if (again) throw;
        }
    }
}

// The first block whose record cannot be true, or that does not directly follow the one before it (or the heading) in
// logical positions and in the file; the number of blocks if the last one reaches into the index; empty if all is well.
std::optional<std::size_t> firstGap(const compressionHeading& heading, std::span<const filePosRecord> records);

// Throws if firstGap finds a gap: append and verify need this check beyond those of reading. `records` are in host
// order.
void checkContiguous(const bytesFrom& file, const compressionHeading& heading, std::span<const filePosRecord> records);

}  // namespace orva
