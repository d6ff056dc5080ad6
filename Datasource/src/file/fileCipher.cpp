// The enciphered roads of ORVA_File. A file is the cipher's output and nothing else, block for block at the offsets of
// the plain bytes; up to 15 bytes at the end of the data wait in memory until a block is full or the file is finished.
// They wait only at the end of the data: a write that would leave some in front of data that it doesn't cover is
// refused.
#include "base/assertion.h"
#include "file/fileCodes.h"

#include <orva/file.h>
#include <orva/platform.h>
#include <orva/workdir.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>

namespace {

std::atomic<bool> gKeepEncrypt{false};

// What a call of the cipher gave. A failed call leaves nothing to release.
struct cipherOutput {
    unsigned char* data = nullptr;
    int size = 0;
    bool good = false;

    cipherOutput() = default;
    cipherOutput(const cipherOutput&) = delete;
    cipherOutput& operator=(const cipherOutput&) = delete;
    ~cipherOutput() {
        if (good && data != nullptr) workdir::FreeOutData(data);
    }
};

}  // namespace

void SetKeepEncrypt(bool keep) {
    gKeepEncrypt = keep;
}

ORVA_File::ORVA_File(bool encrypted)
    : fEncrypted(encrypted && gKeepEncrypt),
      fRemainder(new unsigned char[CIPHER_BLOCK_SIZE]),
      fProcess(platform::processId()) {}

bool ORVA_File::continuesWaiting(std::int64_t byteOffset) const {
    return fRemainderSize > 0 && byteOffset == fTailPos + fRemainderSize;
}

// Right behind the data of a padded end that this object has written since it opened the file.
bool ORVA_File::continuesPadded(std::int64_t byteOffset) {
    const bool held = bHoldsPadded && fRemainderSize == 0 && fPadSize > 0 && !fAppends;
    return held && byteOffset == fTailPos + CIPHER_BLOCK_SIZE - fPadSize && fileEnd() == fTailPos + CIPHER_BLOCK_SIZE;
}

// Its bytes wait again, as if it had not been finished.
void ORVA_File::takeUpPadded() {
    fRemainderSize = CIPHER_BLOCK_SIZE - fPadSize;
    fPadSize = 0;
}

std::int64_t ORVA_File::waitingEnd() const {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    return fRemainderSize > 0 ? fTailPos + fRemainderSize : 0;
}

unsigned int ORVA_File::readEncrypted(void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    ORVA_ASSERT(byteOffset % CIPHER_BLOCK_SIZE == 0 && byteSize % CIPHER_BLOCK_SIZE == 0,
                "byteOffset%CIPHER_BLOCK_SIZE == 0 && byteSize%CIPHER_BLOCK_SIZE == 0 && "
                "\"byteOffset and byteSize shoule be multiple of 16.\"");
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen()) return 0;
    platform::setErrno(0);
    const std::int64_t length = Size();
    if (length == -1) fail(kReadFailed);  // Without the length, pad would pass for data.
    auto* const bytes = static_cast<unsigned char*>(buffer);
    unsigned int count = readDescriptor(bytes, byteSize, byteOffset);
    if (count != 0) count = decipher(bytes, count, byteOffset + count == length);
    count = overlayWaiting(bytes, byteSize, count, byteOffset);
    fPosition = byteOffset + count;
    fAtEnd = count == 0;
    return count;
}

// The plain bytes, over the enciphered ones. While bytes wait, the file has no pad, whatever an attempt to finish said.
unsigned int ORVA_File::decipher(unsigned char* bytes, unsigned int size, bool atEnd) {
    cipherOutput plain;
    plain.good = workdir::Decrypt(&plain.data, &plain.size, bytes, static_cast<int>(size)) == 1;
    if (!plain.good) fail(kReadFailed);
    const int pad = atEnd && fRemainderSize == 0 ? fPadSize : 0;
    const auto count = static_cast<unsigned int>(std::max(plain.size - pad, 0));
    std::memcpy(bytes, plain.data, count);
    return atEnd ? count : size;
}

