// Writing a compressed part: from the caller's rows to whole blocks, inline or through the write worker.
#include "base/assertion.h"
#include "file/fileCodes.h"
#include "part/zcmpsFilestrData.h"
#include "part/zcmpsMultiThread.h"
#include "part/zcmpsPreIOThread.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

void zcmpsFilestr::setRow0Pos(std::int64_t pos) {
    ORVA_ASSERT(!fData->bClosed, "fData->bClosed == false");
    refuseWithWorker();
    ORVA_ASSERT(pos > 0 && pos <= std::numeric_limits<std::int64_t>::max() - kHeadingSize, "pos > 0");
    beginWriting([&] {
        refuseEncrypted(kWriteFailed);
        fData->endWorker(false);
        reopenForWriting("fData->pRealFile.Open(GetNameStr(), \"r+b\")", __LINE__);
        auto index = std::make_unique<filePosInfo>(kBlockSize, GetNameStr().GetGeneric());
        const bool byWorker = fData->fMultiThread == 1 && fData->fThreadCount == 0;
        auto worker = byWorker ? fData->makeWriter(pos, *index) : nullptr;
        fpPosInfo = std::move(index);
        fData->fpPosInfo = fpPosInfo.get();
        fData->startWriting(pos);
        fData->bNewPart = true;
        fData->fpIOThread = std::move(worker);
    });
}

std::uint32_t zcmpsFilestr::Write(const void* buffer, std::uint32_t size) {
    ORVA_ASSERT(bIsWriting, "bIsWriting == true");
    fData->throwFailure();
    ORVA_ASSERT(!fData->bClosed, "fData->bClosed == false");
    if (size == 0) return 0;
    if (fFilePos > std::numeric_limits<std::int64_t>::max() - size) fData->pRealFile.refuseWrite(EFBIG);
    WriteRequest req{static_cast<const unsigned char*>(buffer), size, fFilePos};
    try {
        fData->Write(req);
    } catch (...) {
        fData->failWriting();
    }
    return size - req._size;
}

std::int32_t zcmpsFilestr::Flush() const {
    if (!bIsWriting) return 1;
    fData->throwFailure();
    if (fData->bClosed) return 1;  // an abandoned stream's last rows stay out of the file
    try {
        fData->endBlock();
    } catch (...) {
        fData->failWriting();
    }
    return 1;
}

// The 24 bytes of the heading are reserved by nothing but the first block's place behind them.
void zcmpsFilestr::Data::startWriting(std::int64_t pos) {
    fRow0Pos = pos;
    fpos = pos;
    fCompressedPos = pos + kHeadingSize;
    fTransferEnd = 0;
    clearBuffer();
}

void zcmpsFilestr::Data::Write(WriteRequest& req) {
    ORVA_ASSERT(req._pos == fpos + kBlockSize - availBuffSize,
                "(req._pos == fpos + sizeof(fBuffer) - availBuffSize) && "
                "\"Jumped write in zcmpsFilestr::Data::Write\"");
    while (req._size > 0) {
        if (availBuffSize == kBlockSize && req._size >= kBlockSize) {
            // A whole block needs no buffer of ours.
            sendBlock(req._buffer, kBlockSize);
            req.Advance(kBlockSize);
            continue;
        }
        if (availBuffSize == kBlockSize && fThreadCount != 0) fpCurrent = pBlock = severalWriters().lendRows();
        const std::uint32_t count = std::min(availBuffSize, req._size);
        std::memcpy(fpCurrent, req._buffer, count);
        fpCurrent += count;
        availBuffSize -= count;
        req.Advance(count);
        if (availBuffSize == 0) endBlock();
    }
}

void zcmpsFilestr::Data::endBlock() {
    const std::uint32_t size = kBlockSize - availBuffSize;
    if (size == 0) return;
    sendBlock(pBlock, size);
    clearBuffer();
}

// What a side file could bring back is there until the first byte of the new part is written.
void zcmpsFilestr::Data::endFormerLife() {
    if (bNewPart) orva::dropSideFile(pRealFile.GetNameStr().GetGeneric());
    bNewPart = false;
}

void zcmpsFilestr::Data::sendBlock(const unsigned char* block, std::uint32_t size) {
    endFormerLife();
    if (fThreadCount != 0) {
        severalWriters().putBlock(block, size, fpos);
    } else if (fMultiThread != 0) {
        ORVA_ASSERT(fpIOThread != nullptr, "fpIOThread != 0");
        fpIOThread->putBlock(block, size, fpos);
    } else {
        if (!fDeflated) fDeflated = orva::blockBuffer(orva::deflateRoom());
        fCompressedPos =
            orva::writeBlock({pRealFile, *fpPosInfo, fCompressor, fDeflated.get()}, block, size, fpos, fCompressedPos);
    }
    fTransferEnd = 0;
    fpos += size;
}

PreIOThread_Multi_W_C& zcmpsFilestr::Data::severalWriters() {
    if (fpSeveral == nullptr) {
        fpSeveral = startedWorker(std::make_unique<PreIOThread_Multi_W_C>(&pRealFile, fpPosInfo, kBlockSize, fpos,
                                                                          fCompressedPos, fThreadCount),
                                  false);
    }
    return static_cast<PreIOThread_Multi_W_C&>(*fpSeveral);
}

std::unique_ptr<PreIOThreadBase> zcmpsFilestr::Data::makeWriter(std::int64_t pos, filePosInfo& index) {
    return startedWorker(std::make_unique<PreIOThread_W_C>(&pRealFile, &index, kBlockSize, pos, pos + kHeadingSize),
                         false);
}
