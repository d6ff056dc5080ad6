// multiThreadForFilestr: the read-ahead worker of a plain stream. While the caller works through one block, its thread
// reads the next one into a buffer of its own, and the next refill copies that block.
//
// Hand-over and its rules: readAheadSlot.h. Copies of a stream share one worker and are served in turn.
#pragma once

#include "base/blockBuffer.h"
#include "worker/preIOThread.h"
#include "worker/readAheadSlot.h"

#include <orva/file.h>

#include <cstdint>

class multiThreadForFilestr : public readingWorker<PreIOThreadBase> {
public:
    // Holds no reference to `file`, which outlives the worker. `ownThreads`: the destructor ends the threads.
    multiThreadForFilestr(ORVA_File* file, std::uint32_t blockSize, bool ownThreads);
    // An assertion failure: workers cannot be copied, but RefCountPtr needs the declaration.
    multiThreadForFilestr(const multiThreadForFilestr&);
    multiThreadForFilestr& operator=(const multiThreadForFilestr&) = delete;
    ~multiThreadForFilestr() override;

    // Returns the bytes delivered, 0 at the end of the file. A miss reads the block on the caller's thread.
    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t readLoopStep() override;

    // The caller side has written these bytes of the file: a block read ahead that may lack them is no hit.
    void noteWritten(std::int64_t begin, std::int64_t end) { fSlot.noteWritten(begin, end, stBlockSize); }

private:
    orva::readAheadSlot fSlot;
    ORVA_File* const pFile;
    const std::uint32_t stBlockSize;
    const bool bOwnThreads;
    orva::blockBuffer pReadBuffer;  // touched in the owner's turn only
};
