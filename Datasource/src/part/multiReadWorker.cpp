// PreIOThread_Multi_R_D
#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"

#include <orva/zlibCompress.h>

#include <algorithm>
#include <cstring>

PreIOThread_Multi_R_D::PreIOThread_Multi_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t,
                                             std::uint32_t threads)
    : readingWorker(threads), blockSource(index), pFile(file), fSlots(fThreads + 2) {}

bool PreIOThread_Multi_R_D::initThreads(bool bRead) {
    bStop = false;
    return PreIOThreadSeveral::initThreads(bRead);
}

std::uint32_t PreIOThread_Multi_R_D::getBlock(void* buffer, std::uint32_t size, std::int64_t position) {
    if (size == 0 && position == 0) {
        const guard lock = locked();
        bStop = true;
        notifyThreads();
        return 0;
    }
    load(orva::blockAt(*pPosInfo, position), static_cast<unsigned char*>(buffer));
    return size;
}

void PreIOThread_Multi_R_D::load(std::uint32_t number, unsigned char* to) {
    if (const unsigned char* rows = readAhead(number)) {
        std::memcpy(to, rows, rowsOf(number));
    } else {
        makeBlock(number, fCompressedBuffer, to, false);
    }
}

const unsigned char* PreIOThread_Multi_R_D::lend(std::uint32_t number) {
    if (const unsigned char* rows = readAhead(number)) return rows;
    makeBlock(number, fCompressedBuffer, ownBuffer().get(), false);
    return ownBuffer().get();
}

// The rows of the block once they are ready; null if no thread has begun it.
const unsigned char* PreIOThread_Multi_R_D::readAhead(std::uint32_t number) {
    if (!startOnce(true)) return nullptr;
    guard lock = locked();
    planAhead(number);
    for (;;) {
        const slot* held = holding(number);
        if (held == nullptr) return nullptr;
        if (held->is == state::ready) return held->rows.get();
        if (!bCallerHelps || !makeNext(lock, true)) waitAsCaller(lock);
    }
}

// Frees the block that was lent before: it is no hit any more, even for the same number.
void PreIOThread_Multi_R_D::planAhead(std::int64_t number) {
    if (slot* lent = holding(fCurrent); lent != nullptr && lent->is == state::ready) lent->is = state::empty;
    const bool sequential = number == fCurrent + 1;
    const std::int64_t ahead = std::clamp<std::int64_t>(2 * (fWantedEnd - number), 1, std::ssize(fSlots) - 1);
    fCurrent = number;
    fWantedEnd = number + 1 + (sequential ? ahead : 0);
    fNext = std::max(sequential ? fNext : 0, number + 1);
    skipHeld();
    if (isMoreWanted()) notifyThreads();
}

std::uint32_t PreIOThread_Multi_R_D::loadSeveral(std::uint32_t first, std::uint32_t count, unsigned char* to) {
    guard lock = locked();
    fRun = to;
    fCurrent = fNext = first;
    skipHeld();
    fWantedEnd = fFailed = first + std::int64_t{count};
    notifyThreads();
    for (;;) {
        const auto oneThatIs = [this](state is) {
            return find([=, this](const slot& block) { return block.is == is && isAhead(block.number); });
        };
        if (slot* held = oneThatIs(state::ready)) {
            lock.unlock();
            std::memcpy(placeInRun(held->number), held->rows.get(), rowsOf(held->number));
            lock.lock();
            held->is = state::empty;
            notifyThreads();
        } else if (!makeNext(lock, true)) {
            if (oneThatIs(state::busy) == nullptr) break;
            waitAsCaller(lock);
        }
    }
    fRun = nullptr;
    fCurrent = fFailed - 1;
    fWantedEnd = fCurrent + std::ssize(fSlots);
    return static_cast<std::uint32_t>(fFailed - first);
}

unsigned char* PreIOThread_Multi_R_D::placeInRun(std::int64_t number) const {
    const auto placeOf = [this](std::int64_t of) {
        return pPosInfo->parsed(static_cast<std::uint32_t>(of)).orginalPos;
    };
    return fRun + (placeOf(number) - placeOf(fCurrent));
}

template <class Test>
PreIOThread_Multi_R_D::slot* PreIOThread_Multi_R_D::find(Test test) {
    const auto found = std::find_if(fSlots.begin(), fSlots.end(), test);
    return found != fSlots.end() ? &*found : nullptr;
}

PreIOThread_Multi_R_D::slot* PreIOThread_Multi_R_D::holding(std::int64_t number) {
    return find([=](const slot& block) { return block.is != state::empty && block.number == number; });
}

// Skips the blocks from fNext on that were begun for an earlier request.
void PreIOThread_Multi_R_D::skipHeld() {
    while (holding(fNext) != nullptr) ++fNext;
}

std::int32_t PreIOThread_Multi_R_D::readLoopStep() {
    guard lock = locked();
    while (!bStop && !makeNext(lock, false)) waitForWork(lock);
    return bStop ? 1 : 0;
}

bool PreIOThread_Multi_R_D::isMoreWanted() const {
    return fNext < std::min<std::int64_t>(fWantedEnd, pPosInfo->parsedCount());
}

// A step of any thread, the caller's too. False if no block is wanted, or there is no slot for one.
bool PreIOThread_Multi_R_D::makeNext(guard& lock, bool byCaller) {
    if (!isMoreWanted()) return false;
    slot* const block =
        find([this](const slot& s) { return s.is == state::empty || (s.is == state::ready && !isAhead(s.number)); });
    if (block == nullptr) return false;
    const std::int64_t number = block->number = fNext;
    block->is = state::busy;
    skipHeld();
    unsigned char* const inRun = fRun != nullptr ? placeInRun(number) : nullptr;
    lock.unlock();
    const bool good = makeAhead(*block, number, inRun, byCaller);
    lock.lock();
    block->is = good && inRun == nullptr ? state::ready : state::empty;
    // A block that was begun before the run may end during it, and is no part of it.
    if (!good && number >= fCurrent) fFailed = std::min(fFailed, number);
    notifyCaller();
    return true;
}

// Makes a block before its request, in the caller's memory for a run, else in the slot's own. False if that fails.
bool PreIOThread_Multi_R_D::makeAhead(slot& block, std::int64_t number, unsigned char* inRun, bool byCaller) try {
    const bool isFirst = inRun == nullptr && !block.rows;
    if (isFirst) block.rows = orva::rowRoom(pPosInfo->records());
    unsigned char* const dest = inRun != nullptr ? inRun : block.rows.get();
    if (!isFirst && !byCaller) orva::evictFromCaches(dest, rowsOf(number));
    makeBlock(number, block.compressed, dest, true);
    return true;
} catch (...) {
    return false;
}

std::size_t PreIOThread_Multi_R_D::rowsOf(std::int64_t number) const {
    const std::int32_t size = pPosInfo->parsed(static_cast<std::uint32_t>(number)).orginalSize;
    return orva::isBlockSize(size) ? static_cast<std::size_t>(size) : 0;
}

void PreIOThread_Multi_R_D::makeBlock(std::int64_t number, orva::blockBuffer& compressed, unsigned char* dest,
                                      bool ahead) {
    zlibCompressBlock codec;
    if (!compressed) compressed = orva::compressedRoom(pPosInfo->records());
    orva::readBlock({{*pFile, ahead}, codec, compressed.get()},
                    orva::placeOf(*pPosInfo, static_cast<std::uint32_t>(number)), dest);
}
