// The workers of the compressed stream.
//   PreIOThread_R_D      reads and inflates the next block beside the caller
//   PreIOThread_W_C      deflates, writes and records blocks beside the caller
//   PreIOThread_Tri_R_D  reads on one thread, inflates on a second, beside the caller
//
// A request is for a whole block: its size and position are the orginalSize and orginalPos of the block's record. A
// reading worker answers it by copying a block made ahead, or makes the block on the caller's thread. As a sink or
// source (blockPipeline.h) a worker takes or gives the same blocks, by number.
//
// Owner:   the stream owns the worker; file and index are the stream's and outlive it.
// Failure: a request throws what the same work on the caller's thread would throw, and the worker goes on serving.
#pragma once

#include "base/blockBuffer.h"
#include "format/blockTransfer.h"
#include "format/filePosInfo.h"
#include "part/blockPipeline.h"
#include "worker/preIOThread.h"
#include "worker/readAheadSlot.h"

#include <orva/file.h>
#include <orva/zlibCompress.h>

#include <atomic>
#include <cstdint>
#include <memory>

// Hand-over and its rules: readAheadSlot.h.
class PreIOThread_R_D : public readingWorker<PreIOThreadBase>, public orva::blockSource {
public:
    PreIOThread_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t blockSize);

    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t readLoopStep() override;
    void load(std::uint32_t number, unsigned char* to) override;
    const unsigned char* lend(std::uint32_t number) override;

private:
    template <class Take>
    void serve(std::uint32_t number, unsigned char* to, Take takeMade);
    std::uint32_t readAndDecompress(unsigned char* dest, std::uint32_t number, bool ahead);

    orva::readAheadSlot fSlot;
    ORVA_File* const pFile;
    // Touched in the owner's turn only.
    zlibCompressBlock fCompressor;
    orva::blockBuffer pDecompressBuffer;  // lend() swaps it with ownBuffer()
    orva::blockBuffer pCompressBuffer;
};

// One block, two turns, no lock:
//   caller's turn: semFreeSlot.wait -> semRequest.post    pInBuffer, stCurSize, fFailure
//   thread's turn: semRequest.wait  -> semFreeSlot.post   pInBuffer, stCurSize, fFailure
// H1 A field named above is touched only inside its owner's turn; the post publishes every earlier write.
// H2 Every turn ends in its post, also when it throws: no putBlock waits for a turn that never ends.
// H3 The end request (size 0) comes once and last. Nothing is posted for it.
// H4 The first failure is kept; later blocks are taken and dropped; the next putBlock or Close throws it.
// H5 drop() may come at any moment: no further block is begun.
class PreIOThread_W_C : public writingWorker<PreIOThreadBase>, public orva::blockSink {
public:
    PreIOThread_W_C(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize, std::int64_t firstPos,
                    std::int64_t firstFilePos, std::int32_t level = zlibCompressBlock::kFastestLevel);

    void put(const unsigned char* rows, std::uint32_t size) override { putBlock(rows, size, 0); }
    // `position` is ignored: blocks come in stream order.
    std::uint32_t putBlock(const void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t writeLoopStep() override;
    void drop() { bDropped = true; }

private:
    void writeOut();

    std::atomic<bool> bDropped{false};
    ktSemaphore semRequest{0};
    ktSemaphore semFreeSlot{1};
    ORVA_File* const pFile;
    filePosInfo* const pPosInfo;
    const std::int32_t fLevel;
    // Used by the thread alone, once it runs.
    zlibCompressBlock fCompressor;
    orva::blockBuffer pOutBuffer;
    std::int64_t fpBlockPos;  // logical position of the next block
    std::int64_t fpWritePos;  // its file offset
    // Touched in the owner's turn only.
    orva::blockBuffer pInBuffer;
    std::uint32_t stCurSize = 0;
};

// Two blocks, each handed over by a slot of its own (readAheadSlot.h): the read thread reads ahead for the thread that
// inflates, and the decompress thread inflates ahead for the caller.
// T1 decompress runs in the turn of fInflated's owner, so never on two threads at once.
// T2 decompress asks for the next read before its own turn ends: that block is read while the caller takes this one.
// T3 A failed step forgets its block; the next request is a miss, which meets the failure on the caller's thread.
// T4 If the read thread has been told to stop, a decompress step that waits for it gets its turn from that thread's
//    last post, reads the block itself and finishes it.
class PreIOThread_Tri_R_D : public PreIOThreadBase {
public:
    PreIOThread_Tri_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t blockSize);

    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t readLoopStep() override;
    virtual std::int32_t decompressLoopStep();
    static constexpr char kParentGiven[] = "pParent!=0";
    using newThreadForDecompress =
        workerLoop<PreIOThread_Tri_R_D, &PreIOThread_Tri_R_D::decompressLoopStep, kParentGiven>;

private:
    std::unique_ptr<CallBackObject> newLoop(bool bRead, std::uint32_t number) override;
    std::uint32_t decompress(std::uint32_t number, bool ahead);
    std::uint32_t readCompressed(const orva::blockPlace& block, bool ahead);
    orva::readContext context(bool ahead) { return {{*pFile, ahead}, fCompressor, pCompressBuffer.get()}; }

    const filePosInfo* const pPosInfo;
    ORVA_File* const pFile;
    orva::readAheadSlot fCompressed;
    orva::blockBuffer pCompressBuffer;  // in the turn of fCompressed's owner
    orva::readAheadSlot fInflated;
    zlibCompressBlock fCompressor;        // in the turn of fInflated's owner
    orva::blockBuffer pDecompressBuffer;  // as well
    const std::uint32_t stBlockSize;
};

// PreIOThread_Tri_R_D made concrete: there is nothing to write.
class PreIOThread_Tri_Reader final : public readingWorker<PreIOThread_Tri_R_D> {
public:
    using readingWorker::readingWorker;
};
