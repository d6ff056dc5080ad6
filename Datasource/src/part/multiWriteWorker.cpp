// PreIOThread_Multi_W_C
#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"

#include <orva/zlibCompress.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

PreIOThread_Multi_W_C::PreIOThread_Multi_W_C(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize,
                                             std::int64_t firstPos, std::int64_t firstFilePos, std::uint32_t threads,
                                             std::int32_t level)
    : writingWorker(threads),
      pFile(file),
      pPosInfo(index),
      stBlockSize(blockSize),
      fLevel(level),
      fSlots(fThreads + 2),
      fpBlockPos(firstPos),
      fpWritePos(firstFilePos) {}

unsigned char* PreIOThread_Multi_W_C::room() {
    return fThreads != 0 ? freeSlot().rows.get() : nullptr;
}

void PreIOThread_Multi_W_C::put(const unsigned char* rows, std::uint32_t size) {
    if (fThreads == 0) return putAlone(rows, size);
    startOnce(false);
    putBlock(rows, size, 0);
}

// Needs no copy of the rows.
void PreIOThread_Multi_W_C::putAlone(const unsigned char* rows, std::uint32_t size) {
    orva::blockBuffer& scratch = fSlots.front().scratch;
    if (!scratch) scratch = {orva::deflateRoom(stBlockSize), orva::deflateRoom(size)};
    zlibCompressBlock codec;
    fpWritePos =
        orva::writeBlock({*pFile, *pPosInfo, codec, scratch.get(), fLevel}, rows, size, fpBlockPos, fpWritePos);
    fpBlockPos += size;
}

bool PreIOThread_Multi_W_C::putFrom(const orva::rowSource& source, std::int64_t offset, std::uint32_t size) {
    if (fThreads == 0) return false;
    startOnce(false);
    slot& block = freeSlot();
    block.source = &source;
    block.offset = offset;
    handOver(block, size);
    return true;
}

std::uint32_t PreIOThread_Multi_W_C::putBlock(const void* buffer, std::uint32_t size, std::int64_t) {
    if (size == 0) {
        endLoops();
        return 0;
    }
    slot& block = freeSlot();
    if (buffer != block.rows.get()) std::memcpy(block.rows.get(), buffer, size);
    handOver(block, size);
    return size;
}

// The slot of the next block, which is the caller's until handOver.
PreIOThread_Multi_W_C::slot& PreIOThread_Multi_W_C::freeSlot() {
    if (!isMakersProcess()) throw std::system_error(ECHILD, std::generic_category(), "write worker");
    guard lock = locked();
    while (fFilled - fWritten == fSlots.size()) helpOrWait(lock);
    if (fFailure != nullptr) std::rethrow_exception(fFailure);
    slot& block = at(fFilled);
    if (!block.rows) block.rows = orva::blockBuffer(stBlockSize);
    return block;
}

void PreIOThread_Multi_W_C::handOver(slot& block, std::uint32_t size) {
    block.size = size;
    guard lock = locked();
    ++fFilled;
    notifyThread();
}

void PreIOThread_Multi_W_C::helpOrWait(guard& lock) {
    if (!bCallerHelps || !takeBlock(lock)) waitAsCaller(lock);
}

void PreIOThread_Multi_W_C::awaitRows() {
    guard lock = locked();
    const auto needsSource = [](const slot& block) { return block.source != nullptr; };
    while (std::any_of(fSlots.begin(), fSlots.end(), needsSource)) helpOrWait(lock);
    if (fFailure != nullptr) std::rethrow_exception(fFailure);
}

void PreIOThread_Multi_W_C::drop() {
    const guard lock = locked();
    bDropping = true;
}

void PreIOThread_Multi_W_C::endLoops() {
    if (!isMakersProcess()) return;
    guard lock = locked();
    bEnd = true;
    notifyThreads();
    while (fWritten != fFilled) {
        if (!takeBlock(lock)) waitAsCaller(lock);
    }
}

std::int32_t PreIOThread_Multi_W_C::writeLoopStep() {
    guard lock = locked();
    while (!bEnd && fTaken == fFilled) waitForWork(lock);
    return takeBlock(lock) ? 0 : 1;
}

// A step of any thread, the caller's too: deflates the next filled block, and writes it if it is next in order. False
// if there is none.
bool PreIOThread_Multi_W_C::takeBlock(guard& lock) {
    if (fTaken == fFilled) return false;
    slot& block = at(fTaken++);
    if (!bDropping) {
        lock.unlock();
        make(block);
        lock.lock();
    }
    block.bDeflated = true;
    writeInOrder(lock);
    return true;
}

// A source that fails stays with its block until the block's turn to be written.
void PreIOThread_Multi_W_C::make(slot& block) try {
    if (block.source != nullptr) {
        (*block.source)(block.offset, {block.rows.get(), block.size});
        const guard lock = locked();
        block.source = nullptr;
        notifyCaller();
    }
    if (!block.scratch) block.scratch = {orva::deflateRoom(stBlockSize), orva::deflateRoom(block.size)};
    zlibCompressBlock codec;
    block.result = orva::deflateBlock(codec, fLevel, block.rows.get(), block.size, block.scratch.get());
} catch (...) {
    block.failure = std::current_exception();
}

// The thread that completes the next block in order writes it, and all complete ones after it.
void PreIOThread_Multi_W_C::writeInOrder(guard& lock) {
    while (!bWriting && at(fWritten).bDeflated) {
        slot& block = at(fWritten);
        if (!bDropping && block.failure == nullptr) {
            bWriting = true;
            lock.unlock();
            writeOut(block);
            lock.lock();
            bWriting = false;
        }
        if (!bDropping) fFailure = block.failure;
        bDropping = bDropping || fFailure != nullptr;
        block.failure = nullptr;
        block.source = nullptr;
        block.bDeflated = false;
        ++fWritten;
        notifyCaller();
    }
}

void PreIOThread_Multi_W_C::writeOut(slot& block) try {
    fpWritePos = orva::writeDeflated(*pFile, *pPosInfo, block.result, block.scratch.get(), fpBlockPos, fpWritePos);
    fpBlockPos += block.size;
} catch (...) {
    block.failure = std::current_exception();
}
