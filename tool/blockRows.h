// Rows of a few blocks, for verbs that look here and there: each block is inflated as a whole when one of its rows is
// asked for, and the last two are kept, so that what lies across a border costs no block twice.
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

// The number of the block that holds the byte at `offset`, which is one of the rows.
std::size_t blockAt(const std::vector<orva::Block>& blocks, std::int64_t offset);

// For the rows of a block: on huge pages where there are such, since a first touch costs by the page.
std::shared_ptr<std::byte> blockMemory();

class blockRows {
public:
    explicit blockRows(const shownFile& file) : fFile(file) {}

    const shownFile& file() const { return fFile; }
    // From the byte at `offset` to the end of its block. Valid until a third block is asked for.
    std::string_view from(std::int64_t offset);
    // Calls take(string_view) for the `size` bytes from `offset` on, all of them rows, block by block.
    template <class Take>
    void pass(std::int64_t offset, std::int64_t size, Take take) {
        for (const std::int64_t end = offset + size; offset < end;) {
            const std::string_view rows = from(offset);
            const std::int64_t count = std::min<std::int64_t>(std::ssize(rows), end - offset);
            take(rows.substr(0, static_cast<std::size_t>(count)));
            offset += count;
        }
    }
    // How many blocks were inflated.
    std::int64_t inflated() const { return fInflated; }

private:
    struct slot {
        orva::Range held;  // nothing at first
        std::shared_ptr<std::byte> rows;
        bool holds(std::int64_t offset) const { return offset >= held.offset && offset < held.offset + held.length; }
    };
    void load(std::int64_t offset);

    const shownFile& fFile;
    slot fCurrent;
    slot fBefore;
    std::int64_t fInflated = 0;
};
