// storedBytes: a source of headings, indexes and blocks other than an ORVA_File. bytesFrom is either of the two, so
// that the code that reads and checks them is the same for both.
//
// Owner:   bytesFrom owns nothing; its source must outlive it.
// Threads: as ORVA_File: several threads may read at once.
// Failure: FileError from an ORVA_File, also from one that somebody has closed: that is not an end of the file.
//          Exceptions of storedBytes pass.
#pragma once

#include <orva/file.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <utility>

namespace orva {

// No file transfers 2 GiB at a time, and an index can be twice as long.
inline constexpr std::uint64_t kLongestTransfer = std::uint64_t{1} << 30;

// The size of so many bytes in memory. Throws bad_alloc if the address space, of 32 bits perhaps, is smaller.
inline std::size_t sizeInMemory(std::int64_t bytes) {
    if (!std::in_range<std::ptrdiff_t>(bytes)) throw std::bad_alloc();
    return static_cast<std::size_t>(bytes);
}

// Calls transfer(bytes, count, place) for one piece after the other, each as large as a file transfers at a time. False
// once a piece is short.
template <class Byte, class Transfer>
bool inPieces(Byte* bytes, std::uint64_t size, std::int64_t place, Transfer transfer) {
    while (size != 0) {
        const auto piece = static_cast<std::uint32_t>(std::min(size, kLongestTransfer));
        if (transfer(bytes, piece, place) != piece) return false;
        bytes += piece;
        size -= piece;
        place += piece;
    }
    return true;
}

class storedBytes {
public:
    virtual ~storedBytes() = default;
    // The name for messages.
    virtual const std::string& name() const = 0;
    virtual std::int64_t length() const = 0;
    // Reads all `size` bytes at `place`; false if the bytes end before.
    virtual bool read(void* to, std::uint64_t size, std::int64_t place) const = 0;
};

class bytesFrom {
public:
    // `ahead`: nobody has asked for the bytes yet, so they are read by ORVA_File::ReadAhead.
    bytesFrom(ORVA_File& file, bool ahead = false)  // NOLINT(google-explicit-constructor): acts as a reference
        : fFile(&file), bAhead(ahead) {}
    bytesFrom(const storedBytes& other) : fOther(&other) {}  // NOLINT(google-explicit-constructor): likewise

    const std::string& name() const;
    // Throws if ORVA_File::Size returns -1.
    std::int64_t length() const;
    bool read(void* to, std::uint64_t size, std::int64_t place) const;

private:
    ORVA_File* fFile = nullptr;
    bool bAhead = false;
    const storedBytes* fOther = nullptr;
};

}  // namespace orva
