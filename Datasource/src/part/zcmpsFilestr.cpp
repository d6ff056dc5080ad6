// The life of a compressed stream: which call is allowed when, and what a failure leads to. partWriter and partReader
// do the work.
#include "base/assertion.h"
#include "base/fileError.h"
#include "part/partReader.h"
#include "part/partWriter.h"

#include <orva/zcmpsFilestr.h>

#include <cerrno>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

constexpr std::int32_t kCannotReopen = 1201;

[[noreturn]] void throwCannotReopen(const ORVA_File& file, const char* expression, std::int32_t line) {
    throw FileReopenError(file.OpenErrno(), file.GetNameStr().GetGeneric(),
                          SystemFileException(kCannotReopen, expression, "Datasource/src/zcmpsFilestr", line, true));
}

// From `writing` on bIsWriting is true, until readFilePosInfo.
enum class state : std::uint8_t {
    fresh,      // nothing was opened, or fFailure says why not
    reading,    // fReader reads, unless fFailure says why it no longer can
    writing,    // fWriter writes
    failed,     // the writer, for good, with fFailure, which no Close has thrown yet; the file can still be read
    finished,   // the heading is in the file; fFailure is what failed after that
    abandoned,  // closed without a heading
};

}  // namespace

struct zcmpsFilestr::Data {
    explicit Data(ORVA_File& file) : pRealFile(file) {}

    bool isClosed() const { return fState == state::finished || fState == state::abandoned; }
    void throwFailure() const {
        if (fFailure != nullptr) std::rethrow_exception(fFailure);
    }
    void become(state now) {
        fState = now;
        fFailure = nullptr;
    }
    // In a handler: makes the caught exception the failure of the stream, and throws it.
    [[noreturn]] void fail(state now) {
        fState = now;
        fFailure = std::current_exception();
        fWriter.reset();
        std::rethrow_exception(fFailure);
    }
    // Drops the rows of an unfinished writer.
    void dropWriter() {
        if (const auto writer = std::move(fWriter)) writer->abandon();
    }
    void endReading() {
        if (fReader != nullptr) fReader->endThreads();
    }
    bool hasThreads() const {
        return fWriter != nullptr ? fWriter->hasThreads() : fReader != nullptr && fReader->hasThreads();
    }
    // True for the thread of setMultiThread: setThreadCount cannot change its setting while there are threads.
    bool hasOneThread() const { return hasThreads() && fThreadSettings.threadCount == 0; }
    // Applies a setting that comes late, for which setMultiThread gets no thread any more.
    void applyThreads() {
        if (hasThreads()) return;
        if (fWriter != nullptr) fWriter->setThreads(fThreadSettings);
        if (fReader != nullptr) fReader->setThreads({0, fThreadSettings.threadCount});
    }

    ORVA_File& pRealFile;  // kept alive by the base; gone once Close has reopened the file
    orva::threadSettings fThreadSettings;
    orva::choices fChosen;
    std::uint32_t fCachedBlocks = 0;
    bool bDurable = false;
    bool bSafeAppend = false;

    state fState = state::fresh;
    std::exception_ptr fFailure;
    std::int64_t fRow0Pos = 0;
    std::unique_ptr<orva::partReader> fReader;
    std::unique_ptr<orva::partWriter> fWriter;  // while writing, and only then
};

zcmpsFilestr::zcmpsFilestr(const ORVA_FileStream& source) : ORVA_FileStream(source), fData(new Data(GetFile())) {
    DisableMultiThreadReading();  // the base, which opens the file again, has nothing to read ahead
}

// A failed writer has thrown its failure already.
zcmpsFilestr::~zcmpsFilestr() noexcept(false) {
    try {
        if (fData->fState != state::failed) zcmpsFilestr::Close();
    } catch (...) {
        if (mayThrowNow()) throw;
    }
}

void zcmpsFilestr::setMultiThread(std::int32_t setting) {
    ORVA_ASSERT(!fData->hasOneThread(), "fData->fpIOThread == 0");
    fData->fThreadSettings.multiThread = setting;
    fData->applyThreads();
}

