// PreIOThread_Tri_R_D
#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "part/zcmpsPreIOThread.h"

#include <cstring>

PreIOThread_Tri_R_D::PreIOThread_Tri_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t blockSize)
    : PreIOThreadBase(2),
      pPosInfo(index),
      pFile(file),
      pCompressBuffer(blockSize),
      pDecompressBuffer(blockSize),
      stBlockSize(blockSize) {}

std::unique_ptr<CallBackObject> PreIOThread_Tri_R_D::newLoop(bool bRead, std::uint32_t number) {
    ORVA_ASSERT(bRead, "bRead == true");
    if (number == 0) return PreIOThreadBase::newLoop(bRead, number);
    return std::make_unique<newThreadForDecompress>();
}

std::uint32_t PreIOThread_Tri_R_D::getBlock(void* buffer, std::uint32_t size, std::int64_t position) {
    if (size == 0 && position == 0) {
        fInflated.requestStop();
        fCompressed.requestStop();
        return 0;
    }
    const std::uint32_t number = orva::blockAt(*pPosInfo, position);
    orva::readAheadSlot::request turn(fInflated);
    if (turn.hits(number)) {
        ORVA_ASSERT(!fInflated.bStop, "bCompressEnd != true && fpCurDecompressPos == fpos");
    } else {
        decompress(number, false);
    }
    ORVA_ASSERT(size <= stBlockSize, "size <= stBlockSize");
    std::memcpy(buffer, pDecompressBuffer.get(), size);
    if (number + 1 < pPosInfo->parsedCount()) turn.readAhead(number + 1);
    return size;
}

std::int32_t PreIOThread_Tri_R_D::decompressLoopStep() {
    return fInflated.step([this](std::int64_t number) { return decompress(static_cast<std::uint32_t>(number), true); });
}

std::int32_t PreIOThread_Tri_R_D::readLoopStep() {
    return fCompressed.step([this](std::int64_t number) {
        return readCompressed(orva::placeOf(*pPosInfo, static_cast<std::uint32_t>(number)), true);
    });
}

std::uint32_t PreIOThread_Tri_R_D::decompress(std::uint32_t number, bool ahead) {
    const orva::blockPlace block = orva::placeOf(*pPosInfo, number);
    orva::readAheadSlot::request turn(fCompressed);
    if (!turn.hits(number)) readCompressed(block, ahead);
    const std::uint32_t size = orva::inflateBlock(context(ahead), block, pDecompressBuffer.get());
    if (number + 1 < pPosInfo->parsedCount()) turn.readAhead(number + 1);
    return size;
}

std::uint32_t PreIOThread_Tri_R_D::readCompressed(const orva::blockPlace& block, bool ahead) {
    orva::readCompressed(context(ahead), block);
    return static_cast<std::uint32_t>(block.record.translateSize);
}
