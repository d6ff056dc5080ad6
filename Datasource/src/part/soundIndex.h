// Whether a heading can be believed: it stands where it says, in one byte order or the other, and points to an index
// with its mark, its count and records of blocks that follow each other without gaps, inside the file.
//
// Threads: no state.
// Failure: none of its own; what reads the index may throw.
#pragma once

#include <orva/compressedLayout.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace orva {

using fileBytes = std::vector<unsigned char>;
using rawHeading = std::array<unsigned char, kHeadingSize>;  // as it stands in the file

struct soundIndex {
    compressionHeading heading;  // in host order, as the records
    std::vector<filePosRecord> records;
};

// Gives `size` bytes from the file offset `place` on, or none if they are not there.
using indexReader = std::function<fileBytes(std::int64_t place, std::int64_t size)>;

std::optional<soundIndex> soundIndexOf(const rawHeading& raw, std::int64_t row0Pos, std::int64_t fileSize,
                                       const indexReader& read);

}  // namespace orva
