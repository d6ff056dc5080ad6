// Resuming a finished part at its end: the rows of a short last block come back into the buffer, and everything that
// the append will overwrite is kept until the new heading is in its place.
#include "base/assertion.h"
#include "file/fileCodes.h"
#include "format/indexTransfer.h"
#include "part/zcmpsFilestrData.h"

#include <orva/errtext.h>

#include <cstdio>
#include <new>
#include <system_error>

namespace {

constexpr const char* kAsBefore = "the file holds the rows that it held before";
constexpr const char* kSideFileLeft =
    "the file holds the rows that it held before; remove its side file with 'orva recover --roll-back'";
constexpr const char* kRollBack =
    "the rows that the file held before could not be put back: 'orva recover --roll-back' does so";
constexpr const char* kRecover = "the rows that the file held before could not be put back: 'orva recover' gets them";

// A failure with the outcome behind its text. It asks for no memory: that may be what there is none of.
template <class Error>
class withText : public Error {
public:
    withText(const Error& error, const char* outcome) : Error(error) {
        std::snprintf(fText, sizeof fText, "%s; %s", error.what(), outcome);
    }
    const char* what() const noexcept override { return fText; }

private:
    char fText[256];
};

// The first of the two that can say more than it does, with the outcome in its text.
std::exception_ptr withOutcome(const std::exception_ptr& failure, const std::exception_ptr& otherwise,
                               const char* outcome) {
    try {
        std::rethrow_exception(failure != nullptr ? failure : otherwise);
    } catch (const FileError& error) {
        return std::make_exception_ptr(error.withOutcome(outcome));
    } catch (const std::system_error& error) {  // of a thread that could not be started
        return std::make_exception_ptr(withText(error, outcome));
    } catch (const std::bad_alloc& error) {
        return std::make_exception_ptr(withText(error, outcome));
    } catch (...) {
        if (failure == nullptr || otherwise == nullptr) return std::current_exception();
    }
    return withOutcome(nullptr, otherwise, outcome);
}

}  // namespace

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
    saveTail(chInfo, empty || full ? 0 : static_cast<std::uint32_t>(bInfo.translateSize));
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

void zcmpsFilestr::Data::saveTail(const compressionHeading& heading, std::uint32_t rewrittenBlock) {
    orva::savedTail tail{fRow0Pos, orva::lengthOf(pRealFile), fCompressedPos, {}, bSafeAppend};
    if (rewrittenBlock != 0) orva::savePiece(tail, pRealFile, fCompressedPos, rewrittenBlock);
    orva::savePiece(tail, pRealFile, heading._indexPos, static_cast<std::uint32_t>(heading._size));
    orva::savePiece(tail, pRealFile, fRow0Pos, kHeadingSize);
    if (tail.inSideFile) orva::writeSideFile(pRealFile, tail);
    fTail = std::move(tail);
}

std::exception_ptr zcmpsFilestr::Data::undoAppend(const std::exception_ptr& failure) {
    const orva::savedTail tail = std::move(*fTail);
    fTail.reset();
    const char* outcome = tail.inSideFile ? kRollBack : kRecover;
    try {
        orva::restoreTail(pRealFile, tail);
        if (tail.inSideFile) {
            pRealFile.Sync();
            outcome = kSideFileLeft;
            orva::removeSideFile(pRealFile.GetNameStr().GetGeneric());
        }
        outcome = kAsBefore;
        return failure == nullptr ? nullptr : withOutcome(failure, nullptr, outcome);
    } catch (...) {
        return withOutcome(failure, std::current_exception(), outcome);
    }
}

// The rows of an append that nobody has finished are dropped.
void zcmpsFilestr::Data::putBackAppend() {
    if (!fTail) return;
    const std::exception_ptr failure = undoAppend(nullptr);
    if (failure != nullptr) std::rethrow_exception(failure);
}

// The heading is in its place, durably: from here on the new rows count.
void zcmpsFilestr::Data::commitSafeAppend() {
    fTail.reset();
    bFinished = true;
    try {
        orva::removeSideFile(pRealFile.GetNameStr().GetGeneric());
    } catch (const FileError& error) {
        throw error.withOutcome("the append itself is complete: remove this file, or a roll-back drops the new rows");
    }
}
