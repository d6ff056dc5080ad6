#include "file/fileCipher.h"

#include <orva/platform.h>
#include <orva/workdir.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>

namespace {

std::atomic<bool> gKeepEncrypt{false};

// The bytes that a successful call of the cipher has returned.
using cipherOutput = std::unique_ptr<unsigned char, decltype([](unsigned char* data) { workdir::FreeOutData(data); })>;

// A gap is zeros in the file, and is read as zeros. The chance that data encrypts to such a block is 1 in 2^128.
void clearGaps(unsigned char* plain, int size, const unsigned char* ciphertext) {
    for (int at = 0; at + CIPHER_BLOCK_SIZE <= size; at += CIPHER_BLOCK_SIZE) {
        std::uint64_t halves[2];
        std::memcpy(halves, ciphertext + at, sizeof halves);
        if ((halves[0] | halves[1]) == 0) std::memset(plain + at, 0, sizeof halves);
    }
}

template <class Count>
constexpr Count wholeBlocks(Count count) {
    return count - count % CIPHER_BLOCK_SIZE;
}

}  // namespace

void SetKeepEncrypt(bool keep) {
    gKeepEncrypt = keep;
}

ORVA_File::ORVA_File(bool encrypted)
    : fEncrypted(encrypted && gKeepEncrypt), fCipher(fEncrypted ? new Cipher(*this) : nullptr) {}

void ORVA_File::Cipher::beginFile() {
    fFile.fRemainderSize = 0;
    fFileEnd = -1;
}

// Part of a block at the end was left by a process that died in the middle of a write, and is no data.
unsigned int ORVA_File::Cipher::read(unsigned char* bytes, unsigned int size, std::int64_t byteOffset) {
    unsigned int count = inMemory(byteOffset) ? 0 : wholeBlocks(fFile.readDescriptor(bytes, size, byteOffset));
    const bool padded = byteOffset + count == fTailPos + CIPHER_BLOCK_SIZE && endsPadded(kReadFailed);
    if (count != 0) count = decrypt(bytes, count, padded ? static_cast<unsigned int>(fFile.fPadSize) : 0);
    return overlayWaiting(bytes, size, count, byteOffset);
}

// Decrypts in place; returns the number of plain bytes, without the pad.
unsigned int ORVA_File::Cipher::decrypt(unsigned char* bytes, unsigned int size, unsigned int pad) {
    unsigned char* plain = nullptr;
    int got = 0;
    if (workdir::Decrypt(&plain, &got, bytes, static_cast<int>(size)) != 1) fFile.fail(kReadFailed, errno);
    const cipherOutput owner(plain);
    clearGaps(plain, got, bytes);
    const unsigned int count = static_cast<unsigned int>(got) - pad;
    std::memcpy(bytes, plain, count);
    return count;
}

// A read sees the waiting bytes too: a stream that buffered older ones in their place would write those back over them.
unsigned int ORVA_File::Cipher::overlayWaiting(unsigned char* bytes, unsigned int size, unsigned int count,
                                               std::int64_t byteOffset) {
    const std::int64_t before = fTailPos - byteOffset;
    if (!waits() || before < 0) return count;
    const auto gapEnd = static_cast<unsigned int>(std::min<std::int64_t>(before, size));
    if (gapEnd > count) std::memset(bytes + count, 0, gapEnd - count);
    if (before >= size) return gapEnd;
    std::memcpy(bytes + before, fFile.fRemainder, static_cast<std::size_t>(fFile.fRemainderSize));
    return static_cast<unsigned int>(before + fFile.fRemainderSize);
}

void ORVA_File::Cipher::write(const unsigned char* data, unsigned int size, std::int64_t byteOffset) {
    if (size == 0) return;
    if (!mayWrite(size, byteOffset)) fFile.fail(kWriteFailed, EINVAL);
    orRestoreEnd([&] { writeWhole(data, size, byteOffset); });
}

// Changes the waiting bytes only once the rest of the write is in the file too.
void ORVA_File::Cipher::writeWhole(const unsigned char* data, unsigned int size, std::int64_t byteOffset) {
    if (continuesWaiting(byteOffset)) {
        const auto waiting = static_cast<unsigned int>(fFile.fRemainderSize);
        const unsigned int joined = std::min(size, CIPHER_BLOCK_SIZE - waiting);
        unsigned char block[CIPHER_BLOCK_SIZE];
        std::memcpy(block, fFile.fRemainder, waiting);
        std::memcpy(block + waiting, data, joined);
        if (waiting + joined < CIPHER_BLOCK_SIZE) return keepTail(block, waiting + joined, fTailPos);
        writeBlocks(block, CIPHER_BLOCK_SIZE, fTailPos);
        data += joined;
        size -= joined;
        byteOffset += joined;
    } else {
        dropPartialBlock(byteOffset);
    }
    const unsigned int whole = wholeBlocks(size);
    if (whole > 0) writeBlocks(data, whole, byteOffset);
    keepTail(data + whole, size - whole, byteOffset + whole);
}

bool ORVA_File::Cipher::mayWrite(unsigned int size, std::int64_t byteOffset) {
    // The block in which the data end has to end before the largest offset.
    constexpr std::int64_t last = wholeBlocks(std::numeric_limits<std::int64_t>::max());
    if (byteOffset > last - size) return false;
    const bool continues = continuesWaiting(byteOffset);
    if (fFile.Appends() && (continues ? fTailPos : byteOffset) != fileEnd()) return false;
    if (continues) return true;
    if (byteOffset % CIPHER_BLOCK_SIZE != 0 || (waits() && byteOffset > fTailPos)) return false;
    const int tail = static_cast<int>(size % CIPHER_BLOCK_SIZE);
    return tail == 0 || tail >= dataBytesIn(byteOffset + size - tail);
}

