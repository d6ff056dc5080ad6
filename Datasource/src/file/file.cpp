#include "base/assertion.h"
#include "file/fileCodes.h"

#include <orva/errtext.h>
#include <orva/file.h>
#include <orva/platform.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

template class RefCountPtr<ORVA_File>;

namespace {

constexpr int kShareReadOnly = 0x20;
constexpr int kOwnerReadWrite = 0x180;

bool ModeHasChar(const char* mode, char c) {
    return std::strchr(mode, c) != nullptr;
}

int accessFlags(const char* mode) {
    using namespace platform;
    if (ModeHasChar(mode, '+')) {
        if (ModeHasChar(mode, 'w')) return _O_RDWR | _O_CREAT | _O_TRUNC;
        if (ModeHasChar(mode, 'a')) return _O_RDWR | _O_CREAT | _O_APPEND;
        return _O_RDWR;
    }
    if (ModeHasChar(mode, 'r')) return _O_RDONLY;
    if (ModeHasChar(mode, 'w')) return _O_WRONLY | _O_CREAT | _O_TRUNC;
    if (ModeHasChar(mode, 'a')) return _O_WRONLY | _O_CREAT | _O_APPEND;
    return _O_RDONLY;
}

int OpenDescriptor(const ExtNameStr& name, const char* mode) {
    using namespace platform;
    int flags = accessFlags(mode);
    flags |= ModeHasChar(mode, 't') ? _O_TEXT : _O_BINARY;
    flags |= _O_RANDOM;
    if (ModeHasChar(mode, 'T')) flags |= _O_SHORT_LIVED;
    if (ModeHasChar(mode, 'D')) flags |= _O_TEMPORARY;
    return name.Sopen(flags, kShareReadOnly, kOwnerReadWrite);
}

}  // namespace

ORVA_File::ORVA_File() : ORVA_File(false) {}

ORVA_File::ORVA_File(const ORVA_File& other) : ORVA_RefCntObject(other), fEncrypted(false), fProcess(0) {
    ORVA_ASSERT(false, "0 && \"can't copy an ORVA_File\"");
}

ORVA_File::~ORVA_File() {
    try {
        if (fProcess == platform::processId()) Close();
    } catch (...) {  // NOLINT(bugprone-empty-catch): nobody is left to tell.
    }
    // A failed close leaves the descriptor, and the writer's lock with it. A forked child closes without the mutex.
    if (IsOpen()) platform::closeAnyway(fDescriptor);
}

bool ORVA_File::Open(const ExtNameStr& name, const char* mode) {
    if (IsOpen()) Close();
    fName = name;
    platform::setErrno(0);
    fDescriptor = OpenDescriptor(fName, mode);
    fOpenErrno = IsOpen() ? 0 : errno;
    if (IsOpen()) {
        const std::int64_t place = platform::_lseeki64(fDescriptor, 0, ModeHasChar(mode, 'a') ? SEEK_END : SEEK_SET);
        fHasPlaces = place != -1 || errno != ESPIPE;
        fPosition = ModeHasChar(mode, 'a') ? place : 0;
    }
    fGood.store(IsOpen(), std::memory_order_relaxed);
    fAtEnd = false;
    // Bytes that still wait belong to the file before, which is gone. The pad stays known: it may be the same file.
    fRemainderSize = 0;
    bHoldsPadded = false;
    fFileEnd = -1;
    fAppends = (accessFlags(mode) & platform::_O_APPEND) != 0;
    fMode = mode;
    return IsOpen();
}

bool ORVA_File::Reads() const {
    return (accessFlags(fMode.c_str()) & platform::_O_WRONLY) == 0;
}

int ORVA_File::Close() {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen()) return 0;
    if (fEncrypted && fEncryptStarted) endCipherRun();
    platform::setErrno(0);
    if (platform::_close(fDescriptor) != 0) fail(kWriteFailed);
    fDescriptor = -1;
    return 1;
}

unsigned int ORVA_File::Read(void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    ORVA_ASSERT(byteSize <= INT_MAX, "byteSize <= INT_MAX");
    return fEncrypted ? readEncrypted(buffer, byteSize, byteOffset) : readPlain(buffer, byteSize, byteOffset);
}

unsigned int ORVA_File::ReadAhead(void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    struct during {
        bool& ahead;
        ~during() { ahead = false; }
    };
    const during transfer{fReadsAhead = true};
    return Read(buffer, byteSize, byteOffset);
}

unsigned int ORVA_File::readPlain(void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen()) return 0;
    beginTransfer(byteOffset, kReadFailed);
    const unsigned int count = readDescriptor(buffer, byteSize, byteOffset);
    fPosition = byteOffset + count;
    fAtEnd = count == 0;
    return count;
}

unsigned int ORVA_File::Write(const void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    ORVA_ASSERT(byteSize <= INT_MAX, "byteSize <= INT_MAX");
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen()) return 0;
    beginTransfer(byteOffset, kWriteFailed);
    if (fEncrypted) return WriteEncrypted(buffer, byteSize, byteOffset);
    const unsigned int count = writeDescriptor(buffer, byteSize, byteOffset);
    fPosition = byteOffset + count;
    return count;
}

std::int64_t ORVA_File::Size() const {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen()) return 0;
    return platform::_lseeki64(fDescriptor, 0, SEEK_END);
}

std::int64_t ORVA_File::nextStored(std::int64_t byteOffset) const {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen()) return byteOffset;
    return platform::nextStored(fDescriptor, byteOffset);
}

void ORVA_File::Sync() {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    platform::setErrno(0);
    if (IsOpen() && platform::syncData(fDescriptor) != 0) fail(kWriteFailed);
}

void ORVA_File::Truncate(std::int64_t length) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    platform::setErrno(0);
    if (IsOpen() && platform::truncateFile(fDescriptor, length) != 0) fail(kWriteFailed);
}

// What has no places takes only what goes on where the last transfer ended.
void ORVA_File::beginTransfer(std::int64_t byteOffset, long code) {
    const bool possible = fHasPlaces || byteOffset == fPosition;
    platform::setErrno(possible ? 0 : ESPIPE);
    if (!possible) fail(code);
}

unsigned int ORVA_File::readDescriptor(void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    const int count = fHasPlaces ? platform::readAt(fDescriptor, buffer, byteSize, byteOffset)
                                 : platform::_read(fDescriptor, buffer, byteSize);
    if (count == -1) fail(kReadFailed);
    return static_cast<unsigned int>(count);
}

// The system places what is appended.
unsigned int ORVA_File::writeDescriptor(const void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    const int count = fHasPlaces && !fAppends ? platform::writeAt(fDescriptor, buffer, byteSize, byteOffset)
                                              : platform::_write(fDescriptor, buffer, byteSize);
    if (count == -1) fail(kWriteFailed);
    return static_cast<unsigned int>(count);
}

void ORVA_File::refuseWrite(int error) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    platform::setErrno(error);
    fail(kWriteFailed);
}

void ORVA_File::fail(long code) {
    if (!fReadsAhead) fGood.store(false, std::memory_order_relaxed);
    ThrowError::StringSys("datasrc.err", code, fName.GetGeneric().c_str());
}
