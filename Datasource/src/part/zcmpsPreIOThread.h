// The workers of the compressed stream.
//   PreIOThread_R_D      reads and inflates the next block beside the caller
//   PreIOThread_W_C      deflates, writes and records blocks beside the caller
//   PreIOThread_Tri_R_D  reads on one thread, inflates on a second, beside the caller
//
// Requests carry whole blocks: the orginalSize and orginalPos of a block's record. A request at a reading worker is
// answered by a copy of a block made ahead, or on the caller's own thread. As sink and source (blockRoads.h) a worker
// takes and gives the same blocks, by their numbers.
//
// Owner:   the stream owns the worker; file and index are the stream's and outlive it.
// Failure: a request throws what the inline road would throw, and the worker goes on serving.
#pragma once

#include "base/blockBuffer.h"
#include "format/blockTransfer.h"
#include "format/filePosInfo.h"
#include "part/blockRoads.h"
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
    // In the owner's turn.
    zlibCompressBlock fCompressor;
    orva::blockBuffer pDecompressBuffer;  // a block that is lent goes with it: the caller's own takes its place
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
class PreIOThread_W_C : public writingWorker<PreIOThreadBase>, public orva::blockSink {
public:
    PreIOThread_W_C(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize, std::int64_t firstPos,
                    std::int64_t firstFilePos, std::int32_t level = zlibCompressBlock::kFastestLevel);

    void put(const unsigned char* rows, std::uint32_t size) override { putBlock(rows, size, 0); }
    // `position` is not used: blocks come in stream order.
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
    // The thread's alone, once it runs.
    zlibCompressBlock fCompressor;
    orva::blockBuffer pOutBuffer;
    std::int64_t fpBlockPos;  // logical position of the next block
    std::int64_t fpWritePos;  // its file offset
    // In the owner's turn.
    orva::blockBuffer pInBuffer;
    std::uint32_t stCurSize = 0;
};

// Two blocks, each handed over by a slot of its own (readAheadSlot.h): the read thread reads ahead for whoever
// inflates, the decompress thread inflates ahead for the caller.
// T1 decompress runs in the turn of fInflated's owner, so never on two threads at once.
// T2 It asks for the next block to be read before its own turn ends: so one block is read while another is inflated.
// T3 A failed step forgets its block; the next request is a miss, which meets the failure on the caller's thread.
// T4 A decompress step that waits for a read which will not come any more, since the read thread has been told to
//    stop, gets its turn from that thread's last post, reads for itself and finishes its block.
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
    orva::readRoad road(bool ahead) { return {*pFile, fCompressor, pCompressBuffer.get(), ahead}; }

    const filePosInfo* const pPosInfo;
    ORVA_File* const pFile;
    orva::readAheadSlot fCompressed;
    orva::blockBuffer pCompressBuffer;  // in the turn of fCompressed's owner
    orva::readAheadSlot fInflated;
    zlibCompressBlock fCompressor;        // in the turn of fInflated's owner
    orva::blockBuffer pDecompressBuffer;  // as well
    const std::uint32_t stBlockSize;
};

// The concrete one: there is nothing to write.
class PreIOThread_Tri_Reader final : public readingWorker<PreIOThread_Tri_R_D> {
public:
    using readingWorker::readingWorker;
};
