// Rows of a few blocks, for verbs that look here and there: each block is inflated as a whole when one of its rows is
// asked for, and the last two are kept, so that what lies across a border costs no block twice.
//
// Units:   offsets in bytes from the first byte of rows.
// Owner:   two blocks of memory, and the part with its file.
// Failure: FileError (1003); DamagedFileError for a block that is not what its record says.
#pragma once

#include <orva/orva.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

// The number of the block that holds the byte at `offset`, which is one of the rows.
std::uint32_t blockAt(const orva::finishedPart& part, std::int64_t offset);
// Where block `number` begins; the end of the rows for the number behind the last.
std::int64_t blockBegin(const orva::finishedPart& part, std::uint32_t number);

class blockRows {
public:
    blockRows(const std::string& file, const orva::finishedPart& part) : fFile(file), fPart(part) {}

    const std::string& file() const { return fFile; }
    const orva::finishedPart& part() const { return fPart; }
    // From the byte at `offset` to the end of its block. Valid until a third block is asked for.
    std::string_view from(std::int64_t offset);
    // The `size` bytes from `offset` on, all of them rows.
    void copy(std::int64_t offset, std::size_t size, void* to);
    // How many blocks were inflated.
    std::int64_t inflated() const { return fInflated; }

private:
    struct slot {
        std::int64_t begin = 0;
        std::int64_t end = 0;  // begin: empty
        std::unique_ptr<unsigned char[]> rows;
    };
    void load(std::int64_t offset);

    const std::string fFile;
    orva::finishedPart fPart;
    slot fCurrent;
    slot fBefore;
    std::int64_t fInflated = 0;
};
