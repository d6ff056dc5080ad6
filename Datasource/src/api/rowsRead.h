// rowsRead: one read of rows, cut into pieces at block borders. Each block is inflated once; one that is read whole
// goes straight into the caller's memory.
//
// Owner:   part, cache and pieces must outlive the call.
// Threads: extra threads start and end within the call and take no signals.
// Failure: that of the first block that cannot be read; bad_alloc. If no thread can be started, the others do its work.
#pragma once

#include "api/blockCache.h"
#include "api/partSnapshot.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace orva {

struct rowPiece {
    std::uint32_t block;
    i64 from;  // offset in the block
    i64 size;
    std::byte* to;
};

// Pieces of one block must be adjacent. `threads` counts the caller's.
void readPieces(const partSnapshot& part, blockCache& cache, std::span<const rowPiece> pieces, std::uint32_t threads);

}  // namespace orva
