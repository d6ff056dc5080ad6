// PreIOThread_Multi_R_D
#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"

#include <orva/zlibCompress.h>

#include <algorithm>
#include <cstring>

PreIOThread_Multi_R_D::PreIOThread_Multi_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t,
                                             std::uint32_t threads)
    : readingWorker(threads), pFile(file), pPosInfo(index), fSlots(threads + 2) {
    fScratch.reserve(threads);
}

std::uint32_t PreIOThread_Multi_R_D::getBlock(void* buffer, std::uint32_t size, std::int64_t position) {
    if (size == 0 && position == 0) {
        const guard lock = locked();
        bStop = true;
        tellThreads();
        return 0;
    }
    load(orva::blockAt(*pPosInfo, position), static_cast<unsigned char*>(buffer));
    return size;
}

void PreIOThread_Multi_R_D::load(std::uint32_t number, unsigned char* to) {
    if (const unsigned char* rows = readAhead(number)) {
        std::memcpy(to, rows, rowsOf(number));
    } else {
        makeBlock(number, fCompressed, to, false);
    }
}

const unsigned char* PreIOThread_Multi_R_D::lend(std::uint32_t number, const orva::blockBuffer& own) {
    if (const unsigned char* rows = readAhead(number)) return rows;
    makeBlock(number, fCompressed, own.get(), false);
    return own.get();
}

// Null: nobody has begun it.
const unsigned char* PreIOThread_Multi_R_D::readAhead(std::uint32_t number) {
    if (!isMakers()) return nullptr;
    guard lock = locked();
    planAhead(number);
    for (;;) {
        const slot* held = find(number);
        if (held == nullptr) return nullptr;
        if (held->is == state::ready) return held->rows.get();
        if (!bCallerHelps || !makeNext(lock, true)) await(lock);
    }
}

std::uint32_t PreIOThread_Multi_R_D::loadSeveral(std::uint32_t first, std::uint32_t count, unsigned char* to) {
    if (!isMakers()) return 0;
    run blocks;
    blocks.end = first + count;
    blocks.to = to;
    blocks.begin = pPosInfo->parsed(first).orginalPos;
    std::vector<std::uint32_t> held;
    guard lock = locked();
    for (std::uint32_t number = first; number != blocks.end; ++number) {
        (isWanted(number) && find(number) != nullptr ? held : blocks.numbers).push_back(number);
    }
    fNext = std::max<std::int64_t>(fNext, blocks.end);
    fRun = std::move(blocks);
    tellThreads();
    while (makeOfRun(lock, true)) {
    }
    for (const std::uint32_t number : held) takeHeld(lock, number);
    while (fRun.atWork != 0) await(lock);
    fCurrent = fRun.end - std::int64_t{1};
    fAhead = std::ssize(fSlots) - 1;
    return fRun.end - first;
}

unsigned char* PreIOThread_Multi_R_D::placeInRun(std::int64_t number) const {
    return fRun.to + (pPosInfo->parsed(static_cast<std::uint32_t>(number)).orginalPos - fRun.begin);
}

// A block that a thread has read ahead, or is at work on.
void PreIOThread_Multi_R_D::takeHeld(guard& lock, std::uint32_t number) {
    const slot* block = find(number);
    while (block != nullptr && block->is == state::busy) {
        await(lock);
        block = find(number);
    }
    if (block == nullptr) {
        fRun.end = std::min(fRun.end, number);
        return;
    }
    lock.unlock();
    std::memcpy(placeInRun(number), block->rows.get(), rowsOf(number));
    lock.lock();
}

// Any thread's step, the caller's too. False if no block of the run is left.
bool PreIOThread_Multi_R_D::makeOfRun(guard& lock, bool byCaller) {
    if (fRun.taken == fRun.numbers.size()) return false;
    const std::uint32_t number = fRun.numbers[fRun.taken++];
    unsigned char* const dest = placeInRun(number);
    orva::blockBuffer compressed = byCaller ? std::move(fCompressed) : scratch();
    ++fRun.atWork;
    lock.unlock();
    bool good = true;
    try {
        if (!byCaller) orva::regain(dest, rowsOf(number));
        makeBlock(number, compressed, dest, true);
    } catch (...) {
        good = false;
    }
    lock.lock();
    (byCaller ? fCompressed : fScratch.emplace_back()) = std::move(compressed);
    if (!good) {
        fRun.end = std::min(fRun.end, number);
        fRun.taken = fRun.numbers.size();
    }
    --fRun.atWork;
    tellCaller();
    return true;
}

