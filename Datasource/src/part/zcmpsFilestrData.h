// The state of a compressed stream behind its one pointer, and the steps that work on it alone.
#pragma once

#include "base/blockBuffer.h"
#include "format/blockTransfer.h"
#include "format/filePosInfo.h"
#include "part/blockCache.h"
#include "part/savedTail.h"
#include "worker/preIOThread.h"

#include <orva/blockSize.h>
#include <orva/file.h>
#include <orva/platform.h>
#include <orva/zcmpsFilestr.h>
#include <orva/zlibCompress.h>

#include <cstdint>
#include <exception>
#include <memory>

class PreIOThread_Multi_R_D;
class PreIOThread_Multi_W_C;

struct zcmpsFilestr::Data {
    Data(ORVA_File& file, filePosInfo* index) : pRealFile(file), fpPosInfo(index) {}

    // zcmpsFilestrWrite.cpp
    void Write(WriteRequest& req);
    void endBlock();
    void sendBlock(const unsigned char* block, std::uint32_t size);
    void startWriting(std::int64_t pos);
    void endFormerLife();
    PreIOThread_Multi_W_C& severalWriters();
    std::unique_ptr<PreIOThreadBase> makeWriter(std::int64_t pos, filePosInfo& index);
    // zcmpsFilestrRead.cpp
    void Read(ReadRequest& req);
    bool fetchBlock(std::int64_t pos);
    std::unique_ptr<PreIOThreadBase> makeReader();
    void loadBlock(const filePosRecord& bInfo, unsigned char* dest);
    unsigned char* currentBlock(const filePosRecord& bInfo);
    unsigned char* cachedBlock(const filePosRecord& bInfo);
    PreIOThread_Multi_R_D& severalReaders();
    void readWholeBlocks(ReadRequest& req);
    bool loaded(std::int64_t pos) const;
    void forgetBlock();

    // zcmpsFilestrAppend.cpp
    void resume(std::int64_t endpos, std::int64_t filePos, bool swap, filePosInfo& index);
    void resumeBehind(const filePosRecord& bInfo, std::int64_t endpos, filePosInfo& index);
    void resumeInBlock(const filePosRecord& bInfo, std::uint32_t number, std::int64_t endpos);
    [[noreturn]] void throwRowsEndElsewhere(std::int64_t end, std::int64_t endpos) const;
    // Puts back what a failed append has overwritten. Gives the failure with the outcome added to its text.
    std::exception_ptr undoAppend(const std::exception_ptr& failure);
    void putBackAppend();
    void commitSafeAppend();

    // An empty fBuffer, to be filled.
    void clearBuffer();
    // Ends the worker, if there is one; a writing one by its end request. What it failed with is kept.
    void endWorker(bool writing);

    void keepFailure(const std::exception_ptr& failure);
    // In a handler: keeps what was caught, if it is the first failure, and throws the first.
    void failWriting();
    // Throws the kept failure, if there is one.
    void throwFailure();

    alignas(kBufferAlignment) unsigned char fBuffer[kBlockSize];            // rows of the current block
    alignas(kBufferAlignment) unsigned char fCompressedBuffer[kBlockSize];  // a block on its way in from the file
    std::int64_t fRow0Pos = 0;
    std::int64_t fpos = -1;           // logical position of fBuffer's first byte; -1 while no block is loaded
    std::int64_t fCompressedPos = 0;  // file offset of the next block; moved by the inline road only
    std::int64_t fTransferEnd = 0;    // where the last transfer ended, before a block is written; 0 afterwards
    ORVA_File& pRealFile;             // held by the base's count; gone once Close has reopened the file
    zlibCompressBlock fCompressor;    // the caller's thread
    filePosInfo* fpPosInfo;           // the stream's
    std::unique_ptr<PreIOThreadBase> fpIOThread;  // as fMultiThread tells, unless fThreadCount is not 0
    unsigned char* pBlock = fBuffer;              // the current block's rows: there, or where several threads lend it
    unsigned char* fpCurrent = fBuffer;           // next byte to fill, or to deliver
    std::uint32_t availBuffSize = kBlockSize;  // writing: free bytes; reading: bytes from fpCurrent to the block's end
    std::int32_t fMultiThread = 0;
    orva::blockCache fCache;
    std::uint32_t fThreadCount = 0;
    std::unique_ptr<PreIOThreadBase> fpSeveral;  // made at the first block, if fThreadCount is not 0
    orva::blockBuffer fDeflated;                 // a block on its way out; made at the first one

    bool bNewPart = false;  // nothing of what setRow0Pos began is in the file yet
    bool bDurable = false;
    bool bSafeAppend = false;
    std::unique_ptr<orva::savedTail> pTail;               // of an append that is not through
    const std::int64_t fProcess = platform::processId();  // a forked child leaves its parent's file alone
    // A writer's end. The first failure is final; bToldFailure: a call has thrown it.
    std::exception_ptr fFailure;
    bool bToldFailure = false;
    bool bClosed = false;    // Close or abandon has run
    bool bFinished = false;  // the heading is in the file
    // Why the stream is not open for what the last setRow0Pos, setFileToAppend or readFilePosInfo was to open it for.
    std::exception_ptr fOpenFailure;
};

// Turns the stream into a writer by `steps`. If they fail, a stream that was no writer is none, and Read tells why; a
// writer ends with that failure, and so does all that would make it one again.
template <class Steps>
void zcmpsFilestr::beginWriting(Steps steps) {
    fData->throwFailure();
    try {
        fData->putBackAppend();
        steps();
    } catch (...) {
        if (bIsWriting) {
            fData->failWriting();
        }
        fData->fOpenFailure = std::current_exception();
        throw;
    }
    fData->fOpenFailure = nullptr;
    bIsWriting = true;
}
