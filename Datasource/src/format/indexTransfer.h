// The heading and the index of a compressed part, from the file and back to it, with every check that bytes of a file
// can reach. What they mean: docs/format.md.
//
// Threads: no state; the file locks itself.
// Failure: FileError from the file; DamagedFileError, before any allocation that the file's size can't justify.
#pragma once

#include "format/filePosInfo.h"
#include "format/storedBytes.h"

#include <orva/compressedLayout.h>
#include <orva/errors.h>

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace orva {

// The file's length. Throws where ORVA_File::Size gives -1.
inline std::int64_t lengthOf(bytesFrom file) {
    return file.length();
}

// The text of the check that a heading fails whatever file it stands in; null when it could be true.
const char* breachOf(const compressionHeading& heading);
// The heading whose 24 bytes these are, in host order, if it repeats `place` in this byte order and could be true.
std::optional<compressionHeading> headingOf(const unsigned char* bytes, std::int64_t place, bool swap);

// Reads the heading at `row0Pos`, in host order afterwards. `positionCheck` is the caller's text of the check that the
// heading repeats its own position.
compressionHeading readHeading(bytesFrom file, std::int64_t row0Pos, bool swap, const char* positionCheck);

// What an index tells, in host order.
struct indexContent {
    std::uint32_t blockSize = 0;
    std::vector<filePosRecord> records;
};

// Reads the index that the heading points to, a piece at a time. Its length is whole records, lies inside the file and
// agrees with the record count; record 0 stands at the row-0 position. Memory follows what the file really stores: an
// index that claims gigabytes of a hole is refused at the first record that cannot be true. `atOnce`: in one read,
// where each costs much.
indexContent readRecords(bytesFrom file, const compressionHeading& heading, bool swap, bool atOnce = false);

// The index as it stands in the file, for filePosInfo to parse: of its length the same holds, and it has no hole.
std::vector<filePosRecord> readIndex(bytesFrom file, const compressionHeading& heading, bool swap);
// The same, parsed for reading; its record 0 stands at the row-0 position.
void loadIndex(bytesFrom file, const compressionHeading& heading, bool swap, filePosInfo& index);

// Heading or index do not stand there any more as they were read: somebody has written to the file since.
bool changedSince(bytesFrom file, const compressionHeading& heading, bool swap, std::span<const filePosRecord> records);

// Calls `read`, which reads a block. Damage is what it meets twice, with a look in between that has shown no change: an
// append that is undone meanwhile has put the block back, and leaves no other trace. A look that fails tells nothing.
template <class Read, class Changed>
auto readSurely(Read read, Changed changed) {
    const auto shown = [&] {
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
            if (shown()) throw ::FileChangedError(damage);
            if (again) throw;
        }
    }
}

// The first block whose record cannot be true, or that does not stand right behind the one before it, or the heading,
// in logical positions and in the file; the number of blocks where the last reaches into the index; nothing where all
// is well.
std::optional<std::size_t> firstGap(const compressionHeading& heading, std::span<const filePosRecord> records);

// What an append needs, and a verifier asks, beyond that: there is no such gap. `records` in host order.
void checkContiguous(bytesFrom file, const compressionHeading& heading, std::span<const filePosRecord> records);

}  // namespace orva
