// readAheadSlot: hands over one block that was read ahead, for the workers that read one block beside their caller. A
// position is whatever the worker knows its blocks by: a file offset, or a number in the index.
//
// One block, two turns, no lock:
//   caller's turn: semEmptySlot.wait  -> semFilledSlot.post   fpPreReadPos, stCurSize, the worker's buffers, fpNextPos
//   thread's turn: semFilledSlot.wait -> semEmptySlot.post    the same
// R1 A field named above is touched only inside its owner's turn; the post publishes every earlier write.
// R2 Each turn ends in its post, also when it throws: no request waits for a turn that never ends.
// R3 A request that starts no read-ahead (the last block, a failure) posts semEmptySlot itself and forgets the block
//    read ahead: a later request is a miss, which is served.
// R4 A failed read-ahead counts as none: the next request is a miss, which meets the failure on the caller's thread.
// R5 The stop request may come at any moment. The thread sees it at its next wait, posts without having read and ends:
//    a request that waits for a block asked for before is a miss, which is served.
// R6 A block is no hit if it was written over since it was asked for, nor if it ended with the file and bytes were
//    written after it since: noteWritten takes the caller's turn and forgets it.
#pragma once

#include <orva/ktthread.h>

#include <atomic>
#include <cstdint>

namespace orva {

struct readAheadSlot {
    // Holds the caller's turn while it lives.
    class request {
    public:
        // Waits for the turn. In a forked child there is no thread to wait for, and no block read ahead counts.
        explicit request(readAheadSlot& slot) : fSlot(slot), bTaken(slot.semEmptySlot.waitSemaphore()) {}
        request(const request&) = delete;
        request& operator=(const request&) = delete;
        ~request() {
            if (bHandedOver) return;
            fSlot.forget();
            fSlot.semEmptySlot.postSemaphore();
        }

        // True if the block at `position` has been read ahead; it has stCurSize bytes.
        bool hits(std::int64_t position) const { return bTaken && position == fSlot.fpPreReadPos; }
        // Ends the turn and has the thread read the block at `nextPos`.
        void readAhead(std::int64_t nextPos) {
            fSlot.forget();  // so a loop that ends before the read leaves no block
            fSlot.fpNextPos = nextPos;
            bHandedOver = true;
            fSlot.semFilledSlot.postSemaphore();
        }

    private:
        readAheadSlot& fSlot;
        const bool bTaken;
        bool bHandedOver = false;
    };

    // One loop step of the thread; 1 ends the loop. `read(position)` returns the number of bytes read.
    template <class Read>
    std::int32_t step(Read read) {
        semFilledSlot.waitSemaphore();
        const bool end = bStop;
        try {
            if (!end) stCurSize = read(fpPreReadPos = fpNextPos);
        } catch (...) {
            forget();
        }
        semEmptySlot.postSemaphore();
        return end ? 1 : 0;
    }

    void requestStop() {
        bStop = true;
        semFilledSlot.postSemaphore();
    }

    // The caller side has written the bytes from `begin` up to `end`: forgets a block read ahead that may lack them, of
    // `blockSize` bytes or less at the end of the file. Waits for a read under way.
    void noteWritten(std::int64_t begin, std::int64_t end, std::uint32_t blockSize) {
        if (!semEmptySlot.waitSemaphore()) return;
        const bool touched = end > fpPreReadPos && begin - std::int64_t{blockSize} < fpPreReadPos;
        if (touched || (stCurSize < blockSize && end > fpPreReadPos)) forget();
        semEmptySlot.postSemaphore();
    }

    void forget() {
        fpPreReadPos = -1;
        stCurSize = 0;
    }

    ktSemaphore semEmptySlot{1};     // the caller's turn
    ktSemaphore semFilledSlot{0};    // the thread's turn: a block to read ahead, or the stop request
    std::int64_t fpNextPos = -1;     // position of the block to read ahead
    std::int64_t fpPreReadPos = -1;  // that of the block in the worker's buffer; -1: none
    std::uint32_t stCurSize = 0;     // bytes of that block
    std::atomic<bool> bStop{false};
};

}  // namespace orva
