// rowsRead: one read of rows, cut into pieces of blocks; each block is inflated once, whole ones straight into the
// caller's memory.
//
// Owner:   part, shelf and pieces outlive the call.
// Threads: those that it works with start and end with the call, and take no signals.
// Failure: that of the first block that cannot be had; bad_alloc. No thread to be had: the others do its work.
#pragma once

#include "api/blockShelf.h"
#include "api/shownPart.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace orva {

struct rowPiece {
    std::uint32_t block;
    i64 from;  // in the block
    i64 size;
    std::byte* to;
};

// `pieces`: those of a block next to each other. `threads`: at work in all.
void readPieces(const shownPart& part, blockShelf& shelf, std::span<const rowPiece> pieces, std::uint32_t threads);

}  // namespace orva
