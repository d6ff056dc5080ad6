// Where the blocks of a damaged or unfinished part stand. A walk finds them: a block is one zlib stream, which says
// itself where it ends and whether it is whole. Where no whole stream stands, an index tells where to go on and how
// many rows are missing.
//
// Failure: FileError from the disk.
// Work:    bounded by the bytes that the file really stores and the rows found in it, whatever they have been made to
//          look like.
#pragma once

#include "recovery/zlibStreams.h"

#include <orva/compressedLayout.h>
#include <orva/inspect.h>

#include <cstdint>
#include <functional>
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

using surveySegments = std::vector<surveySegment>;

// `tell` is called with each place in the file that the walk comes to. What is recovered and lost is left to the caller
// to report. Nothing when not even the part's place can be told, or no row can be had of rows that there were.
std::optional<surveySegments> surveyed(zlibStreams& streams, const recoverOptions& options,
                                       const std::function<void(std::int64_t)>& tell, recoverReport& report);

// How many rows the gaps of a survey stand for, as far as an index tells. Its records can lie, so a size is sure only
// where two of them say the same, or one of them and the rows found behind the gap. Each lost stretch gets that size,
// or keeps the guess that it came with. One of several blocks whose records agree becomes as many.
surveySegments withSizes(const surveySegments& segments, const std::vector<filePosRecord>& index, std::int64_t row0Pos);

}  // namespace orva
