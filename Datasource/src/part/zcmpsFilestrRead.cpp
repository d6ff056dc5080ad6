// Reading a compressed part: heading and index, then rows from one block at a time.
#include "base/assertion.h"
#include "file/fileCodes.h"
#include "format/indexTransfer.h"
#include "part/zcmpsFilestrData.h"
#include "part/zcmpsMultiThread.h"
#include "part/zcmpsPreIOThread.h"

#include <algorithm>
#include <cstring>
#include <string>

void zcmpsFilestr::readFilePosInfo(std::int64_t posofpos, bool swap) {
    ORVA_ASSERT(!fData->bClosed, "fData->bClosed == false");
    refuseWithWorker();
    bIsWriting = false;
    fData->endWorker(false);
    fFilePos = posofpos;
    fData->fCache.clear();
    try {
        fData->putBackAppend();
        refuseEncrypted(kReadFailed);
        const compressionHeading chInfo = orva::readHeading(
            fData->pRealFile, posofpos, swap, "posofpos == chInfo._caseStartPos && \"Analyze dictionary part error!\"");
        fData->fRow0Pos = chInfo._caseStartPos;
        fpPosInfo->limitPlaces(orva::lengthOf(fData->pRealFile));
        orva::loadIndex(fData->pRealFile, chInfo, swap, *fpPosInfo);
        if (fData->fMultiThread >= 2 && fData->fThreadCount == 0) fData->fpIOThread = fData->makeReader();
    } catch (...) {
        fData->fOpenFailure = std::current_exception();
        throw;
    }
    fData->fOpenFailure = nullptr;
}

std::uint32_t zcmpsFilestr::Read(void* buffer, std::uint32_t size) {
    ORVA_ASSERT(!bIsWriting, "bIsWriting == false");
    if (size == 0) return 0;
    if (fData->fOpenFailure != nullptr) std::rethrow_exception(fData->fOpenFailure);
    ReadRequest req{static_cast<unsigned char*>(buffer), size, fFilePos};
    fData->Read(req);
    return size - req._size;
}

bool zcmpsFilestr::Data::loaded(std::int64_t pos) const {
    return fpos != -1 && pos >= fpos && pos - fpos < (fpCurrent - pBlock) + std::int64_t{availBuffSize};
}

void zcmpsFilestr::Data::Read(ReadRequest& req) {
    if (!loaded(req._pos)) {
        readWholeBlocks(req);
        if (!fetchBlock(req._pos)) return;
    } else {
        const std::int64_t distance = req._pos - (fpos + (fpCurrent - pBlock));
        fpCurrent += distance;
        availBuffSize = static_cast<std::uint32_t>(availBuffSize - distance);
    }
    for (;;) {
        const std::uint32_t count = std::min(availBuffSize, req._size);
        std::memcpy(req._buffer, fpCurrent, count);
        fpCurrent += count;
        availBuffSize -= count;
        req.Advance(count);
        if (req._size == 0) return;
        readWholeBlocks(req);
        if (!fetchBlock(req._pos)) return;
    }
}

// Blocks that the request covers go straight into the caller's memory. Its last one does not: it stays in fBuffer, so
// that a small step back costs no file access.
void zcmpsFilestr::Data::readWholeBlocks(ReadRequest& req) {
    forgetBlock();
    for (;;) {
        const filePosRecord bInfo = fpPosInfo->findRecord(req._pos);
        if (bInfo.orginalPos != req._pos || bInfo.orginalSize < 1) return;
        const auto size = static_cast<std::uint32_t>(bInfo.orginalSize);
        if (size >= req._size) return;
        if (const unsigned char* held = fCache.find(bInfo.orginalPos)) {
            std::memcpy(req._buffer, held, size);
        } else {
            loadBlock(bInfo, req._buffer);
        }
        req.Advance(size);
    }
}

void zcmpsFilestr::Data::forgetBlock() {
    availBuffSize = 0;
    pBlock = fBuffer;
    fpCurrent = fBuffer;
    fpos = -1;
}

bool zcmpsFilestr::Data::fetchBlock(std::int64_t pos) {
    forgetBlock();
    const filePosRecord bInfo = fpPosInfo->findRecord(pos);
    if (bInfo.orginalPos == kNoRecord) {
        if (pos < fRow0Pos || pos >= fpPosInfo->dataEnd(fRow0Pos)) return false;
        throw DamagedFileError(pRealFile.GetNameStr().GetGeneric(), "bInfo.orginalPos != -200",
                               "no block of its index holds the logical position " + std::to_string(pos));
    }
    pBlock = currentBlock(bInfo);
    fpos = bInfo.orginalPos;
    fpCurrent = pBlock + (pos - fpos);
    availBuffSize = static_cast<std::uint32_t>(bInfo.orginalSize - (pos - fpos));
    return true;
}

unsigned char* zcmpsFilestr::Data::cachedBlock(const filePosRecord& bInfo) {
    unsigned char* held = fCache.find(bInfo.orginalPos);
    return held != nullptr ? held : fCache.add(bInfo.orginalPos, [&](unsigned char* rows) { loadBlock(bInfo, rows); });
}

// The block's rows, loaded: in the cache, in the memory of several threads' worker, or in fBuffer.
unsigned char* zcmpsFilestr::Data::currentBlock(const filePosRecord& bInfo) {
    if (fCache.enabled()) return cachedBlock(bInfo);
    if (fThreadCount != 0) return severalReaders().lendBlock(fBuffer, bInfo.orginalPos);
    loadBlock(bInfo, fBuffer);
    return fBuffer;
}

void zcmpsFilestr::Data::loadBlock(const filePosRecord& bInfo, unsigned char* dest) {
    PreIOThreadBase* worker = fMultiThread > 1 ? fpIOThread.get() : nullptr;
    if (fThreadCount != 0) worker = &severalReaders();
    if (worker != nullptr) {
        worker->getBlock(dest, static_cast<std::uint32_t>(bInfo.orginalSize), bInfo.orginalPos);
    } else {
        orva::readBlock({pRealFile, fCompressor, fCompressedBuffer}, orva::placeOf(*fpPosInfo, bInfo), dest);
    }
}

PreIOThread_Multi_R_D& zcmpsFilestr::Data::severalReaders() {
    if (fpSeveral == nullptr) {
        auto worker = std::make_unique<PreIOThread_Multi_R_D>(&pRealFile, fpPosInfo, kBlockSize, fThreadCount);
        fpSeveral = startedWorker(std::move(worker), true);
    }
    return static_cast<PreIOThread_Multi_R_D&>(*fpSeveral);
}

std::unique_ptr<PreIOThreadBase> zcmpsFilestr::Data::makeReader() {
    return startedWorker(std::make_unique<PreIOThread_R_D>(&pRealFile, fpPosInfo, kBlockSize), true);
}
