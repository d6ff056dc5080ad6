#include "base/assertion.h"
#include "stream/multiThreadForFilestr.h"

#include <orva/filestr.h>
#include <orva/platform.h>

#include <algorithm>
#include <exception>

ORVA_StrBaseIO::ORVA_StrBaseIO() = default;
ORVA_StrBaseIO::ORVA_StrBaseIO(const ORVA_StrBaseIO&) = default;
ORVA_StrBaseIO& ORVA_StrBaseIO::operator=(const ORVA_StrBaseIO&) = default;
ORVA_StrBaseIO::~ORVA_StrBaseIO() noexcept(false) = default;

ORVA_FileStream::ORVA_FileStream() : ORVA_FileStream(false) {}

ORVA_FileStream::ORVA_FileStream(bool encrypted) : fData(new Data(encrypted)), fUncaught(std::uncaught_exceptions()) {}

ORVA_FileStream::ORVA_FileStream(const char* name, const char* mode) : ORVA_FileStream(name, mode, false) {}

ORVA_FileStream::ORVA_FileStream(const char* name, const char* mode, bool encrypted) : ORVA_FileStream(encrypted) {
    ORVA_FileStream::Open(name, "", mode);
}

ORVA_FileStream::ORVA_FileStream(const ORVA_FileStream& source)
    : ORVA_StrBaseIO(source),
      fData(new Data(source.fData->bEncrypted)),
      fMultiThreadReading(source.fMultiThreadReading),
      fPreReading(source.fPreReading),
      fUncaught(std::uncaught_exceptions()) {
    fData->pRealFile = source.fData->pRealFile;
    fData->fpIOThread = source.fData->fpIOThread;
    source.Close();
}

ORVA_FileStream::~ORVA_FileStream() noexcept(false) {
    try {
        ORVA_FileStream::Close();
    } catch (...) {
        if (mayThrowNow()) throw;
    }
}

bool ORVA_FileStream::mayThrowNow() const {
    return std::uncaught_exceptions() <= fUncaught;
}

void ORVA_FileStream::Clear() {
    GetFile().Clear();
}

std::int32_t ORVA_FileStream::Good() {
    return GetFile().Good() ? 1 : 0;
}

std::int64_t ORVA_FileStream::Tell() const {
    return fStreamPos;
}

std::int32_t ORVA_FileStream::EndOfFile() {
    return fData->bEndOfFile ? 1 : 0;
}

std::int32_t ORVA_FileStream::Seek(std::int64_t offset, SeekDirection direction) {
    if (!DataReady()) return -1;
    std::int64_t base = 0;
    if (direction == SeekFromCurrent) base = fStreamPos;
    if (direction == SeekFromEnd) {
        fData->fIOPos = fData->pRealFile->Size();
        if (fData->fIOPos < 0) return -1;
        base = std::max(fData->fIOPos, fData->pRealFile->dataEnd());
        if (fData->holdsAppended()) {
            base += fData->fDirtyEnd - fData->fDirtyBegin;
        } else if (fData->bDirty) {
            base = std::max(base, fData->fpos + fData->buffered());
        }
    }
    std::int64_t target = 0;
    if (__builtin_add_overflow(base, offset, &target) || target < 0) return -1;
    fStreamPos = target;
    fData->bEndOfFile = false;
    return 0;
}

std::int32_t ORVA_FileStream::Open(const ExtNameStr& name, const ExtNameStr&, const char* mode) {
    // `name` may belong to the old file, which is released below.
    const ExtNameStr copy(name);  // NOLINT(performance-unnecessary-copy-initialization)
    RefCountPtr<ORVA_File> file(new ORVA_File(fData->bEncrypted));
    ORVA_FileStream::Close();
    fData->dropBuffer();
    fData->fpIOThread = nullptr;
    fData->pRealFile = file;
    fMaker = {};  // what a forked child opens is its own
    const bool opened = file->Open(copy, mode);
    fData->fIOPos = file->Tell();
    fStreamPos = fData->fIOPos;
    try {
        if (fMultiThreadReading > 0) EnableMultiThreadReading();
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): the file is read without the thread
    }
    return opened ? 1 : 0;
}

std::int32_t ORVA_FileStream::Open(const char* name, const char* password, const char* mode) {
    ExtNameStr fileName;
    ExtNameStr passwordName;
    fileName.SetGeneric(name);
    passwordName.SetU8(password);
    return Open(fileName, passwordName, mode);
}

std::int32_t ORVA_FileStream::Open(const ExtNameStr& name, const char* mode) {
    return Open(name, ExtNameStr(), mode);
}

std::int32_t ORVA_FileStream::Open(const char* name, const char* mode) {
    return Open(name, "", mode);
}

void ORVA_FileStream::ClearAndReset() {
    Seek(0, SeekFromStart);
    fData->fIOPos = 0;
    fStreamPos = 0;
    fData->dropBuffer();
}

const ExtNameStr& ORVA_FileStream::GetNameStr() const {
    static const ExtNameStr empty;
    return fData->pRealFile.IsValid() != 0 ? fData->pRealFile->GetNameStr() : empty;
}

const char* ORVA_FileStream::Name() const {
    return fData->pRealFile.IsValid() != 0 ? fData->pRealFile->GetNameStr().GetGeneric().c_str() : nullptr;
}

std::uint32_t ORVA_FileStream::Footprint() const {
    return kBlockSize + 40;
}

std::int32_t ORVA_FileStream::Close() const {
    if (!inOwnProcess() || !DataReady()) return 0;
    if (fData->bDirty) Flush();
    fData->pRealFile->FinishEncryption();
    return 1;
}

std::int32_t ORVA_FileStream::Close() {
    return static_cast<const ORVA_FileStream*>(this)->ORVA_FileStream::Close();
}

std::int32_t ORVA_FileStream::Flush() const {
    fData->Flush();
    return 1;
}

bool ORVA_FileStream::DataReady() const {
    return fData->pRealFile.IsValid() != 0 && fData->pRealFile->IsOpen();
}

ORVA_File& ORVA_FileStream::GetFile() {
    ORVA_ASSERT(fData->pRealFile.IsValid(), "fData->pRealFile.IsValid()");
    return *fData->pRealFile;
}

bool ORVA_FileStream::IsShared() const {
    return fData->pRealFile.IsValid() != 0 && fData->pRealFile->IsShared() != 0;
}
