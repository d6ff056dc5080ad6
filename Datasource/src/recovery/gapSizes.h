// How many rows the gaps of a survey stand for, as far as an index tells. Its records can lie, so a size is sure only
// where two of them say the same, or one of them and the rows found behind the gap.
#pragma once

#include <orva/compressedLayout.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace orva {

// A stretch of rows: one block, or rows that are lost.
struct surveySegment {
    std::int64_t size;                    // bytes of rows
    std::int64_t place;                   // file offset of the block, or where the lost one should stand
    std::optional<std::size_t> number{};  // of the index's record that tells of this place
    std::uint32_t length = 0;             // of the block in the file; 0: lost
    // Of a lost stretch.
    bool estimated = false;     // its size is a guess
    const char* why = nullptr;  // it is lost
    std::int64_t most = 0;      // rows that its bytes in the file could hold

    bool isLost() const { return length == 0; }
};

// Gives each lost stretch its size, or leaves it the guess that it came with. One of several blocks whose records agree
// becomes as many.
std::vector<surveySegment> withSizes(const std::vector<surveySegment>& segments,
                                     const std::vector<filePosRecord>& index, std::int64_t row0Pos);

}  // namespace orva
