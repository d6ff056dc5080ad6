// PreIOThread_R_D
#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "part/zcmpsPreIOThread.h"

#include <cstring>
#include <utility>

PreIOThread_R_D::PreIOThread_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t blockSize)
    : blockSource(index), pFile(file), pDecompressBuffer(blockSize), pCompressBuffer(blockSize) {}

std::uint32_t PreIOThread_R_D::getBlock(void* buffer, std::uint32_t size, std::int64_t position) {
    if (size == 0 && position == 0) {
        fSlot.requestStop();
        return 0;
    }
    const std::uint32_t number = orva::blockAt(*pPosInfo, position);
    ORVA_ASSERT(size == static_cast<std::uint32_t>(pPosInfo->parsed(number).orginalSize), "reqSize == stCurSize");
    load(number, static_cast<unsigned char*>(buffer));
    return size;
}

void PreIOThread_R_D::load(std::uint32_t number, unsigned char* to) {
    serve(number, to, [&] { std::memcpy(to, pDecompressBuffer.get(), fSlot.stCurSize); });
}

const unsigned char* PreIOThread_R_D::lend(std::uint32_t number) {
    serve(number, ownBuffer().get(), [&] { std::swap(ownBuffer(), pDecompressBuffer); });
    return ownBuffer().get();
}

// The slot knows blocks by number.
template <class Take>
void PreIOThread_R_D::serve(std::uint32_t number, unsigned char* to, Take takeMade) {
    orva::readAheadSlot::request turn(fSlot);
    if (turn.hits(number)) {
        takeMade();
    } else {
        readAndDecompress(to, number, false);
    }
    if (number + 1 < pPosInfo->parsedCount()) turn.readAhead(number + 1);
}

std::int32_t PreIOThread_R_D::readLoopStep() {
    return fSlot.step([this](std::int64_t number) {
        return readAndDecompress(pDecompressBuffer.get(), static_cast<std::uint32_t>(number), true);
    });
}

std::uint32_t PreIOThread_R_D::readAndDecompress(unsigned char* dest, std::uint32_t number, bool ahead) {
    return orva::readBlock({{*pFile, ahead}, fCompressor, pCompressBuffer.get()}, orva::placeOf(*pPosInfo, number),
                           dest);
}
