// blockCache: the blocks of one part that a Reader keeps inflated, and spare memory for others. Threads inflate outside
// the locks, and touch the caller's memory outside them, which may have to wait for a disk. Two that ask for one block
// at once both inflate it.
//
// Units:   bytes; offsets count from the first byte of rows.
// Owner:   a block is shared with the threads that are copying from it.
// Threads: any.
// Fork:    a child may find the cache locked by a thread that it does not have, so it makes one of its own
//          (Reader::State).
// Failure: bad_alloc.
#pragma once

#include "api/partSnapshot.h"
#include "base/blockBuffer.h"
#include "base/readMostlyLock.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace orva {

class blockCache {
public:
    struct block {
        blockBuffer bytes;
        Range rows{};  // set by keep()
        std::atomic<std::uint64_t> lastUse{0};
    };
    using blockPtr = std::shared_ptr<block>;

    static constexpr std::size_t kFew = 4096;

    explicit blockCache(int most) : fMost(static_cast<std::size_t>(most)) {}

    // Drops all blocks, and from now on keeps only those of the part with the id `part`, unless it has moved to a later
    // one. A new cache keeps those of the first part that it meets.
    void moveTo(std::uint64_t part);
    // True if one kept block has all the rows from `offset` on that fill `to`, at most kFew bytes: they are then in it.
    // Threads that read one block in this way write to no memory that they share.
    bool copyFew(std::int64_t offset, Bytes to);

    // The block that holds `offset`; null if it is not kept. Give it back by putBack().
    blockPtr find(std::uint64_t part, std::int64_t offset);
    // Releases the block under the lock, so that all reads of it happen before memory() hands it out to be written.
    void putBack(blockPtr copied);
    // Memory for one block of the part: that of the oldest kept block if nobody is copying from it, else new memory.
    blockPtr memory(const partSnapshot& part);
    void keep(std::uint64_t part, Range rows, blockPtr inflated);

    // Memory for compressed bytes. The cache keeps as many such buffers as were ever in use at once.
    blockBuffer takeScratch(const partSnapshot& part);
    void putBack(blockBuffer scratch);

private:
    blockPtr* holding(std::int64_t offset);
    std::vector<blockPtr>::iterator oldest();

    readMostlyLock fLock;         // of the next two
    std::uint64_t fPart = 0;      // its id; 0: none yet
    std::vector<blockPtr> fKept;  // at most fMost

    const std::size_t fMost;
    std::atomic<std::uint64_t> fClock{0};

    std::mutex fScratchLock;
    std::vector<blockBuffer> fScratch;
};

}  // namespace orva
