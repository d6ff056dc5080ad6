// Rows of a few blocks, for verbs that read here and there. A block is inflated whole when one of its rows is asked
// for, and the last two are kept, so that a record across a border costs no block twice.
//
// Units:   offsets in bytes from the first byte of rows.
// Owner:   two blocks of memory.
// Failure: as orva::Reader::read_at.
#pragma once

#include "part.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

// The number of the block that holds the byte at `offset`, which must be one of the rows.
std::size_t blockAt(const std::vector<orva::Block>& blocks, std::int64_t offset);

// Memory for the rows of a block, on huge pages if there are any: the first touch costs by the page.
std::shared_ptr<std::byte> blockMemory();

class blockRows {
public:
    explicit blockRows(const openedPart& file) : fFile(file) {}

    const openedPart& file() const { return fFile; }
    // The rows from `offset` to the end of its block. Valid until a third block is asked for.
    std::string_view from(std::int64_t offset);
    // Calls visitor(string_view), block by block, for the `size` bytes from `offset` on, which must all be rows.
    template <class Visitor>
    void visit(std::int64_t offset, std::int64_t size, Visitor visitor) {
        for (const std::int64_t end = offset + size; offset < end;) {
            const std::string_view rows = from(offset);
            const std::int64_t count = std::min<std::int64_t>(std::ssize(rows), end - offset);
            visitor(rows.substr(0, static_cast<std::size_t>(count)));
            offset += count;
        }
    }
    // The number of blocks inflated.
    std::int64_t inflated() const { return fInflated; }

private:
    struct slot {
        orva::Range held;  // empty at first
        std::shared_ptr<std::byte> rows;
        bool holds(std::int64_t offset) const { return offset >= held.offset && offset < held.offset + held.length; }
    };
    void load(std::int64_t offset);

    const openedPart& fFile;
    slot fCurrent;
    slot fBefore;
    std::int64_t fInflated = 0;
};
