// The workers of the compressed stream over several threads, for zcmpsFilestr::setThreadCount.
//   PreIOThread_Multi_W_C  deflates several blocks at once, writes and records them in order; without threads, one
//                          after the other
//   PreIOThread_Multi_R_D  inflates several blocks ahead of a sequential reader; without threads, the block asked for
//
// Requests, files, bytes and errors are those of the workers in zcmpsPreIOThread.h: only the time differs. As sink and
// source they start their threads with the first block, unless makeSink has started them.
//
// Memory:  two blocks for each slot in use, of threads + 2 slots; a reader one block more.
#pragma once

#include "base/blockBuffer.h"
#include "format/blockTransfer.h"
#include "format/filePosInfo.h"
#include "part/blockPipeline.h"
#include "worker/preIOThread.h"

#include <orva/file.h>
#include <orva/zlibCompress.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <vector>

// A ring of slots. A block passes through one: the caller fills it, any thread deflates it, and the thread that finds
// it next in order writes it. A caller without a free slot deflates a block itself instead of waiting, if there is a
// core for it. Blocks fTaken to fFilled wait for a thread, those from fWritten on hold their slots.
// M1 Slots are filled, taken and written in the order of the ring, so blocks and records are in stream order.
// M2 A thread that has deflated a block never waits for another: the thread that is writing then writes that block too.
// M3 The first failure in stream order is kept; later blocks are taken and dropped; the next putBlock or Close throws
//    it.
// M4 The end request (size 0) comes once and last; it returns when every block is in the file and in the index.
// M5 drop() may come at any moment: no further block is deflated or written.
// M6 The thread that deflates a block gets its rows from the source, so they come from its own cache. No source is
//    called any more when awaitRows, or the end request, returns.
class PreIOThread_Multi_W_C : public writingWorker<PreIOThreadSeveral>, public orva::blockSink {
public:
    PreIOThread_Multi_W_C(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize, std::int64_t firstPos,
                          std::int64_t firstFilePos, std::uint32_t threads,
                          std::int32_t level = zlibCompressBlock::kFastestLevel);

    unsigned char* room() override;
    void put(const unsigned char* rows, std::uint32_t size) override;
    bool putFrom(const orva::rowSource& source, std::int64_t offset, std::uint32_t size) override;
    void awaitRows() override;
    std::uint32_t putBlock(const void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t writeLoopStep() override;
    void drop();

private:
    struct slot {
        orva::blockBuffer rows;
        orva::blockBuffer scratch;
        std::uint32_t size = 0;
        const orva::rowSource* source = nullptr;  // its rows are still to be got from there, or that failed
        std::int64_t offset = 0;
        orva::deflatedBlock result{};
        std::exception_ptr failure;
        bool bDeflated = false;
    };

    slot& at(std::uint64_t number) { return fSlots[static_cast<std::size_t>(number % fSlots.size())]; }
    void putAlone(const unsigned char* rows, std::uint32_t size);
    slot& freeSlot();
    void handOver(slot& block, std::uint32_t size);
    void helpOrWait(guard& lock);
    void endLoops();
    bool takeBlock(guard& lock);
    void make(slot& block);
    void writeInOrder(guard& lock);
    void writeOut(slot& block);

    ORVA_File* const pFile;
    filePosInfo* const pPosInfo;
    const std::uint32_t stBlockSize;
    const std::int32_t fLevel;
    // Under the mutex. A slot's buffers and result belong to the thread that fills, deflates or writes it.
    std::vector<slot> fSlots;
    std::uint64_t fFilled = 0;   // blocks handed over
    std::uint64_t fTaken = 0;    // of these, taken by a thread
    std::uint64_t fWritten = 0;  // of these, done with, in order
    bool bWriting = false;       // a thread is writing
    bool bDropping = false;      // after drop() or a failure
    bool bEnd = false;
    // Used by the writing thread only, or by the caller's without threads.
    std::int64_t fpBlockPos;
    std::int64_t fpWritePos;
};

// Slots for blocks that are wanted ahead of the caller's requests, or for a run that the caller requests at once.
// A1 A request takes a block that is ready, and makes one that no thread has begun itself. While its block is being
//    made, it makes other wanted blocks instead of waiting, if there is a core for it.
// A2 Only a sequential run is read ahead, twice as far with each request; after a jump no block is wanted any more.
// A3 A failed read-ahead counts as none: the request makes the block itself and meets the failure.
// A4 The stop request lets running steps finish; nothing waits for what they make.
// A5 A request of several blocks is shared out: each thread, the caller's too, inflates whole blocks straight into the
//    caller's memory; only blocks read ahead are copied there. The request ends before a block that fails (A3).
// A6 Rows that the caller has read are in its core's cache: another thread evicts them before it inflates there.
class PreIOThread_Multi_R_D : public readingWorker<PreIOThreadSeveral>, public orva::blockSource {
public:
    PreIOThread_Multi_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t blockSize, std::uint32_t threads);

    // Withdraws the stop request that a failed start has left.
    bool initThreads(bool bRead) override;
    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t readLoopStep() override;
    void load(std::uint32_t number, unsigned char* to) override;
    bool loadsSeveral() override { return startOnce(true); }
    std::uint32_t loadSeveral(std::uint32_t first, std::uint32_t count, unsigned char* to) override;
    const unsigned char* lend(std::uint32_t number) override;

private:
    enum class state : std::uint8_t { empty, busy, ready };
    struct slot {
        orva::blockBuffer compressed;
        orva::blockBuffer rows;  // unused for a block that goes into the caller's memory
        std::int64_t number = -1;
        state is = state::empty;
    };

    const unsigned char* readAhead(std::uint32_t number);
    void planAhead(std::int64_t number);
    // True if the block is wanted and a thread has begun it.
    bool isAhead(std::int64_t number) const { return number >= fCurrent && number < std::min(fNext, fWantedEnd); }
    unsigned char* placeInRun(std::int64_t number) const;
    template <class Test>
    slot* find(Test test);
    slot* holding(std::int64_t number);
    void skipHeld();
    bool isMoreWanted() const;
    bool makeNext(guard& lock, bool byCaller);
    bool makeAhead(slot& block, std::int64_t number, unsigned char* inRun, bool byCaller);
    // The bytes of its rows; 0 for a size that cannot be true, so that no memory is touched for it.
    std::size_t rowsOf(std::int64_t number) const;
    void makeBlock(std::int64_t number, orva::blockBuffer& compressed, unsigned char* dest, bool ahead);

    ORVA_File* const pFile;
    orva::blockBuffer fCompressedBuffer;  // used on the caller's thread
    // Under the mutex. A busy slot's buffers belong to its thread alone.
    std::vector<slot> fSlots;
    std::int64_t fCurrent = -1;     // the block requested last
    std::int64_t fWantedEnd = 0;    // blocks from fCurrent up to this one are wanted
    std::int64_t fNext = 0;         // the first block that no thread has begun
    unsigned char* fRun = nullptr;  // the caller's memory for a run; null without one
    std::int64_t fFailed = 0;       // the first block of a run that failed
    bool bStop = false;
};
