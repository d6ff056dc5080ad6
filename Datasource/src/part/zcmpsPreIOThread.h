// The workers of the compressed stream.
//   PreIOThread_R_D      reads and inflates the next block beside the caller
//   PreIOThread_W_C      deflates, writes and records blocks beside the caller
//   PreIOThread_Tri_R_D  reads on one thread, inflates on a second, beside the caller
//
// Requests carry whole blocks: the orginalSize and orginalPos of a block's record. A request at a reading worker is
// answered by a copy of a block made ahead, or on the caller's own thread.
//
// Owner:   the stream owns the worker; file and index are the stream's and outlive it.
// Failure: a request throws what the inline road would throw, and the worker goes on serving.
#pragma once

#include "base/blockBuffer.h"
#include "format/filePosInfo.h"
#include "part/blockRoads.h"
#include "worker/preIOThread.h"
#include "worker/readAheadSlot.h"

#include <orva/file.h>
#include <orva/zlibCompress.h>

#include <atomic>
#include <cstdint>

// Hand-over and its rules: readAheadSlot.h.
class PreIOThread_R_D : public readingWorker<PreIOThreadBase> {
public:
    PreIOThread_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t blockSize);

    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t readLoopStep() override;
    // getBlock without the look-up.
    void load(std::uint32_t number, unsigned char* to);
    // It lends none.
    static const unsigned char* lend(std::uint32_t) { return nullptr; }

private:
    std::uint32_t readAndDecompress(unsigned char* dest, std::uint32_t number, bool ahead);

    orva::readAheadSlot fSlot;
    ORVA_File* const pFile;
    const filePosInfo* const pPosInfo;
    // In the owner's turn.
    zlibCompressBlock fCompressor;
    orva::blockBuffer pDecompressBuffer;
    orva::blockBuffer pCompressBuffer;
};

// One block, two turns, no lock:
//   caller's turn: semFreeSlot.wait -> semRequest.post    pInBuffer, stCurSize, fFailure
//   thread's turn: semRequest.wait  -> semFreeSlot.post   pInBuffer, stCurSize, fFailure
// H1 A field named above is touched only inside its owner's turn; the post publishes every earlier write.
// H2 Every turn ends in its post, on the throwing path too: no putBlock waits for a dead turn.
// H3 The end request (size 0) comes once and last. It posts nothing.
// H4 The first failure is kept; later blocks are taken and dropped; the next putBlock or Close throws it.
// H5 After drop(), at any moment, no further block is begun.
class PreIOThread_W_C : public writingWorker<PreIOThreadBase> {
public:
    PreIOThread_W_C(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize, std::int64_t firstPos,
                    std::int64_t firstFilePos, std::int32_t level = zlibCompressBlock::kFastestLevel);

    // `position` is not used: blocks come in stream order.
    std::uint32_t putBlock(const void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t writeLoopStep() override;
    void drop() { bDropped = true; }
    // Its caller fills memory of his own.
    static unsigned char* lendRows() { return nullptr; }
    static bool putFrom(const orva::rowSource&, std::int64_t, std::uint32_t) { return false; }
    static void awaitRows() {}

private:
    void writeOut();

    std::atomic<bool> bDropped{false};
    ktSemaphore semRequest{0};
    ktSemaphore semFreeSlot{1};
    ORVA_File* const pFile;
    filePosInfo* const pPosInfo;
    const std::int32_t fLevel;
    // The thread's alone, once it runs.
    zlibCompressBlock fCompressor;
    orva::blockBuffer pOutBuffer;
    std::int64_t fpBlockPos;  // logical position of the next block
    std::int64_t fpWritePos;  // its file offset
    // In the owner's turn.
    orva::blockBuffer pInBuffer;
    std::uint32_t stCurSize = 0;
};

// Two buffers, two pairs of turns, no lock:
//   pCompressBuffer, fpCurReadPos, fpNextReadPos
//     read thread's turn:       semReadRequest.wait       -> semCompressReady.post
//     decompressAt's turn:      semCompressReady.wait     -> semReadRequest.post
//   pDecompressBuffer, fpCurDecompressPos, fpNextDecompressPos
//     decompress thread's turn: semDecompressRequest.wait -> semDecompressReady.post
//     caller's turn:            semDecompressReady.wait   -> semDecompressRequest.post
// T1 decompressAt runs in the turn of pDecompressBuffer's owner, so never on two threads at once.
// T2 Each turn ends in a post, also on the throwing path. One that sets off nothing further gives its own token back.
// T3 A failed step forgets its block; the next request is a miss, which meets the failure on the caller's thread.
// T4 The read thread's last act is a post of semCompressReady: a decompress step that waits for a read which will not
//    come any more reads for itself and finishes its block.
class PreIOThread_Tri_R_D : public PreIOThreadBase {
public:
    class newThreadForDecompress;

    PreIOThread_Tri_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t blockSize);

    bool initThreads(bool bRead) override;
    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t readLoopStep() override;
    virtual std::int32_t decompressLoopStep();

private:
    void decompressAt(std::int64_t fpos, bool ahead);
    void readCompressed(std::int64_t fpos, bool ahead);
    bool hasBlock(std::int64_t fpos) const;

    zlibCompressBlock fCompressor;  // decompressAt's
    const filePosInfo* const pPosInfo;
    ORVA_File* const pFile;
    std::atomic<bool> bReadEnd{false};
    std::atomic<bool> bCompressEnd{false};
    orva::blockBuffer pCompressBuffer;
    orva::blockBuffer pDecompressBuffer;
    // No block has the logical position 0, so 0 is none.
    std::int64_t fpCurReadPos = 0;
    std::int64_t fpCurDecompressPos = 0;
    std::int64_t fpNextReadPos = 0;
    std::int64_t fpNextDecompressPos = 0;
    ktSemaphore semCompressReady{1};
    ktSemaphore semReadRequest{0};
    ktSemaphore semDecompressReady{1};
    ktSemaphore semDecompressRequest{0};
    const std::uint32_t stBlockSize;
};

// The concrete one: there is nothing to write.
class PreIOThread_Tri_Reader final : public readingWorker<PreIOThread_Tri_R_D> {
public:
    using readingWorker::readingWorker;
};
