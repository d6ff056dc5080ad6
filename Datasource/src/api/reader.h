// orva::Reader: reads the rows of a finished file at any offset, from any thread.
//
//   orva::Reader reader("trades.orva");
//   std::vector<std::byte> rows(1 << 20);
//   std::size_t got = reader.read_at(0, rows);
//
// Rows are stored in blocks of up to 4 MiB, each compressed by itself. A read inflates the blocks that it touches: one
// that is read whole goes straight into the caller's memory; of the others the last `cached_blocks` are kept. Format:
// docs/format.md.
//
// Units:   bytes. Offsets count from the first byte of rows, whatever precedes it in the file. Blocks count from 0.
// Owner:   copies share one state: the open file, the index (24 bytes a block) and the cached blocks. The last copy
//          frees it.
// Threads: const operations may run on any thread, also beside refresh(). Assigning to a Reader must not overlap with
//          its use.
// Fork:    a child process can go on reading, whatever the parent's threads were doing.
// Failure: error.h; std::bad_alloc; exceptions of a ByteSource, unchanged. A Reader stays usable after a failure, and
//          damage costs only the rows of its own block.
// Appends: a Reader shows the rows as of its opening or last refresh(), also while rows are added and after another
//          file has taken the name. An append rewrites a short last block; the old block is then read from the side
//          file beside the data (docs/recovery.md). If there is no side file, or the append has ended, reading that
//          block throws FileChangedError, and refresh() shows the new rows.
#pragma once

#include <orva/error.h>
#include <orva/orvaApi.h>

#include <cstddef>
#include <functional>
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
    i64 file_offset = 0, stored = 0;  // where its compressed bytes begin in the file, and their count
};

// A request to read_ranges: the rows from `offset` on go into `to`, and their number of bytes into `got`.
struct ReadRequest {
    i64 offset = 0;
    Bytes to;
    std::size_t got = 0;
};

// Bytes that are not a file of the operating system: an object of a store, a member of an archive, memory. They must
// not change while a Reader reads them. The functions are called from several threads at once.
struct ORVA_API ByteSource {
    ByteSource() = default;
    ByteSource(const ByteSource&) = default;
    ByteSource& operator=(const ByteSource&) = default;
    virtual ~ByteSource();
    virtual i64 size() const = 0;  // bytes, 0 or more
    // Reads from `offset` on into `to` and returns the number of bytes: fewer than `to` takes only at the end.
    virtual std::size_t read_at(i64 offset, Bytes to) const = 0;
};

// Called from time to time on the caller's thread, with the bytes done out of `total`. A search for the heading, if one
// comes before the work, is counted by itself, in bytes of the file. An exception ends the work, and comes out
// unchanged.
using Progress = std::function<void(i64 done, i64 total)>;

struct ReaderOptions {
    std::optional<i64> row0{};  // where heading and rows begin in the file; Reader finds it if empty
    int threads = 1;            // threads of one read, the caller's included; more than 256 count as 256; 0: one a core
    int cached_blocks = 1;      // inflated blocks to keep, up to 4 MiB each: at least one for each thread that reads in
                                // small pieces
    std::string name{};         // name of a source in error messages
    Progress progress{};        // of a search for the heading, in bytes of the file; kept for that of refresh()
};

class partSnapshot;

class ORVA_API Reader {
public:
    // Opens a finished file. The heading stands at `row0` if given; else where the first line of a dictionary part made
    // by Writer or `orva pack` says; else a search finds it, which reads the file up to there. SystemError if the file
    // cannot be opened; DamagedFileError if it is empty, of another kind, or has a damaged index; UnfinishedFileError
    // if its writer has not finished, or an append is at work or was interrupted; UsageError for options below their
    // range, and if two parts fit: `row0` then says which.
    explicit Reader(const Path& path, const ReaderOptions& options = {});
    // The same for any bytes. Opening takes at most three reads of the source, and never a search.
    explicit Reader(std::shared_ptr<const ByteSource> source, const ReaderOptions& options = {});
    Reader(const Reader&) noexcept;  // a move copies too, so that no Reader is ever without its file
    Reader& operator=(const Reader&) noexcept;
    ~Reader();

    // Bytes of rows.
    i64 size() const;
    // Offset of the heading in the file: the length of the dictionary part.
    i64 row0() const;
    // True if the file was written on a machine of the other byte order. Rows are returned as they are stored, so the
    // numbers in them have that order too.
    bool swapped() const;
    // The bytes before the heading, which belong to the program that wrote the file.
    std::vector<std::byte> dictionary() const;
    std::vector<Block> blocks() const;
    // The end of the block that holds `offset`, in time logarithmic in the number of blocks; `offset` itself at or
    // past the end of the rows. UsageError for an offset below 0.
    i64 end_of_block(i64 offset) const;
    // Divides the rows into at most `count` consecutive ranges of about equal length. Each begins with a block as far
    // as records of `record_size` allow, so that hardly any block is inflated for two of them. UsageError for arguments
    // below 1, and if records of that size do not divide the rows.
    std::vector<Range> splits(int count, i64 record_size = 1) const;

    // Reads the rows from `offset` on into `to` and returns the number of bytes: fewer than `to` takes only at the end
    // of the rows, 0 at or past it. A failure leaves `to` undefined. UsageError for an offset below 0.
    std::size_t read_at(i64 offset, Bytes to) const;
    // As read_at for each request, in any order, but inflates each block once for all of them, and sets each `got`. The
    // requests must not share memory. A failure leaves memory and counts undefined, except that the rows before the
    // offset() of a DamagedFileError have been read.
    void read_ranges(std::span<ReadRequest> requests) const;

    // Opens the file or source again: reads that begin afterwards, by this Reader and its copies, see the rows as they
    // are now. Throws as opening does, and then changes nothing.
    void refresh();

private:
    template <class T>
    friend class Rows;
    friend std::shared_ptr<const partSnapshot> partOf(const Reader& reader);
    const Path& path() const noexcept;

    struct ORVA_LOCAL State;
    std::shared_ptr<State> fState;
};

}  // namespace orva