// The number of data bytes in the cipher block at this offset, all of which a write that ends inside it has to cover.
int ORVA_File::Cipher::dataBytesIn(std::int64_t block) {
    if (waits() && block <= fTailPos) return block == fTailPos ? fFile.fRemainderSize : CIPHER_BLOCK_SIZE;
    if (block > fileEnd() - CIPHER_BLOCK_SIZE) return 0;  // part of a block is no data
    return block == fTailPos && endsPadded() ? CIPHER_BLOCK_SIZE - fFile.fPadSize : CIPHER_BLOCK_SIZE;
}

std::int64_t ORVA_File::Cipher::dataEnd() {
    return waits() ? waitingEnd() : wholeBlocks(fileEnd());
}

std::uint32_t ORVA_File::Cipher::completeBlock(unsigned char* block, std::uint32_t count, std::int64_t byteOffset) {
    if (dataBytesIn(byteOffset) <= static_cast<int>(count)) return count;
    if (!inMemory(byteOffset) && !fFile.Rewrites()) fFile.fail(kWriteFailed, EINVAL);
    unsigned char whole[CIPHER_BLOCK_SIZE];
    const std::uint32_t completed = std::max(count, read(whole, sizeof whole, byteOffset));
    std::copy(whole + count, whole + completed, block + count);
    return completed;
}

// Before a write past the end of the data, cuts off part of a block that a failed write has left there. The system
// then fills the gap with zeros, which are read as zeros.
void ORVA_File::Cipher::dropPartialBlock(std::int64_t byteOffset) {
    const std::int64_t end = wholeBlocks(fileEnd());
    if (byteOffset <= end || end == fileEnd()) return;
    if (platform::truncateFile(fFile.fDescriptor, end) != 0) fFile.fail(kWriteFailed, errno);
    fFileEnd = end;
}

// Ends a write: its last bytes wait, and those that it replaces are dropped, as is the pad if the padded block was
// overwritten or is no longer the last one. A write of whole blocks leaves bytes that wait after it alone.
void ORVA_File::Cipher::keepTail(const unsigned char* tail, unsigned int size, std::int64_t place) {
    const bool reachesTail = place + size > fTailPos;
    if (reachesTail || !endsPadded()) fFile.fPadSize = 0;
    if (reachesTail) fFile.fRemainderSize = 0;
    if (size == 0) return;
    std::memcpy(fFile.fRemainder, tail, size);
    fFile.fRemainderSize = static_cast<int>(size);
    fTailPos = place;
}

unsigned int ORVA_File::Cipher::writeBlocks(const unsigned char* data, unsigned int size, std::int64_t byteOffset) {
    unsigned char* ciphertext = nullptr;
    int got = 0;
    if (workdir::Encrypt(&ciphertext, &got, data, static_cast<int>(size)) != 1) fFile.fail(kWriteFailed, errno);
    const cipherOutput owner(ciphertext);
    fFile.fEncryptStarted = true;
    return got > 0 ? writeCiphertext(ciphertext, got, byteOffset) : 0;
}

unsigned int ORVA_File::Cipher::writeCiphertext(const unsigned char* bytes, int size, std::int64_t byteOffset) {
    const std::int64_t end = fileEnd();
    const unsigned int count = fFile.writeDescriptor(bytes, static_cast<unsigned int>(size), byteOffset);
    fFileEnd = std::max(end, byteOffset + count);
    return count;
}

unsigned int ORVA_File::Cipher::finish() {
    const unsigned int padded = waits() ? writePaddedBlock() : 0;
    const unsigned int ended = endRun();
    fFile.fEncryptStarted = false;
    return ended > 0 ? ended : padded;
}

// Pads with zeros: the memory after the waiting bytes still has plaintext of earlier blocks.
unsigned int ORVA_File::Cipher::writePaddedBlock() {
    if (fFile.Appends() && fTailPos != fileEnd()) fFile.fail(kWriteFailed, EINVAL);
    const int pad = CIPHER_BLOCK_SIZE - fFile.fRemainderSize;
    std::memset(fFile.fRemainder + fFile.fRemainderSize, 0, static_cast<std::size_t>(pad));
    unsigned int count = 0;
    orRestoreEnd([&] { count = writeBlocks(fFile.fRemainder, CIPHER_BLOCK_SIZE, fTailPos); });
    fFile.fRemainderSize = 0;
    fFile.fPadSize = pad;
    return count;
}

unsigned int ORVA_File::Cipher::endRun() {
    unsigned char* last = nullptr;
    int size = 0;
    if (workdir::EndEncrypt(&last, &size) != 1) fFile.fail(kWriteFailed, errno);
    if (size <= 0) return 0;  // there is nothing to free either
    const cipherOutput owner(last);
    const unsigned int count = writeCiphertext(last, size, fileEnd());
    fFile.fPosition += count;
    return count;
}

// The length of the file. Asks the system once, and fails with `code` if it cannot tell; from then on the writes of
// this object keep it, since nobody else writes the file. 0 for a pipe, which has nothing that a write could damage.
std::int64_t ORVA_File::Cipher::fileEnd(long code) {
    if (fFileEnd >= 0 || !fFile.fSeekable) return std::max<std::int64_t>(fFileEnd, 0);
    fFileEnd = fFile.Size();
    if (fFileEnd == -1) fFile.fail(code, errno);
    return fFileEnd;
}
