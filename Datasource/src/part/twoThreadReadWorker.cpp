// PreIOThread_Tri_R_D
#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "part/zcmpsPreIOThread.h"

#include <cstring>

namespace {

// A turn that goes back where it came from, its block forgotten, unless it is handed on.
class heldTurn {
public:
    heldTurn(ktSemaphore& sem, std::int64_t& block) : fSem(sem), fBlock(block) {
        if (!fSem.waitSemaphore()) fBlock = 0;  // a forked child: no thread has made anything here
    }
    heldTurn(const heldTurn&) = delete;
    heldTurn& operator=(const heldTurn&) = delete;
    ~heldTurn() {
        if (bHandedOn) return;
        fBlock = 0;
        fSem.postSemaphore();
    }
    void handOn(ktSemaphore& next) {
        bHandedOn = true;
        next.postSemaphore();
    }

private:
    ktSemaphore& fSem;
    std::int64_t& fBlock;
    bool bHandedOn = false;
};

}  // namespace

class PreIOThread_Tri_R_D::newThreadForDecompress : public CallBackObject {
public:
    newThreadForDecompress() : CallBackObject(nullptr) {}
    int onCallBack(void* prtData) override { return runLoop(prtData, &PreIOThread_Tri_R_D::decompressLoopStep); }
};

PreIOThread_Tri_R_D::PreIOThread_Tri_R_D(ORVA_File* file, const filePosInfo* index, std::uint32_t blockSize)
    : pPosInfo(index), pFile(file), pCompressBuffer(blockSize), pDecompressBuffer(blockSize), stBlockSize(blockSize) {}

bool PreIOThread_Tri_R_D::initThreads(bool bRead) {
    ORVA_ASSERT(bRead, "bRead == true");
    addLoop(newLoop(bRead));
    addLoop(std::make_unique<newThreadForDecompress>());
    makePool(bRead);
    return true;
}

bool PreIOThread_Tri_R_D::hasBlock(std::int64_t fpos) const {
    return pPosInfo->findRecord(fpos).orginalPos != kNoRecord;
}

std::uint32_t PreIOThread_Tri_R_D::getBlock(void* buffer, std::uint32_t size, std::int64_t position) {
    if (size == 0 && position == 0) {
        bReadEnd = true;
        bCompressEnd = true;
        semDecompressRequest.postSemaphore();
        semReadRequest.postSemaphore();
        return 0;
    }
    heldTurn turn(semDecompressReady, fpCurDecompressPos);
    if (fpCurDecompressPos == position) {
        ORVA_ASSERT(!bCompressEnd, "bCompressEnd != true && fpCurDecompressPos == fpos");
    } else {
        decompressAt(position, false);
    }
    ORVA_ASSERT(size <= stBlockSize, "size <= stBlockSize");
    std::memcpy(buffer, pDecompressBuffer.get(), size);
    fpNextDecompressPos = position + size;
    if (hasBlock(fpNextDecompressPos)) turn.handOn(semDecompressRequest);
    return size;
}

std::int32_t PreIOThread_Tri_R_D::decompressLoopStep() {
    semDecompressRequest.waitSemaphore();
    if (bCompressEnd) return 1;
    fpCurDecompressPos = fpNextDecompressPos;
    try {
        decompressAt(fpNextDecompressPos, true);
    } catch (...) {
        fpCurDecompressPos = 0;
    }
    semDecompressReady.postSemaphore();
    return 0;
}

void PreIOThread_Tri_R_D::decompressAt(std::int64_t fpos, bool ahead) {
    heldTurn turn(semCompressReady, fpCurReadPos);
    const std::uint32_t number = orva::blockAt(*pPosInfo, fpos);
    if (fpCurReadPos != fpos) readCompressed(fpos, ahead);
    fpNextReadPos = fpos + orva::inflateBlock({*pFile, fCompressor, pCompressBuffer.get()},
                                              orva::placeOf(*pPosInfo, number), pDecompressBuffer.get());
    if (hasBlock(fpNextReadPos)) turn.handOn(semReadRequest);
}

std::int32_t PreIOThread_Tri_R_D::readLoopStep() {
    semReadRequest.waitSemaphore();
    const bool end = bReadEnd;
    try {
        if (!end) readCompressed(fpNextReadPos, true);
    } catch (...) {
        fpCurReadPos = 0;
    }
    semCompressReady.postSemaphore();
    return end ? 1 : 0;
}

void PreIOThread_Tri_R_D::readCompressed(std::int64_t fpos, bool ahead) {
    orva::readCompressed({*pFile, fCompressor, pCompressBuffer.get(), ahead},
                         orva::placeOf(*pPosInfo, orva::blockAt(*pPosInfo, fpos)));
    fpCurReadPos = fpos;
}
