// storedBytes: what headings, indexes and blocks are read from where that is no ORVA_File. bytesFrom: either of the
// two, so that whoever reads and checks them has one road for both.
//
// Owner:   bytesFrom owns nothing; what it stands for outlives it.
// Threads: as ORVA_File: several threads may read at once.
// Failure: FileError of an ORVA_File, also of one that somebody has closed: it is no file that ends. What storedBytes
//          throws passes.
#pragma once

#include <orva/file.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace orva {

// No file takes 2 GiB at a time, and an index can be twice as long.
inline constexpr std::uint64_t kLongestTransfer = std::uint64_t{1} << 30;

// Moves by transfer(bytes, count, place) what a file takes or gives at a time, one piece behind the other. False once a
// piece is short.
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
    // For messages.
    virtual const std::string& name() const = 0;
    virtual std::int64_t length() const = 0;
    // All `size` bytes at `place`, or false: they end before.
    virtual bool read(void* to, std::uint64_t size, std::int64_t place) const = 0;
};

class bytesFrom {
public:
    bytesFrom(ORVA_File& file) : fFile(&file) {}             // NOLINT(google-explicit-constructor): a reference
    bytesFrom(const storedBytes& other) : fOther(&other) {}  // NOLINT(google-explicit-constructor): of another kind

    const std::string& name() const;
    std::int64_t length() const;
    // All of them, or false: the file ends before. `ahead`: nobody has asked for them yet (ORVA_File::ReadAhead).
    bool read(void* to, std::uint64_t size, std::int64_t place, bool ahead = false) const;

private:
    ORVA_File* fFile = nullptr;
    const storedBytes* fOther = nullptr;
};

}  // namespace orva
