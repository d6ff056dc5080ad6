// PreIOThread_Multi_W_C
#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"

#include <orva/zlibCompress.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

PreIOThread_Multi_W_C::PreIOThread_Multi_W_C(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize,
                                             std::int64_t firstPos, std::int64_t firstFilePos, std::uint32_t threads,
                                             std::int32_t level)
    : writingWorker(threads),
      pFile(file),
      pPosInfo(index),
      fLevel(level),
      fSlots(threads + 2),
      fpBlockPos(firstPos),
      fpWritePos(firstFilePos) {
    for (slot& block : fSlots) {
        block.rows = orva::blockBuffer(blockSize);
        block.scratch = orva::blockBuffer(orva::deflateRoom(blockSize));
    }
}

unsigned char* PreIOThread_Multi_W_C::lendRows() {
    guard lock = locked();
    return freeSlot(lock).rows.get();
}

// The next block's, once it is free.
PreIOThread_Multi_W_C::slot& PreIOThread_Multi_W_C::freeSlot(guard& lock) {
    if (!isMakers()) throw std::system_error(ECHILD, std::generic_category(), "write worker");
    while (fFilled - fWritten == fSlots.size()) helpOrAwait(lock);
    if (fFailure != nullptr) std::rethrow_exception(fFailure);
    return at(fFilled);
}

void PreIOThread_Multi_W_C::helpOrAwait(guard& lock) {
    if (!bCallerHelps || !takeBlock(lock)) await(lock);
}

std::uint32_t PreIOThread_Multi_W_C::putBlock(const void* buffer, std::uint32_t size, std::int64_t) {
    if (size == 0) {
        endLoops();
        return 0;
    }
    unsigned char* rows = lendRows();
    if (buffer != rows) std::memcpy(rows, buffer, size);
    const guard lock = locked();
    handOver(at(fFilled), size);
    return size;
}

void PreIOThread_Multi_W_C::handOver(slot& block, std::uint32_t size) {
    block.size = size;
    ++fFilled;
    tellThread();
}

bool PreIOThread_Multi_W_C::putFrom(const orva::rowSource& source, std::int64_t offset, std::uint32_t size) {
    guard lock = locked();
    slot& block = freeSlot(lock);
    block.source = &source;
    block.offset = offset;
    handOver(block, size);
    return true;
}

void PreIOThread_Multi_W_C::awaitRows() {
    guard lock = locked();
    const auto needsSource = [](const slot& block) { return block.source != nullptr; };
    while (std::any_of(fSlots.begin(), fSlots.end(), needsSource)) helpOrAwait(lock);
    if (fFailure != nullptr) std::rethrow_exception(fFailure);
}

void PreIOThread_Multi_W_C::drop() {
    const guard lock = locked();
    bDropping = true;
}

void PreIOThread_Multi_W_C::endLoops() {
    if (!isMakers()) return;
    guard lock = locked();
    bEnd = true;
    tellThreads();
    while (fWritten != fFilled) {
        if (!takeBlock(lock)) await(lock);
    }
}

std::int32_t PreIOThread_Multi_W_C::writeLoopStep() {
    guard lock = locked();
    while (!bEnd && fTaken == fFilled) wait(lock);
    return takeBlock(lock) ? 0 : 1;
}

// Any thread's step, the caller's too: the next filled block, through to the file if it is its turn. False: there is
// none.
bool PreIOThread_Multi_W_C::takeBlock(guard& lock) {
    if (fTaken == fFilled) return false;
    slot& block = at(fTaken++);
    if (fFailure == nullptr && !bDropping) {
        getRows(lock, block);
        lock.unlock();
        deflate(block);
        lock.lock();
    }
    block.bDeflated = true;
    writeInOrder(lock);
    return true;
}

// A source that fails stays with its block until it is the block's turn to be written.
void PreIOThread_Multi_W_C::getRows(guard& lock, slot& block) {
    if (block.source == nullptr) return;
    lock.unlock();
    try {
        (*block.source)(block.offset, {block.rows.get(), block.size});
    } catch (...) {
        block.failure = std::current_exception();
    }
    lock.lock();
    if (block.failure == nullptr) block.source = nullptr;
    tellCaller();
}

void PreIOThread_Multi_W_C::deflate(slot& block) {
    if (block.failure != nullptr) return;
    zlibCompressBlock codec;
    try {
        block.result = orva::deflateBlock(codec, fLevel, block.rows.get(), block.size, block.scratch.get());
    } catch (...) {
        block.failure = std::current_exception();
    }
}

// Whoever completes the next block in order writes it, and all that are complete behind it.
void PreIOThread_Multi_W_C::writeInOrder(guard& lock) {
    while (!bWriting && at(fWritten).bDeflated) {
        slot& block = at(fWritten);
        if (fFailure == nullptr && !bDropping) {
            bWriting = true;
            lock.unlock();
            writeOut(block);
            lock.lock();
            bWriting = false;
            fFailure = block.failure;
        }
        block.failure = nullptr;
        block.source = nullptr;
        block.bDeflated = false;
        ++fWritten;
        tellCaller();
    }
}

void PreIOThread_Multi_W_C::writeOut(slot& block) {
    if (block.failure != nullptr) return;
    try {
        fpWritePos = orva::writeDeflated(*pFile, *pPosInfo, block.result, block.scratch.get(), fpBlockPos, fpWritePos);
        fpBlockPos += block.size;
    } catch (...) {
        block.failure = std::current_exception();
    }
}
