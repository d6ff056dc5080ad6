// blockSource: where a reader's blocks come from, each whole, inflated and checked: read by the caller, or read ahead
// by threads of the source's own.
//
// Owner:   partReader. File and index outlive the source; the index is parsed and stays as it is.
// Threads: the caller's. In a forked child a source reads without its threads, or is destroyed.
// Failure: what readBlock throws, for the block that was asked for; the source goes on serving the others.
#pragma once

#include "base/blockBuffer.h"
#include "part/roads.h"

#include <cstdint>
#include <memory>

class ORVA_File;
class filePosInfo;

namespace orva {

class blockSource {
public:
    virtual ~blockSource() = default;
    // The rows of the block, in memory of the source until the next call.
    virtual const unsigned char* lend(std::uint32_t number);
    // The rows of the block into the caller's memory.
    virtual void read(std::uint32_t number, unsigned char* to) = 0;
    virtual atWork threads() const { return atWork::none; }

private:
    blockBuffer fBuffer;
};

// Starts the one thread at once, several with the first block.
std::unique_ptr<blockSource> makeSource(ORVA_File& file, const filePosInfo& index, const roads& taken);

// Keeps up to `blocks` blocks, at least 1, that were lent, 4 MiB each. The least recently used one makes room.
std::unique_ptr<blockSource> cached(std::unique_ptr<blockSource> source, const filePosInfo& index,
                                    std::uint32_t blocks);

}  // namespace orva
