// readAheadSlot: the hand-over of one block read ahead, for the workers that read one block beside their caller.
//
// One block, two turns, no lock:
//   caller's turn: semEmptySlot.wait  -> semFilledSlot.post   fpPreReadPos, stCurSize, the worker's buffers, fpNextPos
//   thread's turn: semFilledSlot.wait -> semEmptySlot.post    the same
// R1 A field named above is touched only inside its owner's turn; the post publishes every earlier write.
// R2 Each turn ends in its post, also on the throwing path: no request waits for a dead turn.
// R3 A request that sets off no read-ahead (the last block, a failure) gives the token back itself and forgets the
//    block read ahead, so a later request is a miss that is served.
// R4 A failed read-ahead is no read-ahead: the next request is a miss, which meets the failure on the caller's thread.
// R5 The stop request is written at any moment and seen at the thread's next wait, which then ends in a post of
//    nothing: a request that waits for a block asked for before is a miss that is served.
// R6 A block that was written over since it was asked for is no hit, nor is one that ended with the file if bytes were
//    written behind it since: noteWritten takes the caller's turn and forgets it.
#pragma once

#include <orva/ktthread.h>

#include <atomic>
#include <cstdint>

namespace orva {

struct readAheadSlot {
    // The caller's turn, as long as this lives.
    class request {
    public:
        // In a forked child there is no thread to wait for, and nothing that was read ahead counts.
        explicit request(readAheadSlot& slot) : fSlot(slot), bTaken(slot.semEmptySlot.waitSemaphore()) {}
        request(const request&) = delete;
        request& operator=(const request&) = delete;
        ~request() {
            if (bHandedOver) return;
            fSlot.forget();
            fSlot.semEmptySlot.postSemaphore();
        }

        // The block at `position` has been read ahead: stCurSize bytes of it.
        bool hits(std::int64_t position) const { return bTaken && position == fSlot.fpPreReadPos; }
        // Ends the turn: the thread reads the block at `nextPos` now.
        void readAhead(std::int64_t nextPos) {
            fSlot.forget();  // a loop that ends before it leaves no block
            fSlot.fpNextPos = nextPos;
            bHandedOver = true;
            fSlot.semFilledSlot.postSemaphore();
        }

    private:
        readAheadSlot& fSlot;
        const bool bTaken;
        bool bHandedOver = false;
    };

    // One step of the thread: `read(position)` gives the bytes read. 1 ends the loop.
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

    // A caller has written bytes from `begin` up to `end`: the block read ahead, of `blockSize` bytes unless the file
    // ended before, may be older. Waits for one that is being read.
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

    ktSemaphore semEmptySlot{1};     // the right to touch the block from the caller side
    ktSemaphore semFilledSlot{0};    // a block to read ahead, or the stop request
    std::int64_t fpNextPos = -1;     // of the block to read ahead next
    std::int64_t fpPreReadPos = -1;  // of the block in the worker's buffer
    std::uint32_t stCurSize = 0;     // its bytes
    std::atomic<bool> bStop{false};
};

}  // namespace orva
