// orva::Reader: the rows of a finished file, by their place, from any thread.
//
//   orva::Reader reader("trades.orva");
//   std::vector<std::byte> rows(1 << 20);
//   std::size_t got = reader.read_at(0, rows);
//
// Rows stand in blocks of up to 4 MiB, each compressed by itself: a read inflates the blocks that it touches, whole
// ones straight into the caller's memory, and keeps the last `cached_blocks` of the others. Format: docs/format.md.
//
// Units:   bytes. Offsets count from the first byte of rows, whatever stands before them in the file; blocks from 0.
// Owner:   copies share one state: file, index (24 bytes a block), cached blocks. It goes with the last copy.
// Threads: const operations from any thread, and refresh() beside them. Assigning to one Reader takes one thread.
// Fork:    a child reads on, whatever the parent's threads were doing.
// Failure: error.h; std::bad_alloc; what a ByteSource throws, unchanged. After a failure everything else can still be
//          read. Damage costs its block alone.
// Appends: a Reader shows the rows of when it was opened or refreshed, also while rows are added and when another file
//          takes the name. An append rewrites the last block where that was short: it then comes from the side file
//          beside the data (docs/recovery.md), and where there is none, or the append has ended, it is
//          FileChangedError, and refresh() shows the new rows.
#pragma once

#include <orva/error.h>
#include <orva/orvaApi.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orva {

struct Range {
    i64 offset = 0, length = 0;
    bool operator==(const Range&) const = default;
};

struct Block {
    Range rows;
    i64 file_offset = 0, stored = 0;  // its compressed bytes in the file
};

// One wish of read_ranges: the rows from `offset` on into `to`; `got` says how many there were.
struct ReadRequest {
    i64 offset = 0;
    Bytes to;
    std::size_t got = 0;
};

// A file that is no file of the system's: an object of a store, a member of an archive, memory. It outlives the Readers
// over it, and its bytes stay as they are. Called from many threads at once.
struct ORVA_API ByteSource {
    ByteSource() = default;
    ByteSource(const ByteSource&) = default;
    ByteSource& operator=(const ByteSource&) = default;
    virtual ~ByteSource();
    virtual i64 size() const = 0;  // 0 or more
    // The bytes that there are from the offset on, as many as fit: fewer only at the end.
    virtual std::size_t read_at(i64 offset, Bytes to) const = 0;
};

struct ReaderOptions {
    std::optional<i64> row0{};  // where heading and rows begin in the file; without it Reader finds it
    int threads = 1;            // that inflate a read of blocks, the caller's counted, above 256 as 256; 0: one a core
    int cached_blocks = 1;      // kept inflated, up to 4 MiB each: at least one a thread that reads in small pieces
    std::string name{};         // what texts of errors call a source
};

class shownPart;

class ORVA_API Reader {
public:
    // Opens a finished file: at `row0`, else where the first line of a dictionary part made by Writer or `orva pack`
    // says, else where a search finds the heading, which reads the file up to there.
    // SystemError if it cannot be opened; DamagedFileError for an empty file, one of another kind or with a damaged
    // index; UnfinishedFileError for one whose writer has not finished or to which an append is at work or was
    // interrupted; UsageError for options below their range, or a file in which two parts fit: `row0` says which.
    explicit Reader(const Path& path, const ReaderOptions& options = {});
    // The same over any bytes. Never searches, and costs at most three reads.
    explicit Reader(std::shared_ptr<const ByteSource> source, const ReaderOptions& options = {});
    Reader(const Reader&) noexcept;  // a move is a copy too, so that no Reader is ever without its file
    Reader& operator=(const Reader&) noexcept;
    ~Reader();

    // Of the rows.
    i64 size() const;
    // Where the heading stands in the file, which is the length of the dictionary part.
    i64 row0() const;
    // Written on a machine of the other byte order. Rows are given as they are stored, so their numbers are too.
    bool swapped() const;
    // What stands before the heading: the writing program's own.
    std::vector<std::byte> dictionary() const;
    std::vector<Block> blocks() const;
    // Where the block ends that holds `offset`, in time that grows by the digits of their count; `offset` itself at or
    // behind the end of the rows. UsageError for an offset below 0.
    i64 end_of_block(i64 offset) const;
    // The rows in `count` ranges or fewer, of about equal length, one behind the other: they begin with a block as far
    // as records of `record_size` allow, so that nearly no block is inflated for two of them. UsageError below 1, and
    // where records of that size do not divide the rows.
    std::vector<Range> splits(int count, i64 record_size = 1) const;

    // The bytes delivered: fewer than `to` takes only where the rows end, 0 at or behind their end. A failure leaves
    // `to` undefined. UsageError for an offset below 0.
    std::size_t read_at(i64 offset, Bytes to) const;
    // As read_at for each request, in any order, but inflates each block once for all of them. The requests may not
    // share memory. Sets their `got`; a failure leaves memory and counts undefined, but for what lies before the
    // offset() of a DamagedFileError: that has been read.
    void read_ranges(std::span<ReadRequest> requests) const;

    // Looks at the name, or the source, again: reads that begin later, by this Reader and its copies, show the rows as
    // they are now. A failure, as for opening, changes nothing.
    void refresh();

private:
    template <class T>
    friend class Rows;
    friend std::shared_ptr<const shownPart> partOf(const Reader& reader);
    const Path& path() const noexcept;

    struct ORVA_LOCAL State;
    std::shared_ptr<State> fState;
};

}  // namespace orva