void zcmpsFilestr::setThreadCount(std::int32_t threads) {
    ORVA_ASSERT(threads >= 0, "threads >= 0");
    ORVA_ASSERT(!fData->hasThreads(), "fData->fpIOThread == 0");
    fData->fThreadSettings.threadCount = static_cast<std::uint32_t>(threads);
    fData->applyThreads();
}

// A choice cannot change while the stream writes.
void zcmpsFilestr::requireChoice(const char* what, std::int64_t given, std::int64_t least, std::int64_t most) const {
    if (!bIsWriting && given >= least && given <= most) return;
    const std::string range = std::string(what) + " must be " + std::to_string(least) + " to " + std::to_string(most);
    throw std::invalid_argument(
        range + (bIsWriting ? ", and be set before the stream writes" : ", got " + std::to_string(given)));
}

void zcmpsFilestr::setBlockLength(std::int64_t bytes) {
    requireChoice("the block length", bytes, kShortestBlockLength, kBlockSize);
    fData->fChosen.blockLength = static_cast<std::uint32_t>(bytes);
}

void zcmpsFilestr::setCompressionLevel(std::int32_t level) {
    requireChoice("the compression level", level, zlibCompressBlock::kFastestLevel, bestCompressionLevel());
    fData->fChosen.level = level;
}

std::int32_t zcmpsFilestr::bestCompressionLevel() {
    return zlibCompressBlock::bestLevel();
}

