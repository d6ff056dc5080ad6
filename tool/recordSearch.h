// Finds records whose key ascends through the rows, by bisection over the blocks: no index file beside the data.
//
// Failure: as blockRows; toolFailure with kDamaged for records out of order, as far as the search sees them.
#pragma once

#include "blockRows.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

struct keyType;

// The range of keys that meet all given conditions. Keys are compared by rank, a number that ascends with the values of
// the type.
class keyRange {
public:
    // Conditions of the form "OFFSET:TYPE>=VALUE", all with the same OFFSET and TYPE. Anything else is a usage error.
    explicit keyRange(const std::vector<std::string>& conditions);

    std::int64_t offset() const { return fOffset; }
    std::size_t width() const;
    // Empty for a value without a rank (NaN). `swapped`: the key has the other byte order.
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

    // The first record not below the range; the number of records if there is none. Inflates about log2(blocks) blocks.
    std::int64_t first();
    // How many records from `record` on lie in the range and end in the block where `record` begins. A `record` in the
    // range counts even if it ends later.
    std::int64_t countFrom(std::int64_t record);
    std::int64_t records() const { return fRecords; }

private:
    // Records `begin` up to but not including `end`.
    struct interval {
        std::int64_t begin;
        std::int64_t end;
    };
    std::int64_t keyPlace(std::int64_t record) const { return record * fRecordSize + fRange.offset(); }
    std::int64_t keyEnd(std::int64_t record) const {
        return keyPlace(record) + static_cast<std::int64_t>(fRange.width());
    }
    interval probe(interval left) const;
    std::uint64_t rankOf(std::int64_t record, std::uint64_t before);
    [[noreturn]] void refuse(std::int64_t record) const;

    blockRows& fRows;
    const keyRange& fRange;
    const std::int64_t fRecordSize;
    const std::int64_t fRecords;
    std::uint64_t fLastRank = 0;  // rank of the record that countFrom saw last
};
