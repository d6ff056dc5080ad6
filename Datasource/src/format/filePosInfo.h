// filePosInfo: the in-memory block index of one compressed stream. Maps a logical position to the record of its block,
// collects records while blocks are written, and converts them to index bytes and back. Format: docs/format.md,
// "Structures".
//
// Units:   logical positions (the first data byte stands at the row-0 position); only translatePos is a file offset.
// Owner:   the stream. Workers hold a plain pointer and end before the stream does.
// Threads: no lock. Writing: one thread at a time. Reading: parse first, then look up on any thread.
// Failure: an assertion if a caller breaks its contract; DamagedFileError for bytes of a file; bad_alloc changes
//          nothing.
#pragma once

#include <orva/compressedLayout.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orva {

// The index's length, (records + 1) x 24, must fit its 32-bit count.
inline constexpr std::int64_t kMostRecords = 178'956'969;
static_assert((kMostRecords + 1) * kRecordSize <= UINT32_MAX && (kMostRecords + 2) * kRecordSize > UINT32_MAX);

// The logical position after the rows of a block, and the file offset after its compressed bytes.
constexpr std::int64_t rowsEnd(const filePosRecord& block) {
    return block.orginalPos + block.orginalSize;
}
constexpr std::int64_t storedEnd(const filePosRecord& block) {
    return block.translatePos + block.translateSize;
}

// Throws DamagedFileError with the file's name unless this can be the first record of an index.
void checkFirstRecord(const filePosRecord& first, const std::string& fileName);

// The block length that the writer of these records had chosen, as far as they show it: that of all but the last. A
// single block may be a short one, and counts as one of the command's unless it is longer than those.
std::int64_t chosenLength(std::span<const filePosRecord> records);

// The greatest `size` of the records, 0 without any. Impossible sizes count as well.
std::size_t longest(std::span<const filePosRecord> records, std::int32_t filePosRecord::*size);

}  // namespace orva

class filePosInfo {
public:
    // `fileName` is for messages.
    explicit filePosInfo(std::uint32_t blockSize, std::string fileName = {});

    // Write side: adds one record a block, in block order. Throws length_error once the index's length would pass 32
    // bits.
    void addRecord(std::int64_t orginalPos, std::int64_t translatePos, std::int32_t orginalSize,
                   std::int32_t translateSize);
    // Where the last added block ends in the file; `otherwise` if there is none.
    std::int64_t writtenEnd(std::int64_t otherwise) const;
    // The index bytes of the added records, valid until the next call or the object's end. `swap`: in the other byte
    // order.
    const unsigned char* serialize(std::uint32_t& stLength, bool swap = false);

    // Read side. Parses the bytes of an index that has been checked by readIndex. Null changes nothing.
    void parseForRead(const unsigned char* buff, bool swap);
    // Moves all records but the last to the write side and returns the last, for the caller to decide about; without
    // blocks it returns the first record (orginalPos -100). Swaps `buff` in place. Look-up is impossible afterwards.
    filePosRecord parseForAppend(unsigned char* buff, bool swap);

    // The record whose block holds `pos`; if there is none, orginalPos is -200 and the other fields are unset. Needs
    // parseForRead. Allocates nothing. Reads O(log distance) records around a guess.
    filePosRecord findRecord(std::int64_t pos) const;
    // The number of that record; empty if there is none.
    std::optional<std::uint32_t> find(std::int64_t pos) const;
    // The parsed records; empty before parsing.
    std::span<const filePosRecord> records() const { return fParsed; }
    std::uint32_t parsedCount() const { return static_cast<std::uint32_t>(fParsed.size()); }
    const filePosRecord& parsed(std::uint32_t number) const { return fParsed[number]; }
    // Logical position after the last parsed block, or `otherwise` without one.
    std::int64_t dataEnd(std::int64_t otherwise) const;

    // Sets the length of the file, which no block can pass. Unlimited at first.
    void limitPlaces(std::int64_t fileEnd) { fFileEnd = fileEnd; }
    std::int64_t placeLimit() const { return fFileEnd; }

    static void swapRecord(filePosRecord* record) { orva::swapRecord(*record); }

private:
    // Returns the block records of an index in host order; stores its block size.
    std::vector<filePosRecord> parse(const unsigned char* buff, bool swap);
    // The number of the record that would hold `pos` if all blocks had one size.
    std::int64_t interpolated(std::int64_t pos) const;
    // The number of the record around the guess that holds `pos`, or -1.
    std::int64_t gallop(std::int64_t guess, std::int64_t pos) const;
    // Returns `number`, and sets the cursor to the next guess.
    std::uint32_t foundAt(std::int64_t number, std::int64_t nextGuess) const;

    std::string fFileName;
    // Write side.
    std::vector<filePosRecord> fRecords;
    std::vector<filePosRecord> fSerialized;
    // Read side, fixed once parsed.
    std::vector<filePosRecord> fParsed;
    bool bParsed = false;
    std::uint32_t fBlockSize;
    std::int64_t fFileEnd = std::numeric_limits<std::int64_t>::max();
    // A guess at the next hit. Races on it are harmless: it is read once per look-up, then clamped.
    mutable std::atomic<std::uint32_t> fCursor{0};
};
