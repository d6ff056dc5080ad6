// Inspects and repairs files with a compressed part, without the program that owns them: finds the part, reads its
// index, verifies its blocks, recovers its rows, rolls back an interrupted append.
//
// Units:   bytes; logical positions begin at the row-0 position.
// Owner:   a finishedPart owns its open file, its index, and two blocks of memory once it verifies blocks.
// Threads: the functions have no state. A finishedPart is used by one thread at a time.
// Failure: FileError from the disk, also if a file cannot be opened (1003, or 1002 for a file that is written to);
//          DamagedFileError for bytes that cannot be right; FileChangedError if heading or index have changed since a
//          finishedPart read them.
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
    std::int64_t row0Pos;  // file offset of the heading
    bool swapped;          // the part has the other byte order
};

// Finds the first heading at or after the file offset `from`: 24 bytes that repeat their own offset and point to an
// index. If there is none, returns the first that points to where an index could have been, so that opening it tells
// what is wrong; else nothing. Reads the file from `from` to the heading. Calls `moved` from time to time with the
// offset that it has reached; an exception from `moved` ends the search.
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
    // The index record of block `number`, which counts from 0 and is below blockCount().
    const filePosRecord& block(std::uint32_t number) const;
    // Bytes of rows.
    std::int64_t dataSize() const;
    // Checks all records against each other, more strictly than reading does: throws unless each is possible and the
    // blocks follow the heading and each other without gaps, in positions and in the file, and none reaches into the
    // index. No other check finds records that were exchanged.
    void verifyIndex();
    // Reads and inflates a block and checks it against its record. Throws if the block is damaged; the others can still
    // be verified then.
    void verifyBlock(std::uint32_t number);
    // The open file, for copying compressed blocks.
    ORVA_LOCAL ORVA_File& file();
    // True if heading or index differ in `now`, which may be this file opened again.
    ORVA_LOCAL bool isChangedIn(ORVA_File& now) const;

private:
    struct ORVA_LOCAL content;
    const std::unique_ptr<content> fContent;
};

struct recoverOptions {
    std::optional<foundPart> part;  // where the compressed part begins, if the caller knows it
    bool onlyCommitted = false;     // leave out blocks that the heading does not count: an interrupted append's
    bool dropLost = false;          // leave out lost rows instead of filling them with zeros
    // Called from time to time with the bytes done; `total` is twice the file's length, since recover goes through it
    // twice. An exception from it ends the work.
    std::function<void(std::int64_t done, std::int64_t total)> tell{};
};

// A range of logical positions whose rows are lost.
struct lostRange {
    std::int64_t begin;
    std::int64_t end;
    std::int64_t place;  // file offset where their block should be
    bool estimated;      // `end` is a guess: no index proves how many rows are lost
    std::string why;
};

struct recoverReport {
    foundPart part{};
    bool hadHeading = false;
    bool hadIndex = false;
    std::uint32_t blocks = 0;        // recovered
    std::int64_t rows = 0;           // bytes of rows recovered
    std::int64_t committedRows = 0;  // bytes of rows that the heading vouches for, lost ones included
    bool lastRewritten = false;      // an append rewrote the last block that heading or index vouch for
    std::vector<lostRange> lost;     // ascending; positions of the damaged file
};

// Writes the rows that can be read from the part in `name` to a new finished file `output`, after a copy of the
// dictionary part. Goes from block to block, and over damage to the next complete block, which an index helps to find.
// Lost rows become zeros, so that positions stay. Never writes to `name`. DamagedFileError if no block can be found;
// FileError from either file, with EINVAL if both are the same. docs/recovery.md tells what cannot be recovered.
ORVA_API recoverReport recover(const std::string& name, const std::string& output, const recoverOptions& options);

enum class rollBackResult : std::uint8_t {
    nothingToDo,    // there is no side file
    rolledBack,     // the file holds the rows that it held before the interrupted append
    sideFileStale,  // the file was intact, with or without the rows of that append; only the side file was removed
    completed,      // all rows of the append were there, and its torn heading was written again
};

// Ends an interrupted safe append (zcmpsFilestr::setSafeAppend) by its side file, durably: undoes the append, or, if
// the file is intact (not yet changed, finished by this append or a later one, or replaced by another file), only
// removes the side file. If only the heading was torn, writes it. Never undoes finished rows. Takes the writer's lock.
// Can be repeated if it is interrupted itself. These errors leave everything unchanged: FileError with EWOULDBLOCK
// while the append or another writer is alive, and with EPERM for a side file that a user who may not write the data
// file may have made; DamagedFileError if the two files do not fit each other, or the side file is none.
ORVA_API rollBackResult rollBack(const std::string& name);

}  // namespace orva
