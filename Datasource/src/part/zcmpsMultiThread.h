// The workers of the compressed stream over several threads, for zcmpsFilestr::setThreadCount.
//   PreIOThread_Multi_W_C  deflates several blocks at once, writes and records them in order
//   PreIOThread_Multi_R_D  inflates several blocks ahead of a sequential reader
//
// Requests are those of the workers in zcmpsPreIOThread.h, and so are files, bytes and errors: only the time differs.
//
// Memory: two blocks a slot, threads + 2 slots; to read, one block more.
#pragma once

#include "base/blockBuffer.h"
#include "format/blockTransfer.h"
#include "format/filePosInfo.h"
#include "worker/preIOThread.h"

#include <orva/file.h>
#include <orva/ktthread.h>
#include <orva/zlibCompress.h>

#include <atomic>
#include <cstdint>
#include <vector>

// A ring of slots. A block passes through one: filled by the caller, deflated by any thread, written by whichever
// thread finds it to be the next one. A caller that finds no free slot deflates a block itself if there is a
// core for it, instead of waiting.
//   caller's turn: semFree.wait   -> semFilled.post        the next slot's rows, size, position
//   thread's turn: semFilled.wait -> bDeflated, under fLock  the taken slot
//   writer's turn: bWriting, under fLock                   the next slot to write, fpWritePos, the index, fFailure
// M1 Slots are filled, taken and written in the order of the ring, so blocks and records stand in stream order.
// M2 A thread that has deflated a block never waits for another: the writer at that moment takes the block along.
// M3 The first failure in stream order is kept; later blocks are taken and dropped; the next putBlock or Close throws
//    it.
// M4 The end request (size 0) comes once and last; it returns when every block is in the file and in the index.
class PreIOThread_Multi_W_C final : public writingWorker<PreIOThreadSeveral> {
public:
    PreIOThread_Multi_W_C(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize, std::int64_t firstPos,
                          std::int64_t firstFilePos, std::uint32_t threads);

    // The memory of the next block's rows, to be filled in place: the next putBlock of it copies nothing. Throws the
    // kept failure, as putBlock does.
    unsigned char* lendRows();
    std::uint32_t putBlock(const void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t writeLoopStep() override;

private:
    struct slot {
        orva::blockBuffer rows;
        orva::blockBuffer scratch;
        std::uint32_t size = 0;
        orva::deflatedBlock result{};
        std::exception_ptr failure;
        bool bDeflated = false;
    };

    slot& at(std::uint64_t number) { return fSlots[number % fSlots.size()]; }
    void endLoops();
    bool deflateNext();
    bool takeBlock();
    void deflate(slot& block);
    void writeInOrder(std::uint64_t number);
    void writeOut(slot& block);

    ORVA_File* const pFile;
    filePosInfo* const pPosInfo;
    const bool bCallerHelps;  // there is a core for it; else it would only keep the threads from theirs
    std::vector<slot> fSlots;
    ktSemaphore semFree;
    ktSemaphore semFilled{0};
    // Caller side.
    std::uint64_t fFilled = 0;             // blocks handed over
    bool bLent = false;                    // the next slot has been taken out of semFree
    std::atomic<std::uint64_t> fTaken{0};  // blocks that threads have taken up
    std::atomic<std::uint64_t> fEnd;       // blocks there will be; unlimited until the end request
    // Under fLock.
    ktMutex fLock;
    bool bWriting = false;
    std::uint64_t fWritten = 0;
    // The writer's.
    std::int64_t fpBlockPos;
    std::int64_t fpWritePos;
};

// A window of slots over the block numbers: block i can stand only in slot i modulo their number.
//   wanted -> busy -> ready: by a thread; wanted or ready -> empty, ready -> held -> empty: by the caller. All changes
//   under fLock; a busy slot's buffers are its thread's alone, a ready or held one's the caller's.
// A1 A request takes a ready block and makes one that nobody has begun itself. While its block is busy, it makes the
//    wanted ones behind it rather than wait.
// A2 Only a sequential run is read ahead, twice as far with each request; a jump takes back what is merely wanted.
// A3 A failed read-ahead is no read-ahead: the request makes the block itself and meets the failure.
// A4 The stop request lets running steps finish; nothing waits for what they make.
class PreIOThread_Multi_R_D final : public readingWorker<PreIOThreadSeveral> {
public:
    PreIOThread_Multi_R_D(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize, std::uint32_t threads);

    // As getBlock, without the copy: the rows stand where this points, in memory of the worker until the next request,
    // or in `buffer`.
    unsigned char* lendBlock(unsigned char* buffer, std::int64_t position);
    std::uint32_t getBlock(void* buffer, std::uint32_t size, std::int64_t position) override;
    std::int32_t readLoopStep() override;

private:
    enum class state : std::uint8_t { empty, wanted, busy, ready, held };
    struct slot {
        orva::blockBuffer compressed;
        orva::blockBuffer rows;
        std::int64_t number = -1;
        state is = state::empty;
        bool bAwaited = false;
        ktSemaphore semDone{0};
    };

    slot& at(std::int64_t number) { return fSlots[static_cast<std::size_t>(number) % fSlots.size()]; }
    // True: pHeld has the block. False: the caller is to make it.
    bool takeReady(std::int64_t number);
    bool makeInSlot(std::int64_t number);
    void hold(slot& block);
    // False if nobody is at work on the block. Then, and once semDone is posted, its state is settled.
    bool await(slot& block, std::int64_t number);
    void giveBackHeld();
    void planAhead(std::int64_t number);
    slot* nextWanted();
    bool makeNextWanted();
    void fill(slot& block, bool ahead);
    void makeBlock(std::int64_t number, orva::blockBuffer& compressed, unsigned char* dest, bool ahead);

    ORVA_File* const pFile;
    filePosInfo* const pPosInfo;
    const std::uint32_t fBlockSize;
    std::vector<slot> fSlots;
    ktMutex fLock;
    ktSemaphore semWork{0};
    std::atomic<bool> bStop{false};
    // Caller side.
    orva::blockBuffer fOwnCompressed;
    slot* pHeld = nullptr;
    std::int64_t fLast = -1;
    std::int64_t fAhead = 0;
};
