// storedBytes: what headings, indexes and blocks are read from where that is no ORVA_File. bytesFrom: either of the
// two, so that whoever reads and checks them has one road for both.
//
// Owner:   bytesFrom owns nothing; what it stands for outlives it.
// Threads: as ORVA_File: several threads may read at once.
// Failure: FileError of an ORVA_File, also of one that somebody has closed: it is no file that ends. What storedBytes
//          throws passes.
#pragma once

#include <orva/file.h>

#include <cstdint>
#include <string>

namespace orva {

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
