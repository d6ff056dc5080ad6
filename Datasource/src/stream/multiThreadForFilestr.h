// multiThreadForFilestr: the read-ahead worker of a plain stream. While the caller works through one block, its thread
// reads the next one into a buffer of its own; a refill then takes that block with a copy.
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
    // `file` is not counted: it outlives the worker. `ownThreads`: the destructor ends the threads.
    multiThreadForFilestr(ORVA_File* file, std::uint32_t blockSize, bool ownThreads);
    // Only for an object marked unshareable, which no stream makes: a worker's threads know one object.
    multiThreadForFilestr(const multiThreadForFilestr&);
    multiThreadForFilestr& operator=(const multiThreadForFilestr&) = delete;
    ~multiThreadForFilestr() override;

    // The bytes of the file's block at `position`: 0 at the end of the file. A miss reads on the caller's thread.
    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t readLoopStep() override;

    // The caller side has written these bytes of the file: a block read ahead before is no hit.
    void noteWritten(std::int64_t begin, std::int64_t end) { fSlot.noteWritten(begin, end, stBlockSize); }

private:
    orva::readAheadSlot fSlot;
    ORVA_File* const pFile;
    const std::uint32_t stBlockSize;
    const bool bOwnThreads;
    orva::blockBuffer pReadBuffer;  // in the owner's turn
};
