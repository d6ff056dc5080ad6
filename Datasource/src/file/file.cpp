#include "base/assertion.h"
#include "base/fileError.h"
#include "file/fileCipher.h"
#include "file/namedFile.h"

#include <orva/platform.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <utility>

template class RefCountPtr<ORVA_File>;

namespace {

// The advice for an encrypted write that is refused.
constexpr const char* kWholeBlocks =
    "write whole blocks of 16 bytes at a multiple of 16, or use a mode that can read and write anywhere";

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
    return name.Sopen(flags, _SH_DENYWR, _S_IREAD | _S_IWRITE);
}

}  // namespace

ORVA_File::ORVA_File() : ORVA_File(false) {}

ORVA_File::ORVA_File(const ORVA_File& other) : ORVA_RefCntObject(other), fEncrypted(false) {
    ORVA_ASSERT(false, "0 && \"can't copy an ORVA_File\"");
}

ORVA_File::~ORVA_File() {
    try {
        Close();
    } catch (...) {  // NOLINT(bugprone-empty-catch): nobody is left to tell.
    }
    // A failed Close leaves the descriptor open, with the lock of the writer.
    if (IsOpen()) platform::closeAnyway(fDescriptor, fTemporaryName.c_str());
}

// Allocates first, so that the old file stays open if there is no memory.
bool ORVA_File::Open(const ExtNameStr& name, const char* mode) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    ExtNameStr newName(name);
    std::string newMode(mode);
    // The working directory may be another one when the file closes.
    std::string temporaryName = ModeHasChar(mode, 'D') ? orva::fullName(name.GetGeneric()) : std::string();
    if (IsOpen()) Close();
    std::swap(fName, newName);
    fMode.swap(newMode);
    fTemporaryName.swap(temporaryName);
    fMaker = {};
    errno = 0;
    fDescriptor = OpenDescriptor(fName, fMode.c_str());
    fOpenErrno = IsOpen() ? 0 : errno;
    if (IsOpen()) {
        const bool atEnd = ModeHasChar(fMode.c_str(), 'a');
        const std::int64_t place = platform::_lseeki64(fDescriptor, 0, atEnd ? SEEK_END : SEEK_SET);
        fSeekable = place != -1 || errno != ESPIPE;
        fPosition = atEnd ? std::max<std::int64_t>(place, 0) : 0;
    }
    fGood.store(IsOpen(), std::memory_order_relaxed);
    fAccess = accessFlags(fMode.c_str());
    if (fCipher != nullptr) fCipher->beginFile();
    return IsOpen();
}

bool ORVA_File::isNamed(const std::string& name) const {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    return platform::sameFile(fDescriptor, name.c_str());
}

void ORVA_File::Renamed(const ExtNameStr& name) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    fName = name;
}

// A forked child takes no mutex: a thread of its parent may have held it. Nor does it end its parent's cipher run.
int ORVA_File::Close() {
    if (!fMaker.isHere()) {
        const int inherited = std::exchange(fDescriptor, -1);
        if (inherited != -1) platform::closeInherited(inherited);
        return inherited != -1 ? 1 : 0;
    }
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen()) return 0;
    if (fEncrypted && fEncryptStarted) fCipher->endRun();
    errno = 0;
    if (platform::_close(fDescriptor, fTemporaryName.c_str()) != 0) fail(kWriteFailed, errno);
    fDescriptor = -1;
    return 1;
}

unsigned int ORVA_File::Read(void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    ORVA_ASSERT(byteSize <= INT_MAX, "byteSize <= INT_MAX");
    ORVA_ASSERT(!fEncrypted || (byteOffset % CIPHER_BLOCK_SIZE == 0 && byteSize % CIPHER_BLOCK_SIZE == 0),
                "byteOffset%CIPHER_BLOCK_SIZE == 0 && byteSize%CIPHER_BLOCK_SIZE == 0 && "
                "\"byteOffset and byteSize shoule be multiple of 16.\"");
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen()) return 0;
    beginTransfer(byteOffset, kReadFailed);
    const unsigned int count = fEncrypted ? fCipher->read(static_cast<unsigned char*>(buffer), byteSize, byteOffset)
                                          : readDescriptor(buffer, byteSize, byteOffset);
    fPosition = byteOffset + count;
    return count;
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

unsigned int ORVA_File::Write(const void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    ORVA_ASSERT(byteSize <= INT_MAX, "byteSize <= INT_MAX");
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen()) return 0;
    beginTransfer(byteOffset, kWriteFailed);
    if (fEncrypted) return WriteEncrypted(buffer, byteSize, byteOffset);
    fPosition = byteOffset + writeDescriptor(buffer, byteSize, byteOffset);
    return byteSize;
}

// Takes all bytes: each reaches the file or waits.
unsigned int ORVA_File::WriteEncrypted(const void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    fCipher->write(static_cast<const unsigned char*>(buffer), byteSize, byteOffset);
    fPosition = byteOffset + byteSize;
    return byteSize;
}

unsigned int ORVA_File::FinishEncryption() {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen() || !fEncrypted || (!fEncryptStarted && fRemainderSize == 0)) return 0;
    errno = 0;
    return fCipher->finish();
}

std::int64_t ORVA_File::dataEnd() const {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    return fEncrypted ? fCipher->dataEnd() : 0;
}

std::uint32_t ORVA_File::completeBlock(unsigned char* block, std::uint32_t count, std::int64_t byteOffset) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    return fCipher->completeBlock(block, count, byteOffset);
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
    errno = 0;
    if (IsOpen() && platform::syncData(fDescriptor) != 0) fail(kWriteFailed, errno);
}

void ORVA_File::Truncate(std::int64_t length) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    errno = 0;
    if (IsOpen() && platform::truncateFile(fDescriptor, length) != 0) fail(kWriteFailed, errno);
}

// A pipe or terminal takes only transfers that begin where the last one ended.
void ORVA_File::beginTransfer(std::int64_t byteOffset, long code) {
    if (byteOffset < 0) fail(code, EINVAL);
    if (!fSeekable && byteOffset != fPosition) fail(code, ESPIPE);
    errno = 0;
}

// Cuts the read short at the largest offset, past which the system refuses to read.
unsigned int ORVA_File::readDescriptor(void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    constexpr std::int64_t last = std::numeric_limits<std::int64_t>::max();
    if (byteOffset > last - byteSize) byteSize = static_cast<unsigned int>(last - byteOffset);
    const int count = fSeekable ? platform::readAt(fDescriptor, buffer, byteSize, byteOffset)
                                : platform::_read(fDescriptor, buffer, byteSize);
    if (count == -1) fail(kReadFailed, errno);
    return static_cast<unsigned int>(count);
}

// When appending, the system chooses the place.
unsigned int ORVA_File::writeDescriptor(const void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    const int count = fSeekable && !Appends() ? platform::writeAt(fDescriptor, buffer, byteSize, byteOffset)
                                              : platform::_write(fDescriptor, buffer, byteSize);
    if (count == -1) fail(kWriteFailed, errno);
    return byteSize;
}

void ORVA_File::refuseWrite(int error) {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    fail(kWriteFailed, error);
}

void ORVA_File::fail(long code, int error) {
    if (!fReadsAhead) fGood.store(false, std::memory_order_relaxed);
    if (fEncrypted && code == kWriteFailed && error == EINVAL)
        orva::throwFileError(error, code, fName.GetGeneric(), kWholeBlocks);
    orva::throwFileError(error, code, fName.GetGeneric());
}
