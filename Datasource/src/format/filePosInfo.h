// filePosInfo: the in-memory block index of one compressed stream. Maps a logical position to the record of the block
// that holds it, collects records while blocks are written, turns them into index bytes and back.
// Format: docs/format.md, "Index".
//
// Units:   logical positions (the first data byte stands at the row-0 position); only translatePos is a file offset.
// Owner:   the stream. Workers hold a plain pointer and end before it does.
// Threads: no lock. Writing: one thread at a time. Reading: parse first, then findRecord on any thread.
// Failure: an assertion on a caller's duty, DamagedFileError on bytes from a file; bad_alloc changes nothing.
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

// Throw DamagedFileError, which names the file, unless an index's first record, or the record of a block behind the one
// before, can be true by itself.
void checkFirstRecord(const filePosRecord& first, const std::string& fileName);
void checkAscends(std::span<const filePosRecord> records, std::size_t number, const std::string& fileName);

// The length of full blocks that the writer of these had chosen, as far as they tell: that of all but the last. One
// block alone may be a short one: unless it is longer than the command's are, it passes for one of those.
std::int64_t chosenLength(std::span<const filePosRecord> records);

// The greatest of these sizes of the blocks, 0 without any. One that cannot be true counts as well.
std::size_t longest(std::span<const filePosRecord> records, std::int32_t filePosRecord::*size);

}  // namespace orva

class filePosInfo {
public:
    // `fileName` is for messages.
    explicit filePosInfo(std::uint32_t blockSize, std::string fileName = {});

    // Write side: one record a block, in block order. length_error once the index's length would pass 32 bits.
    void addRecord(std::int64_t orginalPos, std::int64_t translatePos, std::int32_t orginalSize,
                   std::int32_t translateSize);
    std::size_t recordCount() const { return fRecords.size(); }
    // Where the last added block ends in the file, or `otherwise` without one.
    std::int64_t writtenEnd(std::int64_t otherwise) const;
    // The index bytes of what was added, valid until the next call or the index's end. `swap`: in the other byte order.
    const unsigned char* serialize(std::uint32_t& stLength, bool swap = false);

    // Read side. Takes index bytes whose length was held against their record count. Null changes nothing.
    void parseForRead(const unsigned char* buff, bool swap);
    // Takes all records but the last over to the write side and gives the last, which the caller decides about; the
    // first record (orginalPos -100) when there are no blocks. Swaps `buff` in place. Look-up is closed from here on.
    filePosRecord parseForAppend(unsigned char* buff, bool swap);

    // The record whose block holds `pos`; where none does, orginalPos is -200 and the other fields are unset.
    // Needs parseForRead. Allocates nothing. Reads O(log distance) records around a guess.
    filePosRecord findRecord(std::int64_t pos) const;
    // The number of that record.
    std::optional<std::uint32_t> find(std::int64_t pos) const;
    // The parsed records; none before.
    std::span<const filePosRecord> records() const { return fParsed; }
    std::uint32_t parsedCount() const { return static_cast<std::uint32_t>(fParsed.size()); }
    const filePosRecord& parsed(std::uint32_t number) const { return fParsed[number]; }
    std::uint32_t blockSize() const { return fBlockSize; }
    // Logical position behind the last parsed block, or `otherwise` when there are none.
    std::int64_t dataEnd(std::int64_t otherwise) const;

    // The length of the file: no block of it can reach further. Unlimited at first.
    void limitPlaces(std::int64_t fileEnd) { fFileEnd = fileEnd; }
    std::int64_t placeLimit() const { return fFileEnd; }

    static void swapRecord(filePosRecord* record) { orva::swapRecord(*record); }

private:
    // The records of an index, checked and in host order; takes its block size.
    std::vector<filePosRecord> taken(const unsigned char* buff, bool swap);
    std::int64_t likelyNumber(std::int64_t pos) const;
    // The number of the record around the guess that holds `pos`, or -1.
    std::int64_t searchOutward(std::int64_t guess, std::int64_t pos) const;
    std::uint32_t answer(std::int64_t number, std::int64_t cursor) const;

    std::string fFileName;
    // Write side.
    std::vector<filePosRecord> fRecords;
    std::vector<filePosRecord> fSerialized;
    // Read side, fixed once parsed.
    std::vector<filePosRecord> fParsed;
    bool bParsed = false;
    std::uint32_t fBlockSize;
    std::int64_t fFileEnd = std::numeric_limits<std::int64_t>::max();
    // A guess at the next hit, raced on purpose: read once per look-up, then clamped.
    mutable std::atomic<std::uint32_t> fCursor{0};
};