// A read sees what was written before it, also what still waits: a stream that took older bytes for the end of the data
// into its buffer would write them back over the waiting ones.
unsigned int ORVA_File::overlayWaiting(unsigned char* bytes, unsigned int size, unsigned int count,
                                       std::int64_t byteOffset) {
    const std::int64_t before = fTailPos - byteOffset;
    if (fRemainderSize == 0 || before < 0 || before >= size || before > count) return count;
    std::memcpy(bytes + before, fRemainder.get(), static_cast<std::size_t>(fRemainderSize));
    return static_cast<unsigned int>(before + fRemainderSize);
}

unsigned int ORVA_File::WriteEncrypted(const void* buffer, unsigned int byteSize, std::int64_t byteOffset) {
    const auto* data = static_cast<const unsigned char*>(buffer);
    if (byteSize > 0 && continuesPadded(byteOffset)) takeUpPadded();
    const bool continues = continuesWaiting(byteOffset);
    prepareWrite(byteSize, byteOffset);
    const unsigned int joined = continues ? joinWaiting(data, byteSize) : 0;
    if (joined != byteSize) writeBlocksKeepTail(data + joined, byteSize - joined, byteOffset + joined);
    fPosition = byteOffset + byteSize;
    return byteSize;
}

// Refuses the write, or drops what the write makes void: waiting bytes that it covers, and the pad if the padded block
// is overwritten or no longer the last one.
void ORVA_File::prepareWrite(unsigned int byteSize, std::int64_t byteOffset) {
    if (!mayWrite(byteSize, byteOffset)) refuseWrite(EINVAL);
    const bool continues = continuesWaiting(byteOffset);
    const bool padLost = fPadSize > 0 && fRemainderSize == 0 && fileEnd() != fTailPos + CIPHER_BLOCK_SIZE;
    if (byteSize == 0) return;
    const bool reachesTail = byteOffset + byteSize > fTailPos;
    if (reachesTail && !continues) fRemainderSize = 0;
    if (reachesTail || padLost) fPadSize = 0;
}

bool ORVA_File::mayWrite(unsigned int byteSize, std::int64_t byteOffset) {
    if (byteSize == 0) return true;
    if (byteOffset < 0 || byteOffset > std::numeric_limits<std::int64_t>::max() - byteSize) return false;
    const bool continues = continuesWaiting(byteOffset);
    if (fAppends && (continues ? fTailPos : byteOffset) != fileEnd()) return false;
    if (continues) return true;
    if (byteOffset % CIPHER_BLOCK_SIZE != 0 || (fRemainderSize > 0 && byteOffset > fTailPos)) return false;
    const int tail = static_cast<int>(byteSize % CIPHER_BLOCK_SIZE);
    return tail == 0 || tail >= heldIn(byteOffset + byteSize - tail);
}

// How many bytes of data the block at `block` holds, which a write that ends inside it has to cover.
int ORVA_File::heldIn(std::int64_t block) {
    if (fRemainderSize > 0 && block <= fTailPos) return block == fTailPos ? fRemainderSize : CIPHER_BLOCK_SIZE;
    const std::int64_t behind = block + CIPHER_BLOCK_SIZE;
    if (behind > fileEnd()) return 0;  // A block of which a failed write left a part holds nothing.
    const bool padded = block == fTailPos && behind == fileEnd();
    return padded ? CIPHER_BLOCK_SIZE - fPadSize : CIPHER_BLOCK_SIZE;
}

// Asks the system once: from then on this object's own writes tell, since nobody else writes the file. A file that
// can't tell, such as a pipe, has nothing that a write could damage.
std::int64_t ORVA_File::fileEnd() {
    if (fFileEnd >= 0) return fFileEnd;
    const std::int64_t end = platform::_lseeki64(fDescriptor, 0, SEEK_END);
    if (end == -1 && errno != ESPIPE) fail(kWriteFailed);
    platform::setErrno(0);
    fFileEnd = std::max<std::int64_t>(end, 0);
    return fFileEnd;
}

