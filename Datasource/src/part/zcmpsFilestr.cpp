// The life of a compressed stream: making it, moving it, closing it, finishing a file.
#include "base/assertion.h"
#include "file/namedFile.h"
#include "part/zcmpsFilestrData.h"

#include <orva/errtext.h>
#include <orva/platform.h>
#include <orva/zcmpsFilestr.h>

#include <cerrno>
#include <limits>
#include <utility>

namespace {

constexpr std::int32_t kCannotReopen = 1201;

[[noreturn]] void throwCannotReopen(const ORVA_File& file, const char* expression, std::int32_t line) {
    throw FileReopenError(file.OpenErrno(), file.GetNameStr().GetGeneric(),
                          SystemFileException(kCannotReopen, expression, "Datasource/src/zcmpsFilestr", line, true));
}

}  // namespace

zcmpsFilestr::zcmpsFilestr(const ORVA_FileStream& source)
    : ORVA_FileStream(source),
      fpPosInfo(new filePosInfo(kBlockSize, GetFile().GetNameStr().GetGeneric())),
      fData(new Data(GetFile(), fpPosInfo.get())) {}

zcmpsFilestr::~zcmpsFilestr() noexcept(false) {
    if (!inOwnProcess()) return;
    try {
        if (fData->bToldFailure) {
            fData->endWorker(bIsWriting);
        } else {
            zcmpsFilestr::Close();
        }
    } catch (...) {
        if (mayThrowNow()) throw;
    }
}

void zcmpsFilestr::setMultiThread(std::int32_t setting) {
    ORVA_ASSERT(fData->fpIOThread == nullptr, "fData->fpIOThread == 0");
    fData->fMultiThread = setting;
}

void zcmpsFilestr::setThreadCount(std::int32_t threads) {
    ORVA_ASSERT(threads >= 0, "threads >= 0");
    ORVA_ASSERT(fData->fpIOThread == nullptr && fData->fpSeveral == nullptr, "fData->fpIOThread == 0");
    fData->fThreadCount = static_cast<std::uint32_t>(threads);
}

void zcmpsFilestr::setBlockCache(std::int32_t blocks) {
    ORVA_ASSERT(blocks >= 0, "blocks >= 0");
    if (!bIsWriting) fData->forgetBlock();  // it may stand in the old cache
    fData->fCache.resize(static_cast<std::uint32_t>(blocks));
}

void zcmpsFilestr::setDurable(bool durable) {
    fData->bDurable = durable;
}

void zcmpsFilestr::setSafeAppend(bool safe) {
    fData->bSafeAppend = safe;
}

std::int32_t zcmpsFilestr::Seek(std::int64_t offset, SeekDirection direction) {
    ORVA_ASSERT(direction != SeekFromEnd, "0 && \"seek from end with zcmpsFilestr::Seek\"");
    std::int64_t target = offset;
    if (direction == SeekFromCurrent && __builtin_add_overflow(fFilePos, offset, &target)) {
        using limits = std::numeric_limits<std::int64_t>;
        target = offset < 0 ? limits::min() : limits::max();
    }
    fFilePos = target;
    return 0;
}

std::int64_t zcmpsFilestr::Tell() const {
    return fFilePos;
}

std::int32_t zcmpsFilestr::Close() {
    if (!inOwnProcess()) return 0;
    if (bIsWriting) return closeWriter();
    fData->endWorker(false);
    return 1;
}

std::int32_t zcmpsFilestr::closeWriter() {
    if (fData->bClosed) return fData->bFinished ? 1 : 0;
    try {
        finish();
    } catch (...) {
        fData->bClosed = true;
        fData->endWorker(true);
        fData->failWriting();
    }
    return 1;
}

void zcmpsFilestr::abandon() {
    if (!inOwnProcess() || fData->bClosed) return;
    // What a thread of an append fails with now has been answered by putting the old rows back; that must be heard.
    const bool untoldAppend = fData->pTail != nullptr && !fData->bToldFailure;
    fData->endWorker(bIsWriting);
    fData->bClosed = bIsWriting;
    if (untoldAppend) fData->throwFailure();
    fData->putBackAppend();
}