void zcmpsFilestr::setBlockCache(std::int32_t blocks) {
    ORVA_ASSERT(blocks >= 0, "blocks >= 0");
    fData->fCachedBlocks = static_cast<std::uint32_t>(blocks);
    if (fData->fReader != nullptr) fData->fReader->setBlockCache(fData->fCachedBlocks);
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

// Neither the worker of setMultiThread nor several threads that write can change what they do. Several threads that
// read just end.
void zcmpsFilestr::refuseWithWorker() const {
    ORVA_ASSERT(!fData->isClosed(), "fData->bClosed == false");
    ORVA_ASSERT(!(bIsWriting ? fData->hasThreads() : fData->hasOneThread()), "fData->fpIOThread == 0");
}

// Blocks and heading begin at any offset, but the cipher's data only at multiples of 16.
void zcmpsFilestr::refuseEncrypted(long code) {
    if (!fData->pRealFile.IsEncrypted()) return;
    orva::throwFileError(ENOTSUP, code, Name(), "an encrypted file cannot hold compressed rows");
}

// Turns the stream into a writer, which `make` makes over the file, opened again through the same object, so that a
// stream that shares it uses the new descriptor too. If that fails, a stream that was no writer stays none, and Read
// throws the reason; a writer ends with that failure.
template <class Make>
void zcmpsFilestr::beginWriting(const char* expression, std::int32_t line, Make make) {
    refuseWithWorker();
    if (fData->fState == state::failed) fData->throwFailure();
    try {
        fData->dropWriter();
        refuseEncrypted(kWriteFailed);
        fData->endReading();
        ORVA_FileStream::Close();
        if (!fData->pRealFile.Open(GetNameStr(), "r+b")) throwCannotReopen(fData->pRealFile, expression, line);
        fData->fWriter = make();
    } catch (...) {
        fData->fail(bIsWriting ? state::failed : fData->fState);
    }
    fData->fReader.reset();
    fData->become(state::writing);
    bIsWriting = true;
}

void zcmpsFilestr::setRow0Pos(std::int64_t pos) {
    ORVA_ASSERT(pos > 0, "pos > 0");
    beginWriting("fData->pRealFile.Open(GetNameStr(), \"r+b\")", __LINE__, [&] {
        if (pos > kLastRow0Pos) fData->pRealFile.refuseWrite(EFBIG);
        fData->fRow0Pos = pos;
        return std::make_unique<orva::partWriter>(fData->pRealFile, pos, fData->fThreadSettings, fData->fChosen);
    });
}

void zcmpsFilestr::setFileToAppend(std::int64_t endpos, bool swap) {
    beginWriting("fData->pRealFile.Open(GetNameStr(),\"r+b\")", __LINE__, [&] {
        std::optional<std::int64_t> seenEnd;
        if (fData->fReader != nullptr) seenEnd = fData->fReader->end();
        const orva::resumePoint from{swap, endpos, fFilePos, seenEnd, fData->bSafeAppend};
        auto writer = std::make_unique<orva::partWriter>(fData->pRealFile, fData->fRow0Pos,
                                                         orva::threadSettings{0, fData->fThreadSettings.threadCount},
                                                         fData->fChosen, from);
        fData->fThreadSettings.multiThread = 0;
        return writer;
    });
}

void zcmpsFilestr::readFilePosInfo(std::int64_t posofpos, bool swap) {
    refuseWithWorker();
    bIsWriting = false;
    fFilePos = posofpos;
    Data& d = *fData;
    try {
        d.dropWriter();
        refuseEncrypted(kReadFailed);
        d.fReader = std::make_unique<orva::partReader>(d.pRealFile, posofpos, swap, d.fThreadSettings, d.fCachedBlocks);
        d.fRow0Pos = posofpos;
        if (d.fState != state::failed) d.become(state::reading);
    } catch (...) {
        d.fReader.reset();
        d.fail(d.fState == state::failed ? state::failed : state::fresh);
    }
}

std::uint32_t zcmpsFilestr::Read(void* buffer, std::uint32_t size) {
    ORVA_ASSERT(!bIsWriting, "bIsWriting == false");
    if (size == 0) return 0;
    const bool readsAfterFailedWriter = fData->fState == state::failed && fData->fReader != nullptr;
    if (!readsAfterFailedWriter) fData->throwFailure();
    ORVA_ASSERT(fData->fReader != nullptr, "pInfoBuffer != 0");
    return static_cast<std::uint32_t>(fData->fReader->read(fFilePos, static_cast<unsigned char*>(buffer), size));
}

std::uint32_t zcmpsFilestr::Write(const void* buffer, std::uint32_t size) {
    ORVA_ASSERT(bIsWriting, "bIsWriting == true");
    fData->throwFailure();
    ORVA_ASSERT(!fData->isClosed(), "fData->bClosed == false");
    if (size == 0) return 0;
    if (fFilePos > std::numeric_limits<std::int64_t>::max() - size) fData->pRealFile.refuseWrite(EFBIG);
    ORVA_ASSERT(fFilePos == fData->fWriter->end(),
                "(req._pos == fpos + sizeof(fBuffer) - availBuffSize) && "
                "\"Jumped write in zcmpsFilestr::Data::Write\"");
    try {
        fData->fWriter->write(static_cast<const unsigned char*>(buffer), size);
    } catch (...) {
        fFilePos = fData->fWriter->end();
        fData->fail(state::failed);
    }
    fFilePos += size;
    return size;
}

// Leaves a closed stream as it is.
std::int32_t zcmpsFilestr::Flush() const {
    if (!bIsWriting) return 1;
    fData->throwFailure();
    if (fData->isClosed()) return 1;
    try {
        fData->fWriter->flush();
    } catch (...) {
        fData->fail(state::failed);
    }
    return 1;
}

std::int32_t zcmpsFilestr::Close() {
    if (!inOwnProcess()) return 0;
    fData->endReading();
    if (!bIsWriting) return 1;
    if (fData->fState == state::writing) finish();
    if (fData->fState == state::failed) {
        fData->fState = state::abandoned;
        fData->throwFailure();
    }
    return fData->fState == state::finished ? 1 : 0;
}

void zcmpsFilestr::finish() {
    try {
        Flush();
        fData->fWriter->finish(fData->bDurable);
        const ExtNameStr password;
        if (ORVA_FileStream::Open(GetNameStr(), password, "rb") == 0)
            throwCannotReopen(GetFile(), "ORVA_FileStream::Open(GetNameStr(), password, \"rb\")", __LINE__);
        fData->fWriter.reset();
        fData->become(state::finished);
    } catch (...) {
        const bool isFinished = fData->fWriter != nullptr && fData->fWriter->isFinished();
        fData->fail(isFinished ? state::finished : state::abandoned);
    }
}

void zcmpsFilestr::abandon() {
    if (!inOwnProcess() || fData->isClosed()) return;
    fData->endReading();
    if (bIsWriting) fData->fState = state::abandoned;
    fData->dropWriter();
}
