// blockShelf: the blocks that a Reader keeps inflated, and memory for further ones. Blocks are inflated by whoever
// asks, outside the lock; two who ask for one block at once both inflate it.
//
// Owner:   blocks are shared with whoever copies from them just now.
// Threads: any.
// Fork:    a child may find it locked, by a thread that it does not have: it makes one of its own (Reader::State).
// Failure: bad_alloc.
#pragma once

#include "api/shownPart.h"
#include "base/blockBuffer.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace orva {

class blockShelf {
public:
    using rows = std::shared_ptr<blockBuffer>;

    explicit blockShelf(int most) : fMost(static_cast<std::size_t>(most)) {}

    // The rows of that block of the part with that id, to be put back; null where they are not kept.
    rows find(std::uint64_t part, std::uint32_t number);
    // Lets go of them under the lock, so that all reads of them come before memory() gives them to be written.
    void putBack(rows copied);
    // Memory for a block of the part, of the entry that has to make room if nobody copies from it.
    rows memory(const shownPart& part);
    void keep(std::uint64_t part, std::uint32_t number, rows kept);
    void clear();

    // Memory for compressed bytes, as much of it as was needed at once.
    blockBuffer takeScratch(const shownPart& part);
    void putBack(blockBuffer scratch);

private:
    struct entry {
        std::uint64_t part = 0;  // none has this id
        std::uint32_t number = 0;
        std::uint64_t lastUse = 0;
        rows kept;
    };
    entry& oldest();

    const std::size_t fMost;

    std::mutex fLock;
    std::vector<entry> fEntries;  // up to fMost
    std::vector<blockBuffer> fScratch;
    std::uint64_t fClock = 0;
};

}  // namespace orva
