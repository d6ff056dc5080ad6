// blockCache: the blocks that a Reader keeps inflated, and spare memory for others. Threads inflate outside the lock;
// two that ask for one block at once both inflate it.
//
// Owner:   a block is shared with the threads that are copying from it.
// Threads: any.
// Fork:    a child may find the cache locked by a thread that it does not have, so it makes one of its own
//          (Reader::State).
// Failure: bad_alloc.
#pragma once

#include "api/partSnapshot.h"
#include "base/blockBuffer.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace orva {

class blockCache {
public:
    using rows = std::shared_ptr<blockBuffer>;

    explicit blockCache(int most) : fMost(static_cast<std::size_t>(most)) {}

    // The rows of block `number` of the part with the id `part`; null if they are not kept. Give them back by
    // putBack().
    rows find(std::uint64_t part, std::uint32_t number);
    // Releases the rows under the lock, so that all reads of them happen before memory() hands them out to be written.
    void putBack(rows copied);
    // Memory for one block of the part: that of the oldest kept block if nobody is copying from it, else new memory.
    rows memory(const partSnapshot& part);
    void keep(std::uint64_t part, std::uint32_t number, rows kept);
    void clear();

    // Memory for compressed bytes. The cache keeps as many such buffers as were ever in use at once.
    blockBuffer takeScratch(const partSnapshot& part);
    void putBack(blockBuffer scratch);

private:
    struct entry {
        std::uint64_t part = 0;  // 0: no part
        std::uint32_t number = 0;
        std::uint64_t lastUse = 0;
        rows kept;
    };
    entry& oldest();

    const std::size_t fMost;

    std::mutex fLock;
    std::vector<entry> fEntries;  // at most fMost
    std::vector<blockBuffer> fScratch;
    std::uint64_t fClock = 0;
};

}  // namespace orva
