// partSurvey: where the blocks of a damaged or unfinished part stand. It walks: a block is one zlib stream, which says
// itself where it ends and whether it is whole. Where no whole stream stands, an index tells where to go on and how
// many rows are missing.
//
// Owner:   the caller owns the file; a survey owns two blocks of memory, a window, one index and its findings.
// Threads: one at a time.
// Failure: FileError from the disk.
// Work:    bounded by the bytes that the file really stores and the rows found in it, whatever they have been made to
//          look like.
#pragma once

#include "base/blockBuffer.h"
#include "format/indexTransfer.h"
#include "recovery/fileWindow.h"
#include "recovery/gapSizes.h"
#include "recovery/patience.h"

#include <orva/file.h>
#include <orva/inspect.h>
#include <orva/zlibCompress.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace orva {

class partSurvey {
public:
    explicit partSurvey(ORVA_File& file);

    // Fills the findings below. False when not even the part's place can be told, or no row can be had of rows that
    // there were.
    bool run(const recoverOptions& options);
    // Inflates the segment's block: its rows, valid until the next call; null when it cannot be.
    const unsigned char* rowsOf(const surveySegment& segment);
    // For the `tell` that run() was given: what is done up to this place in the file, `again`: of going through it
    // for the rows.
    void tell(std::int64_t place, bool again);

    recoverReport report;  // what is recovered and lost is for the caller to fill in
    std::vector<surveySegment> segments;

private:
    struct resumption {
        std::optional<std::int64_t> place;
        bool sure;  // no block before it was overlooked
    };

    std::optional<foundPart> locate(const recoverOptions& options);
    void takeHeading();
    // The walk.
    void walk();
    bool allSeen() const;
    void takeBlock(const blockOutcome& found);
    bool bridge();
    resumption resumeByIndex(bool inStep);
    void earnByLoss(std::int64_t place, std::int64_t end);
    // What an index says.
    bool takeIndex(const compressionHeading& heading, bool swapped);
    void findLaterIndex();
    bool takeLaterIndex(std::int64_t place, const unsigned char* bytes);
    bool tellsOfBlocksSeen(const std::vector<filePosRecord>& index, std::int64_t place) const;
    void seeIfMoved(std::int64_t place);
    std::int64_t placeOf(std::size_t number, std::int64_t moved = 0) const;
    std::int64_t endOf(std::size_t number) const;
    std::optional<std::size_t> numberHere();
    // What the heading vouches for.
    void commit(bool onlyCommitted);
    std::size_t committedSegments() const;
    void addMissing(std::int64_t count);
    // Single streams.
    std::optional<blockOutcome> streamAt(std::int64_t place, patience& left);
    blockOutcome inflateAt(std::int64_t place, std::uint32_t firstRead);
    std::optional<std::int64_t> nextStream(std::int64_t from, std::int64_t end);

    ORVA_File& fFile;
    std::function<void(std::int64_t done, std::int64_t total)> fTell;
    std::int64_t fDone = 0;
    fileWindow fWindow;
    compressionHeading fHeading{};
    std::optional<std::int64_t> fCount;  // blocks that the heading vouches for
    std::vector<filePosRecord> fIndex;
    std::int64_t fMoved = 0;       // bytes by which blocks may stand behind the places that the index tells
    std::int64_t fLimit;           // what stands from here on is there only as far as it joins on
    std::int64_t fPlace = 0;       // behind the block taken last, where the next one begins
    std::size_t fNext = 0;         // the number of that one, as far as an index knows it
    std::int64_t fNextPlace = 0;   // where that one stands by the length of the record before
    bool bLastAsRecorded = false;  // the last block that an index tells of was taken
    bool bLookedForIndex = false;
    patience fPatience;
    patience fIndexPatience;
    std::int64_t fEarnedTo = 0;  // in the file, by lost blocks
    std::int64_t fRead = 0;      // from the file, for blocks
    std::uint32_t fUsualLength = kBlockSize;
    zlibCompressBlock fCodec;
    blockBuffer fCompressed;
    blockBuffer fRows;
};

}  // namespace orva
