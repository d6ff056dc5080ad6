// Whether a heading can be believed: it stands where it says, in one byte order or the other, and points to an index
// with its mark, its count and records of blocks that follow each other without gaps, inside the file.
//
// Threads: no state.
// Failure: FileError from the file.
#pragma once

#include "format/storedBytes.h"

#include <orva/compressedLayout.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace orva {

using fileBytes = std::vector<unsigned char>;
using rawHeading = std::array<unsigned char, kHeadingSize>;  // as it stands in the file

struct soundIndex {
    compressionHeading heading;  // in host order, as the records
    std::vector<filePosRecord> records;
};

// By the index in `file`, read from its first record on; the heading need not stand there.
std::optional<soundIndex> soundIndexOf(const rawHeading& raw, std::int64_t row0Pos, bytesFrom file);

}  // namespace orva
