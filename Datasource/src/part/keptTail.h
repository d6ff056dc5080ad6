// What an append overwrites, as bytes: put back into the file, and written to and read from the side file.
//
// Units:   file offsets, in bytes. The side file's layout: docs/recovery.md.
// Owner:   a keptTail owns copies of the old bytes: the last block if it is rewritten, the index, the heading.
// Threads: no state.
// Failure: FileError from the disk; DamagedFileError for a side file that is not what it claims to be.
#pragma once

#include <orva/file.h>
#include <orva/sideFile.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orva {

struct keptPiece {
    std::int64_t place;
    std::vector<unsigned char> bytes;
};

struct keptTail {
    std::int64_t row0Pos = 0;
    std::int64_t fileSize = 0;      // of the file before the append
    std::int64_t untouchedEnd = 0;  // the append overwrites nothing before this but the heading
    std::vector<keptPiece> pieces;  // in file order, but the heading last
};

// Adds the `size` bytes at `place`, read from the file.
void keepPiece(keptTail& tail, ORVA_File& file, std::int64_t place, std::uint32_t size);

// Makes the file what it was: its length, the pieces, the heading last.
void restoreTail(ORVA_File& file, const keptTail& tail);

// EEXIST if there is a side file, whether it can be read or not: an append was interrupted, and its roll-back comes
// first.
void refuseSideFile(const std::string& dataName);

// Writes the side file of `file` and makes it durable.
void writeSideFile(ORVA_File& file, const keptTail& tail);

// Removes it, durably. One that is not there is no failure.
void removeSideFile(const std::string& dataName);

enum class sideFileState : std::uint8_t {
    absent,
    unfinished,  // cut short: its append has written nothing yet
    whole,
};

// Reads the side file of `dataName` into `tail`, and holds it against `file`, open on the data: a whole one that
// belongs to another file is damage.
sideFileState readSideFile(const std::string& dataName, ORVA_File& file, keptTail& tail);

}  // namespace orva
