// PreIOThread_Multi_R_D
#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"

#include <algorithm>
#include <cstring>

PreIOThread_Multi_R_D::PreIOThread_Multi_R_D(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize,
                                             std::uint32_t threads)
    : readingWorker(threads),
      pFile(file),
      pPosInfo(index),
      fBlockSize(blockSize),
      fSlots(threads + 2),
      fOwnCompressed(blockSize) {}

std::uint32_t PreIOThread_Multi_R_D::getBlock(void* buffer, std::uint32_t size, std::int64_t position) {
    if (size == 0 && position == 0) {
        bStop = true;
        for (std::uint32_t i = 0; i < fThreads; ++i) semWork.postSemaphore();
        return 0;
    }
    const std::int64_t number = pPosInfo->numberOf(position);
    if (takeReady(number)) {
        std::memcpy(buffer, pHeld->rows.get(), size);
    } else {
        makeBlock(number, fOwnCompressed, static_cast<unsigned char*>(buffer), false);
    }
    return size;
}

unsigned char* PreIOThread_Multi_R_D::lendBlock(unsigned char* buffer, std::int64_t position) {
    const std::int64_t number = pPosInfo->numberOf(position);
    if (takeReady(number) || makeInSlot(number)) return pHeld->rows.get();
    makeBlock(number, fOwnCompressed, buffer, false);
    return buffer;
}

void PreIOThread_Multi_R_D::giveBackHeld() {
    if (pHeld == nullptr) return;
    const ktGuard guard(fLock, ktMutex::Recursive);
    pHeld->is = state::empty;
    pHeld = nullptr;
}

bool PreIOThread_Multi_R_D::takeReady(std::int64_t number) {
    giveBackHeld();
    planAhead(number);
    slot& block = at(number);
    if (await(block, number)) waitHelping(block.semDone, [this] { return makeNextWanted(); });
    const ktGuard guard(fLock, ktMutex::Recursive);
    if (block.number == number && block.is == state::ready) hold(block);
    return pHeld != nullptr;
}

bool PreIOThread_Multi_R_D::await(slot& block, std::int64_t number) {
    const ktGuard guard(fLock, ktMutex::Recursive);
    if (block.number != number) return false;
    if (block.is == state::wanted) block.is = state::empty;  // nobody has begun: the caller is sooner done
    block.bAwaited = block.is == state::busy;
    return block.bAwaited;
}

void PreIOThread_Multi_R_D::hold(slot& block) {
    block.is = state::held;
    pHeld = &block;
}

// The caller's own work. False if a thread is still busy there, with a block of an earlier run.
bool PreIOThread_Multi_R_D::makeInSlot(std::int64_t number) {
    slot& block = at(number);
    {
        const ktGuard guard(fLock, ktMutex::Recursive);
        if (block.is == state::busy) return false;
        block.number = number;
        hold(block);
    }
    try {
        fill(block, false);
    } catch (...) {
        giveBackHeld();
        throw;
    }
    return true;
}

void PreIOThread_Multi_R_D::fill(slot& block, bool ahead) {
    if (!block.rows) {
        block.compressed = orva::blockBuffer(fBlockSize);
        block.rows = orva::blockBuffer(fBlockSize);
    }
    makeBlock(block.number, block.compressed, block.rows.get(), ahead);
}

void PreIOThread_Multi_R_D::planAhead(std::int64_t number) {
    const ktGuard guard(fLock, ktMutex::Recursive);
    const auto window = static_cast<std::int64_t>(fSlots.size());
    fAhead = number == fLast + 1 ? std::min(std::max<std::int64_t>(2 * fAhead, 1), window - 1) : 0;
    fLast = number;
    for (slot& block : fSlots) {
        const bool useful = block.number >= number && block.number <= number + fAhead;
        if (block.is == state::wanted && !useful) block.is = state::empty;
    }
    const std::int64_t end = std::min<std::int64_t>(number + fAhead + 1, pPosInfo->parsedCount());
    for (std::int64_t next = number + 1; next < end; ++next) {
        slot& block = at(next);
        const bool planned = block.number == next && block.is != state::empty;
        if (planned || block.is == state::busy || &block == &at(number)) continue;
        block.number = next;
        block.is = state::wanted;
        semWork.postSemaphore();
    }
}

PreIOThread_Multi_R_D::slot* PreIOThread_Multi_R_D::nextWanted() {
    const ktGuard guard(fLock, ktMutex::Recursive);
    slot* next = nullptr;
    for (slot& block : fSlots) {
        if (block.is == state::wanted && (next == nullptr || block.number < next->number)) next = &block;
    }
    if (next != nullptr) next->is = state::busy;
    return next;
}

std::int32_t PreIOThread_Multi_R_D::readLoopStep() {
    semWork.waitSemaphore();
    if (bStop) return 1;
    makeNextWanted();  // there may be none: taken back, or made by the caller in the meantime
    return 0;
}

// Any thread's step, the caller's too. False if nothing is wanted.
bool PreIOThread_Multi_R_D::makeNextWanted() {
    slot* block = nextWanted();
    if (block == nullptr) return false;
    state result = state::ready;
    try {
        fill(*block, true);
    } catch (...) {
        result = state::empty;
    }
    const ktGuard guard(fLock, ktMutex::Recursive);
    block->is = result;
    if (block->bAwaited) block->semDone.postSemaphore();
    block->bAwaited = false;
    return true;
}

void PreIOThread_Multi_R_D::makeBlock(std::int64_t number, orva::blockBuffer& compressed, unsigned char* dest,
                                      bool ahead) {
    zlibCompressBlock codec;
    const filePosRecord& record = pPosInfo->parsed(static_cast<std::uint32_t>(number));
    orva::readBlock({*pFile, codec, compressed.get(), ahead}, orva::placeOf(*pPosInfo, record), dest);
}
