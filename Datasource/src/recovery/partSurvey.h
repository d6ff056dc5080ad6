// Where the blocks of a damaged or unfinished part stand. A walk finds them: a block is one zlib stream, which says
// itself where it ends and whether it is whole. Where no whole stream stands, an index tells where to go on and how
// many rows are missing.
//
// Failure: FileError from the disk.
// Work:    bounded by the bytes that the file really stores and the rows found in it, whatever they have been made to
//          look like.
#pragma once

#include "recovery/gapSizes.h"
#include "recovery/zlibStreams.h"

#include <orva/inspect.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace orva {

struct partFindings {
    recoverReport report;  // what is recovered and lost is for the caller to fill in
    std::vector<surveySegment> segments;
};

// `tell` is called with each place in the file that the walk comes to. Nothing when not even the part's place can be
// told, or no row can be had of rows that there were.
std::optional<partFindings> surveyed(zlibStreams& streams, const recoverOptions& options,
                                     const std::function<void(std::int64_t)>& tell);

}  // namespace orva
