// PreIOThread_Multi_W_C
#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"

#include <cerrno>
#include <cstring>
#include <limits>
#include <system_error>
#include <thread>

PreIOThread_Multi_W_C::PreIOThread_Multi_W_C(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize,
                                             std::int64_t firstPos, std::int64_t firstFilePos, std::uint32_t threads)
    : writingWorker(threads),
      pFile(file),
      pPosInfo(index),
      bCallerHelps(threads < std::thread::hardware_concurrency()),
      fSlots(threads + 2),
      semFree(threads + 2),
      fEnd(std::numeric_limits<std::uint64_t>::max()),
      fpBlockPos(firstPos),
      fpWritePos(firstFilePos) {
    for (slot& block : fSlots) {
        block.rows = orva::blockBuffer(blockSize);
        block.scratch = orva::blockBuffer(orva::deflateRoom());
    }
}

unsigned char* PreIOThread_Multi_W_C::lendRows() {
    const auto help = [this] { return bCallerHelps && deflateNext(); };
    if (!bLent && !waitHelping(semFree, help)) {
        throw std::system_error(ECHILD, std::generic_category(), "write worker");
    }
    bLent = true;
    std::exception_ptr failure;
    {
        const ktGuard guard(fLock, ktMutex::Recursive);
        failure = fFailure;
    }
    if (failure != nullptr) std::rethrow_exception(failure);
    return at(fFilled).rows.get();
}

std::uint32_t PreIOThread_Multi_W_C::putBlock(const void* buffer, std::uint32_t size, std::int64_t) {
    if (size == 0) {
        endLoops();
        return 0;
    }
    unsigned char* rows = lendRows();
    if (buffer != rows) std::memcpy(rows, buffer, size);
    at(fFilled).size = size;
    bLent = false;
    ++fFilled;
    semFilled.postSemaphore();
    return size;
}

void PreIOThread_Multi_W_C::endLoops() {
    while (deflateNext()) {
    }
    fEnd = fFilled;
    for (std::uint32_t i = 0; i < fThreads; ++i) semFilled.postSemaphore();
    for (std::size_t i = bLent ? 1 : 0; i < fSlots.size(); ++i) semFree.waitSemaphore();
}

std::int32_t PreIOThread_Multi_W_C::writeLoopStep() {
    semFilled.waitSemaphore();
    return takeBlock() ? 0 : 1;
}

// The caller's help: a block that no thread has taken up. False if there is none.
bool PreIOThread_Multi_W_C::deflateNext() {
    return semFilled.tryWaitSemaphore() && takeBlock();
}

// The next filled block, through to the file if it is its turn. False: there will be no further one.
bool PreIOThread_Multi_W_C::takeBlock() {
    const std::uint64_t number = fTaken.fetch_add(1);
    if (number >= fEnd) return false;
    deflate(at(number));
    writeInOrder(number);
    return true;
}

void PreIOThread_Multi_W_C::deflate(slot& block) {
    zlibCompressBlock codec;
    try {
        block.result = orva::deflateBlock(codec, block.rows.get(), block.size, block.scratch.get());
    } catch (...) {
        block.failure = std::current_exception();
    }
}

// Whoever completes the next block in order writes it, and all that are complete behind it.
void PreIOThread_Multi_W_C::writeInOrder(std::uint64_t number) {
    fLock.lock(ktMutex::Recursive, nullptr, 0);
    at(number).bDeflated = true;
    while (!bWriting && at(fWritten).bDeflated) {
        slot& block = at(fWritten);
        bWriting = true;
        const bool drop = fFailure != nullptr;
        fLock.unlock(nullptr, 0);
        if (!drop) writeOut(block);
        fLock.lock(ktMutex::Recursive, nullptr, 0);
        if (fFailure == nullptr) fFailure = block.failure;
        block.failure = nullptr;
        block.bDeflated = false;
        bWriting = false;
        ++fWritten;
        semFree.postSemaphore();
    }
    fLock.unlock(nullptr, 0);
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
