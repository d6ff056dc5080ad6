// Records whose key ascends through the rows, found by bisection over the blocks: no index file beside the data.
//
// Failure: as blockRows; toolFailure with kDamaged for records that are out of order, as far as the search sees them.
#pragma once

#include "blockRows.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

struct keyType;

// The records whose key meets all of the conditions given. A key is compared by its rank, a number that is in the order
// of the type's values.
class keyRange {
public:
    // "OFFSET:TYPE>=VALUE" and so on, each of the same OFFSET and TYPE. Anything else is a usage error.
    explicit keyRange(const std::vector<std::string>& conditions);

    std::int64_t offset() const { return fOffset; }
    std::size_t width() const;
    // Nothing for a value that has no place in the order. `swapped`: the other byte order.
    std::optional<std::uint64_t> rank(const unsigned char* key, bool swapped) const;
    bool isBelow(std::uint64_t rank) const { return rank < fFirst; }
    bool isBeyond(std::uint64_t rank) const { return rank > fLast; }

private:
    static constexpr std::uint64_t kHighest = std::numeric_limits<std::uint64_t>::max();
    void add(const std::string& condition);

    const keyType* fType = nullptr;
    std::int64_t fOffset = 0;
    std::uint64_t fFirst = 0;
    std::uint64_t fLast = kHighest;
};

class recordSearch {
public:
    recordSearch(blockRows& rows, const keyRange& range, std::int64_t recordSize);

    // The first record that is not below the range; the number of records where none is. Inflates about as many blocks
    // as the binary logarithm of their number.
    std::int64_t first();
    // How many of the records from `record` on lie in the range and end in the block where `record` begins; at least
    // one, if it lies in the range, however far it reaches.
    std::int64_t countFrom(std::int64_t record);
    std::int64_t records() const { return fRecords; }

private:
    struct stretch {
        std::int64_t begin;
        std::int64_t end;
    };
    std::int64_t keyPlace(std::int64_t record) const { return record * fRecordSize + fRange.offset(); }
    std::int64_t keyEnd(std::int64_t record) const {
        return keyPlace(record) + static_cast<std::int64_t>(fRange.width());
    }
    stretch probe(stretch left) const;
    std::uint64_t rankOf(std::int64_t record, std::uint64_t before);
    [[noreturn]] void refuse(std::int64_t record) const;

    blockRows& fRows;
    const keyRange& fRange;
    const std::int64_t fRecordSize;
    const std::int64_t fRecords;
    std::uint64_t fLastRank = 0;  // of the record that countFrom saw last
};
