// Finds the blocks of a damaged or unfinished part by a walk from block to block: a block is one zlib stream, which
// shows by itself where it ends and whether it is complete. Where there is no complete stream, an index tells where to
// go on and how many rows are missing.
//
// Failure: FileError from the disk.
// Work:    bounded by the bytes that the file really stores and the rows found in it, even in a file made to be slow.
#pragma once

#include "recovery/zlibStreams.h"

#include <orva/compressedLayout.h>
#include <orva/inspect.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace orva {

// The most bytes of rows that one byte of a zlib stream can stand for, and the length of the shortest stream.
inline constexpr std::int64_t kBestRatio = 1032;
inline constexpr std::int64_t kShortestStream = 9;
// The most blocks that were in so many bytes. Records that name more of them lie: if each of many gaps could be that of
// nearly all blocks, time and memory would grow with the square of the file.
constexpr std::int64_t mostBlocksIn(std::int64_t bytes) {
    return std::max<std::int64_t>(bytes / kShortestStream, 1);
}

// A stretch of rows: one block, or rows that are lost.
struct surveySegment {
    std::int64_t size;                    // bytes of rows
    std::int64_t place;                   // file offset of the block, or where the lost one should be
    std::optional<std::size_t> number{};  // of the index record that names this place
    std::uint32_t length = 0;             // of the block in the file; 0: lost
    // For lost rows only.
    bool estimated = false;     // `size` is a guess
    const char* why = nullptr;  // the reason of the loss
    std::int64_t most = 0;      // most bytes of rows that its bytes in the file can hold

    bool isLost() const { return length == 0; }
};

using surveySegments = std::vector<surveySegment>;

// The segments of the part, in order. Nothing if the place of the part cannot be found, or if the part had rows and
// none can be recovered. Calls `tell` with each file offset that the walk reaches. Fills in `report`, except the blocks
// and rows recovered and the ranges lost, which are the caller's to report.
std::optional<surveySegments> surveyed(zlibStreams& streams, const recoverOptions& options,
                                       const std::function<void(std::int64_t)>& tell, recoverReport& report);

// The same segments, with the sizes of the gaps as the index tells them. Its records can be false, so a size is exact
// only if two of them agree, counting the rows found, or if the position of the last record fits the rows before it. A
// gap without an exact size gets the first possible one that a record tells, else keeps its guess. A gap of exactly the
// size that the records of its lost blocks add up to becomes one segment for each block.
surveySegments withSizes(const surveySegments& segments, const std::vector<filePosRecord>& index, std::int64_t row0Pos);

}  // namespace orva
