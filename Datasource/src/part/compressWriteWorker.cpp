// PreIOThread_W_C
#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "part/zcmpsPreIOThread.h"

#include <cerrno>
#include <cstring>
#include <system_error>

PreIOThread_W_C::PreIOThread_W_C(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize, std::int64_t firstPos,
                                 std::int64_t firstFilePos, std::int32_t level)
    : pFile(file),
      pPosInfo(index),
      fLevel(level),
      pOutBuffer(orva::deflateRoom(blockSize)),
      fpBlockPos(firstPos),
      fpWritePos(firstFilePos),
      pInBuffer(blockSize) {}

std::uint32_t PreIOThread_W_C::putBlock(const void* buffer, std::uint32_t size, std::int64_t) {
    // False in a forked child, where no thread could take the block.
    if (!semFreeSlot.waitSemaphore()) throw std::system_error(ECHILD, std::generic_category(), "write worker");
    if (size != 0 && fFailure != nullptr) {
        semFreeSlot.postSemaphore();
        std::rethrow_exception(fFailure);
    }
    if (size != 0) std::memcpy(pInBuffer.get(), buffer, size);
    stCurSize = size;
    semRequest.postSemaphore();
    return size;
}

std::int32_t PreIOThread_W_C::writeLoopStep() {
    semRequest.waitSemaphore();
    const bool end = stCurSize == 0;
    try {
        if (!end && fFailure == nullptr && !bDropped) writeOut();
    } catch (...) {
        fFailure = std::current_exception();
    }
    if (end) return 1;
    semFreeSlot.postSemaphore();
    return 0;
}

void PreIOThread_W_C::writeOut() {
    fpWritePos = orva::writeBlock({*pFile, *pPosInfo, fCompressor, pOutBuffer.get(), fLevel}, pInBuffer.get(),
                                  stCurSize, fpBlockPos, fpWritePos);
    fpBlockPos += stCurSize;
}
