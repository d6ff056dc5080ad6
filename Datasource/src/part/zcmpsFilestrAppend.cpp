// Resuming a finished part at its end: the rows of a short last block come back into the buffer, and everything that
// the append will overwrite is kept until the new heading is in its place.
#include "base/assertion.h"
#include "file/fileCodes.h"
#include "format/indexTransfer.h"
#include "part/zcmpsFilestrData.h"

#include <utility>

void zcmpsFilestr::setFileToAppend(std::int64_t endpos, bool swap) {
    ORVA_ASSERT(!fData->bClosed, "fData->bClosed == false");
    refuseWithWorker();
    beginWriting([&] {
        refuseEncrypted(kWriteFailed);
        fData->endWorker(false);
        reopenForWriting("fData->pRealFile.Open(GetNameStr(),\"r+b\")", __LINE__);
        auto index = std::make_unique<filePosInfo>(kBlockSize, GetNameStr().GetGeneric());
        fData->resume(endpos, fFilePos, swap, *index);
        fpPosInfo = std::move(index);
        fData->fpPosInfo = fpPosInfo.get();
        fData->fMultiThread = 0;
        fData->bNewPart = false;
    });
}

void zcmpsFilestr::Data::resume(std::int64_t endpos, std::int64_t filePos, bool swap, filePosInfo& index) {
    orva::refuseSideFile(pRealFile.GetNameStr().GetGeneric());
    const compressionHeading chInfo = orva::readHeading(
        pRealFile, fRow0Pos, swap, "pos == chInfo._caseStartPos && \"Analyze dictionary part error!\"");
    const std::unique_ptr<unsigned char[]> bytes = orva::readIndex(pRealFile, chInfo, swap);
    const filePosRecord bInfo = index.parseForAppend(bytes.get(), swap);
    const std::uint32_t count = index.parsedCount();
    orva::checkContiguous(pRealFile, chInfo, reinterpret_cast<const filePosRecord*>(bytes.get() + kRecordSize), count);

    clearBuffer();
    fTransferEnd = chInfo._indexPos + chInfo._size;
    const bool empty = bInfo.orginalPos == kFirstRecordMark;
    const bool full = !empty && bInfo.orginalSize == static_cast<std::int32_t>(kBlockSize);
    if (empty) {
        fpos = chInfo._caseStartPos;
        fCompressedPos = chInfo._caseStartPos + kHeadingSize;
    } else if (full) {
        resumeBehind(bInfo, endpos, index);
    } else {
        ORVA_ASSERT(filePos == endpos, "fFilePos == endpos");
        resumeInBlock(bInfo, count - 1, endpos);
    }
    const std::uint32_t rewritten = empty || full ? 0 : static_cast<std::uint32_t>(bInfo.translateSize);
    const bool cutsRows = rewritten != 0 && endpos < bInfo.orginalPos + bInfo.orginalSize;
    pTail = std::make_unique<orva::savedTail>(
        pRealFile, orva::tailPlan{fRow0Pos, fCompressedPos, rewritten, chInfo, swap, cutsRows}, bSafeAppend);
}

void zcmpsFilestr::Data::resumeBehind(const filePosRecord& bInfo, std::int64_t endpos, filePosInfo& index) {
    index.addRecord(bInfo.orginalPos, bInfo.translatePos, bInfo.orginalSize, bInfo.translateSize);
    fpos = bInfo.orginalPos + bInfo.orginalSize;
    fCompressedPos = bInfo.translatePos + bInfo.translateSize;
    if (fpos == endpos) return;
    throwRowsEndElsewhere(fpos, endpos);
}

// Another process may have appended since the caller read the index, so this is no breach.
void zcmpsFilestr::Data::throwRowsEndElsewhere(std::int64_t end, std::int64_t endpos) const {
    throw DamagedFileError(pRealFile.GetNameStr().GetGeneric(), "fData->fpos == endpos",
                           "its rows end at logical position " + std::to_string(end) + " instead of " +
                               std::to_string(endpos) + "; read it again");
}

void zcmpsFilestr::Data::resumeInBlock(const filePosRecord& bInfo, std::uint32_t number, std::int64_t endpos) {
    orva::readBlock({pRealFile, fCompressor, fCompressedBuffer},
                    {bInfo, number, std::nullopt, orva::lengthOf(pRealFile)}, fBuffer);
    // A file that is no longer what the caller read has rows that the caller does not know of.
    const std::int64_t end = bInfo.orginalPos + bInfo.orginalSize;
    if (fpPosInfo->isParsed() && fpPosInfo->dataEnd(fRow0Pos) != end) throwRowsEndElsewhere(end, endpos);
    ORVA_ASSERT(endpos >= bInfo.orginalPos && endpos <= end, "endpos inside the last block");
    fpos = bInfo.orginalPos;
    fCompressedPos = bInfo.translatePos;
    fTransferEnd = bInfo.translatePos + bInfo.translateSize;
    pBlock = fBuffer;
    fpCurrent = pBlock + (endpos - fpos);
    availBuffSize = static_cast<std::uint32_t>(kBlockSize - (endpos - fpos));
}

std::exception_ptr zcmpsFilestr::Data::undoAppend(const std::exception_ptr& failure) {
    return std::exchange(pTail, nullptr)->undo(failure);
}

// The rows of an append that nobody has finished are dropped.
void zcmpsFilestr::Data::putBackAppend() {
    if (pTail == nullptr) return;
    const std::exception_ptr failure = undoAppend(nullptr);
    if (failure != nullptr) std::rethrow_exception(failure);
}

// The heading is in its place, durably: from here on the new rows count.
void zcmpsFilestr::Data::commitSafeAppend() {
    bFinished = true;
    std::exchange(pTail, nullptr)->commit();
}