// Fills the waiting block from the front of `data`, and writes it once it is full. The bytes taken.
unsigned int ORVA_File::joinWaiting(const unsigned char* data, unsigned int size) {
    const auto room = static_cast<unsigned int>(CIPHER_BLOCK_SIZE - fRemainderSize);
    if (size < room) {
        std::copy_n(data, size, fRemainder.get() + fRemainderSize);  // `data` may be null with nothing to write
        fRemainderSize += static_cast<int>(size);
        return size;
    }
    unsigned char block[CIPHER_BLOCK_SIZE];  // A failed write leaves the waiting bytes as they are.
    std::memcpy(block, fRemainder.get(), static_cast<std::size_t>(fRemainderSize));
    std::memcpy(block + fRemainderSize, data, room);
    writeBlocks(block, CIPHER_BLOCK_SIZE, fTailPos);
    fRemainderSize = 0;
    return room;
}

// Whole blocks go to the file; what is left waits. A write that is all whole blocks leaves alone what waits behind it.
void ORVA_File::writeBlocksKeepTail(const unsigned char* data, unsigned int size, std::int64_t byteOffset) {
    const unsigned int tail = size % CIPHER_BLOCK_SIZE;
    const unsigned int whole = size - tail;
    if (tail > 0) {
        std::memcpy(fRemainder.get(), data + whole, tail);
        fRemainderSize = static_cast<int>(tail);
        fTailPos = byteOffset + whole;
    }
    if (whole > 0) writeBlocks(data, whole, byteOffset);
}

unsigned int ORVA_File::writeBlocks(const unsigned char* data, unsigned int size, std::int64_t byteOffset) {
    cipherOutput enciphered;
    enciphered.good = workdir::Encrypt(&enciphered.data, &enciphered.size, data, static_cast<int>(size)) == 1;
    if (!enciphered.good) fail(kWriteFailed);
    fEncryptStarted = true;
    return enciphered.size > 0 ? writeCiphertext(enciphered.data, enciphered.size, byteOffset) : 0;
}

unsigned int ORVA_File::writeCiphertext(const unsigned char* bytes, int size, std::int64_t byteOffset) {
    const std::int64_t end = fFileEnd;
    fFileEnd = -1;
    const unsigned int count = writeDescriptor(bytes, static_cast<unsigned int>(size), byteOffset);
    if (end >= 0) fFileEnd = std::max(end, byteOffset + count);
    return count;
}

unsigned int ORVA_File::FinishEncryption() {
    const ktGuard guard(fMutex, ktMutex::Recursive);
    if (!IsOpen() || !fEncrypted) return 0;
    if (!fEncryptStarted && fRemainderSize == 0) return 0;
    platform::setErrno(0);
    const unsigned int padded = fRemainderSize > 0 ? writePaddedBlock() : 0;
    const unsigned int ended = endCipherRun();
    fEncryptStarted = false;
    return ended > 0 ? ended : padded;
}

// The pad is zeros: whatever lay behind the waiting bytes in memory is plaintext of earlier blocks.
unsigned int ORVA_File::writePaddedBlock() {
    if (fAppends && fTailPos != fileEnd()) refuseWrite(EINVAL);
    fPadSize = CIPHER_BLOCK_SIZE - fRemainderSize;
    std::memset(fRemainder.get() + fRemainderSize, 0, static_cast<std::size_t>(fPadSize));
    const unsigned int count = writeBlocks(fRemainder.get(), CIPHER_BLOCK_SIZE, fTailPos);
    fRemainderSize = 0;
    bHoldsPadded = true;
    return count;
}

// What a cipher may still give at the end of its run stands behind the data. The count of it.
unsigned int ORVA_File::endCipherRun() {
    cipherOutput last;
    last.good = workdir::EndEncrypt(&last.data, &last.size) == 1;
    if (!last.good) fail(kWriteFailed);
    if (last.size <= 0) {
        last.data = nullptr;
        return 0;
    }
    const std::int64_t end = fileEnd();
    const unsigned int count = writeCiphertext(last.data, last.size, end);
    fPosition += count;
    return count;
}
