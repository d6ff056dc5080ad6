// Reading a compressed part: heading and index, then rows from one block at a time.
#include "assertion.h"
#include "fileCodes.h"
#include "indexTransfer.h"
#include "zcmpsFilestrData.h"
#include "zcmpsPreIOThread.h"

#include <algorithm>
#include <cstring>
#include <string>

void zcmpsFilestr::readFilePosInfo(std::int64_t posofpos, bool swap) {
    ORVA_ASSERT(!fData->bClosed, "fData->bClosed == false");
    bIsWriting = false;
    ORVA_ASSERT(fData->fpIOThread == nullptr, "fData->fpIOThread == 0");
    fFilePos = posofpos;
    fData->forgetBlock();
    try {
        refuseEncrypted(kReadFailed);
        const compressionHeading chInfo = orva::readHeading(
            fData->pRealFile, posofpos, swap, "posofpos == chInfo._caseStartPos && \"Analyze dictionary part error!\"");
        fData->fRow0Pos = chInfo._caseStartPos;
        fpPosInfo->limitPlaces(fData->pRealFile.Size());
        fpPosInfo->parseForRead(orva::readIndex(fData->pRealFile, chInfo, swap).get(), swap);
        if (fpPosInfo->parsedCount() != 0) orva::checkFirstBlock(fData->pRealFile, fpPosInfo->parsed(0), posofpos);
        if (fData->fMultiThread >= 2) fData->fpIOThread = fData->makeReader();
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
    return fpos != -1 && pos >= fpos && pos - fpos < (fpCurrent - fBuffer) + std::int64_t{availBuffSize};
}

void zcmpsFilestr::Data::Read(ReadRequest& req) {
    if (!loaded(req._pos)) {
        if (!fetchBlock(req._pos)) return;
    } else {
        const std::int64_t distance = req._pos - (fpos + (fpCurrent - fBuffer));
        fpCurrent += distance;
        availBuffSize = static_cast<std::uint32_t>(availBuffSize - distance);
    }
    for (;;) {
        const std::uint32_t count = std::min(availBuffSize, req._size);
        std::memcpy(req._buffer, fpCurrent, count);
        fpCurrent += count;
        availBuffSize -= count;
        req.Advance(count);
        if (req._size == 0 || !fetchBlock(req._pos)) return;
    }
}

void zcmpsFilestr::Data::forgetBlock() {
    availBuffSize = 0;
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
    const bool byWorker = fMultiThread > 1 && fpIOThread != nullptr;
    const std::uint32_t count =
        byWorker
            ? fpIOThread->getBlock(fBuffer, static_cast<std::uint32_t>(bInfo.orginalSize), bInfo.orginalPos)
            : orva::readBlock({pRealFile, fCompressor, fCompressedBuffer}, orva::placeOf(*fpPosInfo, bInfo), fBuffer);
    fpos = bInfo.orginalPos;
    fpCurrent = fBuffer + (pos - fpos);
    availBuffSize = static_cast<std::uint32_t>(count - (pos - fpos));
    return true;
}

std::unique_ptr<PreIOThreadBase> zcmpsFilestr::Data::makeReader() {
    return startedWorker(std::make_unique<PreIOThread_R_D>(&pRealFile, fpPosInfo, kBlockSize), true);
}
