// Looking into files with a compressed part without being their host: find the part, read its index, verify its blocks.
//
// Units:   bytes; logical positions begin at the row-0 position.
// Owner:   a finishedPart owns its open file, its index, and two blocks of memory once it verifies blocks.
// Threads: findPart has no state. A finishedPart is used by one thread at a time.
// Failure: FileError from the disk, also when a file cannot be opened (1003; 1002 for what is written to);
//          DamagedFileError for bytes that cannot be true, FileChangedError where heading or index have been written
//          since a finishedPart read them.
#pragma once

#include <orva/compressedLayout.h>
#include <orva/orvaApi.h>
#include <orva/sideFile.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class ORVA_File;

namespace orva {

struct foundPart {
    std::int64_t row0Pos;  // where the heading stands
    bool swapped;          // it has the other byte order
};

// The first heading in the file: 24 bytes that repeat their own offset and point to an index. Without one, the first
// that points to where an index could have stood, so that opening it tells what is wrong; else nothing. Looks from the
// file offset `from` on, and reads the file from there to the heading. Calls `moved` from time to time with the place
// that it has come to; what that throws ends the search.
ORVA_API std::optional<foundPart> findPart(
    const std::string& name, std::int64_t from = 1,
    const std::function<void(std::int64_t)>& moved = [](std::int64_t) {});

class ORVA_API finishedPart {
public:
    finishedPart(const std::string& name, foundPart part);
    finishedPart(const finishedPart&) = delete;
    finishedPart& operator=(const finishedPart&) = delete;
    ~finishedPart();

    const compressionHeading& heading() const;
    std::uint32_t blockCount() const;
    // `number` counts from 0 and is below blockCount().
    const filePosRecord& block(std::uint32_t number) const;
    // Bytes of rows.
    std::int64_t dataSize() const;
    // Holds all records against each other, beyond what reading needs: throws unless every one can be true and the
    // blocks follow each other without gaps, in positions and in the file, from the heading to the index. Records that
    // were exchanged show nowhere else.
    void verifyIndex();
    // Reads and inflates a block and holds it against its record. Throws what is wrong with it; the others can still be
    // verified then.
    void verifyBlock(std::uint32_t number);
    // For what copies blocks as they stand in it.
    ORVA_LOCAL ORVA_File& file();
    // Heading or index are others in `now`, which may be this file opened again.
    ORVA_LOCAL bool isChangedIn(ORVA_File& now) const;

private:
    struct ORVA_LOCAL content;
    const std::unique_ptr<content> fContent;
};

struct recoverOptions {
    std::optional<foundPart> part;  // where the compressed part begins, if the caller knows it
    bool onlyCommitted = false;     // nothing that an interrupted append has added behind the old index
    bool dropLost = false;          // close the gaps instead of filling them with zeros
    // Called now and then with what is done of `total`: the file is gone through twice. What it throws ends the work.
    std::function<void(std::int64_t done, std::int64_t total)> tell{};
};

// A range of logical positions whose rows are lost.
struct lostRange {
    std::int64_t begin;
    std::int64_t end;
    std::int64_t place;  // file offset where they should have stood
    bool estimated;      // no index tells how many rows stood there: taken as whole blocks
    std::string why;
};

struct recoverReport {
    foundPart part{};
    bool hadHeading = false;
    bool hadIndex = false;
    std::uint32_t blocks = 0;        // recovered
    std::int64_t rows = 0;           // bytes of rows recovered
    std::int64_t committedRows = 0;  // bytes of rows, lost ones included, that heading or index vouch for
    bool lastRewritten = false;      // the last block that the heading vouches for was rewritten by an append
    std::vector<lostRange> lost;     // ascending; positions of the damaged file
};

// Writes what can be read of the part in `name` into a new finished file `output`, behind a copy of the dictionary
// part. Goes by the index where there is one, else from block to block, stepping over what is damaged to the next
// complete block. Lost rows become zeros, so that positions stay. Never writes to `name`. DamagedFileError when not one
// block can be found; FileError from either file. docs/recovery.md tells what can and cannot come back.
ORVA_API recoverReport recover(const std::string& name, const std::string& output, const recoverOptions& options);

enum class rollBackResult : std::uint8_t {
    nothingToDo,    // there is no side file
    rolledBack,     // the file holds the rows that it held before the interrupted append
    sideFileStale,  // the file is whole as it stands, with or without that append's rows; its side file is gone
    completed,      // all rows of the append were there; its heading is in place now
};

// Ends an interrupted safe append (zcmpsFilestr::setSafeAppend) by its side file, durably: undoes it, or where the file
// is whole, by this append, a later one or as another file, only lets the side file go. Finished rows are never undone.
// Takes the writer's lock: FileError with EWOULDBLOCK when the append, or another writer, is alive. Can be repeated
// after any interruption of its own. Nothing is changed by what it throws: DamagedFileError where file and side file do
// not fit each other, or the side file is none; FileError with EPERM for a side file that somebody may have made who
// may not write the data.
ORVA_API rollBackResult rollBack(const std::string& name);

}  // namespace orva