// The heading goes last: it is what makes the file a finished one.
void zcmpsFilestr::finish() {
    Flush();
    fData->bClosed = true;
    fData->endWorker(true);
    fData->throwFailure();
    const bool safe = fData->pTail != nullptr && fData->pTail->isSafe();
    commit();
    if (safe) fData->commitSafeAppend();
    try {
        fData->pRealFile.Close();
    } catch (const FileError& error) {
        if (safe) throw error.withOutcome("the append itself is complete");
        throw;
    }
    fData->pTail.reset();
    fData->bFinished = true;
    reopenForReading();
}

void zcmpsFilestr::commit() {
    Data& d = *fData;
    const bool durable = d.bDurable || (d.pTail != nullptr && d.pTail->isSafe());
    d.endFormerLife();
    compressionHeading heading{};
    writeIndex(heading);
    if (durable) d.pRealFile.Sync();
    orva::writeAll(d.pRealFile, &heading, sizeof heading, d.fRow0Pos);
    if (durable) {
        d.pRealFile.Sync();
        orva::syncName(d.pRealFile.GetNameStr().GetGeneric());
    }
}

void zcmpsFilestr::writeIndex(compressionHeading& heading) {
    std::uint32_t stLength = 0;
    const unsigned char* bytes = fpPosInfo->serialize(stLength);
    ORVA_ASSERT(stLength != 0, "stLength!=0");
    ORVA_ASSERT(fData->pRealFile.IsOpen(), "fData->pRealFile.IsOpen() == true");
    ORVA_ASSERT(fData->fpIOThread == nullptr && fData->fpSeveral == nullptr, "fData->fpIOThread == 0");
    heading._caseStartPos = fData->fRow0Pos;
    heading._indexPos = std::max(fData->fTransferEnd, fpPosInfo->writtenEnd(fData->fCompressedPos));
    heading._size = stLength;
    orva::writeAll(fData->pRealFile, bytes, stLength, heading._indexPos);
}

void zcmpsFilestr::reopenForReading() {
    const ExtNameStr password;
    if (ORVA_FileStream::Open(GetNameStr(), password, "rb") == 0) {
        throwCannotReopen(GetFile(), "ORVA_FileStream::Open(GetNameStr(), password, \"rb\")", __LINE__);
    }
}

// A told worker keeps the stream to what it was made for; so do several threads that write. Those that read only end.
void zcmpsFilestr::refuseWithWorker() const {
    ORVA_ASSERT(fData->fpIOThread == nullptr && !(bIsWriting && fData->fpSeveral != nullptr), "fData->fpIOThread == 0");
}

// Blocks and heading stand at any offset, the cipher's data only at multiples of 16.
void zcmpsFilestr::refuseEncrypted(long code) {
    if (!fData->pRealFile.IsEncrypted()) return;
    throw FileError(ENOTSUP, "datasrc.err", code, Name())
        .withOutcome("compressed rows cannot stand in an enciphered file");
}

// The descriptor that the dictionary part was written or read through is closed first, so a stream that shares the
// file sees the new one too.
void zcmpsFilestr::reopenForWriting(const char* expression, std::int32_t line) {
    ORVA_FileStream::Close();
    if (!fData->pRealFile.Open(GetNameStr(), "r+b")) throwCannotReopen(fData->pRealFile, expression, line);
}

void zcmpsFilestr::Data::clearBuffer() {
    availBuffSize = kBlockSize;
    fpCurrent = pBlock = fBuffer;
}

void zcmpsFilestr::Data::endWorker(bool writing) {
    if (!writing) forgetBlock();  // it may stand in the worker's memory
    for (std::unique_ptr<PreIOThreadBase>* held : {&fpIOThread, &fpSeveral}) {
        const std::unique_ptr<PreIOThreadBase> worker = std::move(*held);
        if (worker == nullptr) continue;
        if (writing) worker->putBlock(nullptr, 0, fpos);
        worker->stopThreads();
        worker->destroyThreads();
        keepFailure(worker->failure());
    }
}

// What a failed append has overwritten is put back before anybody hears of it, once no thread writes any more.
void zcmpsFilestr::Data::keepFailure(const std::exception_ptr& failure) {
    if (fFailure != nullptr || failure == nullptr) return;
    fFailure = failure;
    if (pTail == nullptr || fProcess != platform::processId()) return;
    endWorker(true);
    fFailure = undoAppend(failure);
}

void zcmpsFilestr::Data::failWriting() {
    keepFailure(std::current_exception());
    throwFailure();
}

void zcmpsFilestr::Data::throwFailure() {
    if (fFailure == nullptr) return;
    bToldFailure = true;
    std::rethrow_exception(fFailure);
}
