// PreIOThread_R_D
#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "part/zcmpsPreIOThread.h"

#include <cstring>

PreIOThread_R_D::PreIOThread_R_D(ORVA_File* file, filePosInfo* index, std::uint32_t blockSize)
    : pFile(file), pPosInfo(index), pDecompressBuffer(blockSize), pCompressBuffer(blockSize) {}

std::uint32_t PreIOThread_R_D::getBlock(void* buffer, std::uint32_t size, std::int64_t position) {
    if (size == 0 && position == 0) {
        fSlot.requestStop();
        return 0;
    }
    orva::readAheadSlot::request turn(fSlot);
    if (turn.hits(position)) {
        ORVA_ASSERT(size == fSlot.stCurSize, "reqSize == stCurSize");
        std::memcpy(buffer, pDecompressBuffer.get(), size);
    } else {
        readAndDecompress(buffer, position, false);
    }
    const std::int64_t next = position + size;
    if (pPosInfo->findRecord(next).orginalPos != kNoRecord) turn.readAhead(next);
    return size;
}

std::int32_t PreIOThread_R_D::readLoopStep() {
    return fSlot.step([this](std::int64_t fpos) { return readAndDecompress(pDecompressBuffer.get(), fpos, true); });
}

std::uint32_t PreIOThread_R_D::readAndDecompress(void* dest, std::int64_t fpos, bool ahead) {
    const filePosRecord bInfo = pPosInfo->findRecord(fpos);
    ORVA_ASSERT(fpos == bInfo.orginalPos, "fpos == bInfo.orginalPos");
    return orva::readBlock({*pFile, fCompressor, pCompressBuffer.get(), ahead}, orva::placeOf(*pPosInfo, bInfo),
                           static_cast<unsigned char*>(dest));
}