orva::blockBuffer PreIOThread_Multi_R_D::scratch() {
    if (fScratch.empty()) return {};
    orva::blockBuffer last = std::move(fScratch.back());
    fScratch.pop_back();
    return last;
}

// What was lent before is no hit any more, even for the same block.
void PreIOThread_Multi_R_D::planAhead(std::int64_t number) {
    if (slot* lent = find(fCurrent); lent != nullptr && lent->is == state::ready)
        *lent = {std::move(lent->compressed), std::move(lent->rows)};
    const auto window = static_cast<std::int64_t>(fSlots.size());
    const bool sequential = number == fCurrent + 1;
    fAhead = sequential ? std::min(std::max<std::int64_t>(2 * fAhead, 1), window - 1) : 0;
    fCurrent = number;
    fNext = std::max(sequential ? fNext : 0, number + 1);
    if (fNext <= fCurrent + fAhead && fNext < pPosInfo->parsedCount()) tellThreads();
}

PreIOThread_Multi_R_D::slot* PreIOThread_Multi_R_D::find(std::int64_t number) {
    const auto held = std::find_if(fSlots.begin(), fSlots.end(), [=](const slot& block) {
        return block.is != state::empty && block.number == number;
    });
    return held != fSlots.end() ? &*held : nullptr;
}

// One that nobody is at work on and whose block, if it has one, lies outside of the run.
PreIOThread_Multi_R_D::slot* PreIOThread_Multi_R_D::freeSlot() {
    const auto free = std::find_if(fSlots.begin(), fSlots.end(), [this](const slot& block) {
        return block.is == state::empty || (block.is == state::ready && !isWanted(block.number));
    });
    return free != fSlots.end() ? &*free : nullptr;
}

std::int32_t PreIOThread_Multi_R_D::readLoopStep() {
    guard lock = locked();
    while (!bStop && !makeOfRun(lock, false) && !makeNext(lock, false)) wait(lock);
    return bStop ? 1 : 0;
}

// Any thread's step, the caller's too. False if nothing is wanted, or there is no slot for it.
bool PreIOThread_Multi_R_D::makeNext(guard& lock, bool byCaller) {
    while (find(fNext) != nullptr) ++fNext;
    if (fNext > fCurrent + fAhead || fNext >= pPosInfo->parsedCount()) return false;
    slot* block = freeSlot();
    if (block == nullptr) return false;
    block->number = fNext++;
    block->is = state::busy;
    lock.unlock();
    state result = state::ready;
    try {
        if (block->rows && !byCaller) orva::regain(block->rows.get(), rowsOf(block->number));
        if (!block->rows) block->rows = orva::rowRoom(pPosInfo->records());
        makeBlock(block->number, block->compressed, block->rows.get(), true);
    } catch (...) {
        result = state::empty;
    }
    lock.lock();
    block->is = result;
    tellCaller();
    return true;
}

std::size_t PreIOThread_Multi_R_D::rowsOf(std::int64_t number) const {
    const std::int32_t size = pPosInfo->parsed(static_cast<std::uint32_t>(number)).orginalSize;
    return orva::isBlockSize(size) ? static_cast<std::size_t>(size) : 0;
}

void PreIOThread_Multi_R_D::makeBlock(std::int64_t number, orva::blockBuffer& compressed, unsigned char* dest,
                                      bool ahead) {
    zlibCompressBlock codec;
    if (!compressed) compressed = orva::compressedRoom(pPosInfo->records());
    orva::readBlock({*pFile, codec, compressed.get(), ahead},
                    orva::placeOf(*pPosInfo, static_cast<std::uint32_t>(number)), dest);
}
