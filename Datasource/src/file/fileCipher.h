// The transfers of an encrypted ORVA_File. The file holds the cipher's output and nothing else, each block at the
// offset of its plain bytes. Up to 15 bytes at the end of the data wait in memory until their block is full or the file
// is finished. Bytes wait nowhere else: a write that would leave some in front of data that it does not cover is
// refused.
//
// A write changes this object only once all of it has reached the file, so a failed write can be repeated.
//
// Threads: every operation runs under the lock of the file.
// Failure: as for the file, whose fail throws it.
#pragma once

#include "base/fileError.h"

#include <orva/file.h>
#include <orva/platform.h>

#include <cstdint>

class ORVA_LOCAL ORVA_File::Cipher {
public:
    explicit Cipher(ORVA_File& file) : fFile(file) {}

    // Another file, or none, has been opened. Drops the waiting bytes, which belong to the file before; keeps the size
    // of the pad, since it may be the same file.
    void beginFile();
    // As ORVA_File::Read and Write on an open file.
    unsigned int read(unsigned char* bytes, unsigned int size, std::int64_t byteOffset);
    void write(const unsigned char* data, unsigned int size, std::int64_t byteOffset);
    // Pads and writes the waiting bytes and ends the run; returns the size of the last write.
    unsigned int finish();
    // Writes what the cipher returns at the end of a run; returns its size.
    unsigned int endRun();
    // As the functions of ORVA_File.
    std::int64_t dataEnd();
    std::uint32_t completeBlock(unsigned char* block, std::uint32_t count, std::int64_t byteOffset);

private:
    bool waits() const { return fFile.fRemainderSize > 0; }
    std::int64_t waitingEnd() const { return fTailPos + fFile.fRemainderSize; }
    // True if no data from `byteOffset` on is in the file.
    bool inMemory(std::int64_t byteOffset) const { return waits() && byteOffset >= fTailPos; }
    bool continuesWaiting(std::int64_t byteOffset) const { return waits() && byteOffset == waitingEnd(); }
    unsigned int decrypt(unsigned char* bytes, unsigned int size, unsigned int pad);
    unsigned int overlayWaiting(unsigned char* bytes, unsigned int size, unsigned int count, std::int64_t byteOffset);
    bool mayWrite(unsigned int size, std::int64_t byteOffset);
    void writeWhole(const unsigned char* data, unsigned int size, std::int64_t byteOffset);
    // Cuts the file back if `write` throws, since a failed write may have made it longer, even by part of a block: the
    // end stays where an appending write has to begin, and a padded block stays the last one.
    template <class Write>
    void orRestoreEnd(Write write) {
        const std::int64_t before = fileEnd();
        try {
            write();
        } catch (...) {
            if (fFile.Size() > before) platform::truncateFile(fFile.fDescriptor, before);
            fFileEnd = -1;
            throw;
        }
    }
    int dataBytesIn(std::int64_t block);
    void dropPartialBlock(std::int64_t byteOffset);
    void keepTail(const unsigned char* tail, unsigned int size, std::int64_t place);
    unsigned int writeBlocks(const unsigned char* data, unsigned int size, std::int64_t byteOffset);
    unsigned int writeCiphertext(const unsigned char* bytes, int size, std::int64_t byteOffset);
    unsigned int writePaddedBlock();
    std::int64_t fileEnd(long code = kWriteFailed);
    bool endsPadded(long code = kWriteFailed) {
        return fFile.fPadSize > 0 && !waits() && fileEnd(code) == fTailPos + CIPHER_BLOCK_SIZE;
    }

    ORVA_File& fFile;
    std::int64_t fTailPos = 0;   // offset of the block whose bytes wait, or that was padded last
    std::int64_t fFileEnd = -1;  // as the only writer of the file knows it; -1 at first and after a failure
};
