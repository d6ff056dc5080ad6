// partSurvey: where the blocks of a damaged or unfinished part stand, as far as its heading, its index, or the blocks
// themselves tell. A block needs no index to be found: it is one zlib stream, which says itself where it ends and
// whether it is whole.
//
// Owner:   the caller owns the file; a survey owns three blocks of memory and its findings.
// Threads: one at a time.
// Failure: FileError from the disk.
// Work:    bounded by the size of the file and of the rows found in it, whatever its bytes have been made to look like.
#pragma once

#include "base/blockBuffer.h"
#include "format/filePosInfo.h"

#include <orva/blockSize.h>
#include <orva/file.h>
#include <orva/inspect.h>
#include <orva/zlibCompress.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace orva {

// A stretch of rows: one block, or rows that are lost.
struct surveySegment {
    std::int64_t size;     // bytes of rows
    std::int64_t place;    // file offset of the block, or where the lost one should stand
    std::uint32_t length;  // of the block in the file; 0: lost
    bool estimated;        // the size of a lost stretch is a guess
    const char* why;       // it is lost
};

class partSurvey {
public:
    explicit partSurvey(ORVA_File& file);

    // Fills the findings below. False when not even the part's place can be told, or no row can be had of rows that
    // there were.
    bool run(const recoverOptions& options);
    // Inflates the segment's block: its rows, valid until the next call; null when it cannot be.
    const unsigned char* rowsOf(const surveySegment& segment);

    foundPart part{};
    bool hadHeading = false;
    bool hadIndex = false;
    bool lastRewritten = false;
    std::int64_t committedRows = 0;
    std::vector<surveySegment> segments;

private:
    static constexpr std::int64_t kUnknown = -1;
    struct stream {
        std::uint32_t rows;
        std::uint32_t length;
    };

    std::optional<foundPart> locate(const recoverOptions& options);
    void takeHeading();
    // By an index.
    bool parseIndex(const compressionHeading& heading, bool swapped, filePosInfo& index);
    bool readByIndex(const filePosInfo& index);
    bool takeRecord(const filePosInfo& index, std::uint32_t i);
    void takeJoining();
    // Without the one that the heading points to.
    void walk();
    bool readByLaterIndex(std::int64_t from);
    bool continuesWalk(const filePosInfo& index, std::int64_t from) const;
    void commitWalked(bool onlyCommitted);
    std::size_t committedSegments() const;
    void addMissing(std::int64_t count);

    std::optional<stream> streamAt(std::int64_t place);
    blockOutcome inflateAt(std::int64_t place, std::uint32_t firstRead);
    std::optional<std::int64_t> nextStream(std::int64_t from, std::int64_t end);
    void take(const stream& found, std::int64_t place);
    bool outOfPatience() const;
    static std::int64_t workOf(const stream& found);

    ORVA_File& fFile;
    const std::int64_t fFileSize;
    compressionHeading fHeading{};
    std::optional<std::int64_t> fCount;  // blocks that the heading vouches for
    std::int64_t fPlace = kUnknown;      // behind the block taken last, where the next one begins
    std::int64_t fLogical = 0;           // the same in rows, as far as an index is followed
    bool bPlaceSure = false;             // that block was read, so fPlace outranks a record
    std::int64_t fWasted = 0;            // bytes through the codec for nothing
    std::int64_t fTaken = 0;             // for the segments
    std::int64_t fRead = 0;              // from the file, for blocks
    std::uint32_t fUsualLength = kBlockSize;
    zlibCompressBlock fCodec;
    blockBuffer fCompressed;
    blockBuffer fWindow;
    blockBuffer fRows;
};

}  // namespace orva
