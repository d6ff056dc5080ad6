// The enciphered roads of ORVA_File. A file is the cipher's output and nothing else, block for block at the offsets of
// the plain bytes; up to 15 bytes at the end of the data wait in memory until a block is full or the file is finished.
// They wait only at the end of the data: a write that would leave some in front of data that it doesn't cover is
// refused.
//
// A write takes effect in here only once all of it has reached the file, so that one that fails can be repeated.
//
// Threads: every operation under the lock of the file.
// Failure: as for the file, whose fail throws it.
#pragma once

#include "base/fileError.h"

#include <orva/file.h>
#include <orva/platform.h>

#include <cstdint>

class ORVA_LOCAL ORVA_File::Cipher {
public:
    explicit Cipher(ORVA_File& file) : fFile(file) {}

    // Another file has been opened, or none. Bytes that still wait belong to the one before, which is gone; the pad
    // stays known, since it may be the same file.
    void beginFile();
    // As ORVA_File::Read and Write, of an open file.
    unsigned int read(unsigned char* bytes, unsigned int size, std::int64_t byteOffset);
    void write(const unsigned char* data, unsigned int size, std::int64_t byteOffset);
    // Pads what waits and ends the run; the count of the last write made.
    unsigned int finish();
    // Writes what the cipher gives at the end of a run; the count of it.
    unsigned int endRun();
    // As ORVA_File's.
    std::int64_t dataEnd();
    std::uint32_t completeBlock(unsigned char* block, std::uint32_t count, std::int64_t byteOffset);

private:
    bool waits() const { return fFile.fRemainderSize > 0; }
    std::int64_t waitingEnd() const { return fTailPos + fFile.fRemainderSize; }
    // No byte of the data from there on is in the file.
    bool inMemory(std::int64_t byteOffset) const { return waits() && byteOffset >= fTailPos; }
    bool continuesWaiting(std::int64_t byteOffset) const { return waits() && byteOffset == waitingEnd(); }
    unsigned int decipher(unsigned char* bytes, unsigned int size, unsigned int pad);
    unsigned int overlayWaiting(unsigned char* bytes, unsigned int size, unsigned int count, std::int64_t byteOffset);
    bool mayWrite(unsigned int size, std::int64_t byteOffset);
    void writeWhole(const unsigned char* data, unsigned int size, std::int64_t byteOffset);
    // A failed write may have made the file longer, by a part of a block even: that goes again, so that the end stays
    // where an appending write has to begin and a padded block is the last one.
    template <class Write>
    void orEndAsBefore(Write write) {
        const std::int64_t before = fileEnd();
        try {
            write();
        } catch (...) {
            if (fFile.Size() > before) platform::truncateFile(fFile.fDescriptor, before);
            fFileEnd = -1;
            throw;
        }
    }
    int heldIn(std::int64_t block);
    void closeGap(std::int64_t byteOffset);
    void keepTail(const unsigned char* tail, unsigned int size, std::int64_t place);
    unsigned int writeBlocks(const unsigned char* data, unsigned int size, std::int64_t byteOffset);
    unsigned int writeCiphertext(const unsigned char* bytes, int size, std::int64_t byteOffset);
    unsigned int writePaddedBlock();
    std::int64_t fileEnd(long code = kWriteFailed);
    bool endsPadded(long code = kWriteFailed) {
        return fFile.fPadSize > 0 && !waits() && fileEnd(code) == fTailPos + CIPHER_BLOCK_SIZE;
    }

    ORVA_File& fFile;
    std::int64_t fTailPos = 0;   // where the block belongs whose bytes wait, or that was padded last
    std::int64_t fFileEnd = -1;  // as the file's only writer knows it; -1 until asked for and after a failure
};
