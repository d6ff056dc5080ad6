// orva::Writer: writes rows into a new finished file, or appends them to a finished one.
//
//   orva::Writer writer("trades.orva");
//   writer.write_rows(trades);
//   writer.finish();
//
// A new file has a hidden name in the same directory until it is complete. Unfinished rows never appear: an exception
// between constructor and finish() leaves no new file behind, and undoes an append.
//
// Units:   bytes of rows; sizes have 64 bits.
// Owner:   the file, and one to two blocks of 4 MiB; on n threads about 8 n + 8 MiB. Shorter blocks take less.
// Threads: one at a time. The Writer's own threads, if asked for, compress; they end in finish() or with the Writer.
// Fork:    a child writes and removes nothing: flush_rows, finish, and a write that fills a block throw UsageError
//          there, and the destructor only releases memory and descriptors.
// Failure: error.h; std::bad_alloc. A failure is final: a new file is removed, an append is undone (the text says
//          whether it was), and every later call except size() and the destructor throws UsageError.
#pragma once

#include <orva/error.h>
#include <orva/orvaApi.h>
#include <orva/reader.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <ranges>
#include <span>
#include <type_traits>
#include <vector>

namespace orva {

struct WriterOptions {
    std::vector<std::byte> dictionary{};  // bytes before the rows; empty: 512 bytes of text that say where the rows
                                          // begin, so that Reader and `orva` need no row0
    int threads = 1;                      // threads that compress, the caller's included; more than 256 count as 256;
                                          // 0: one a core, or this one alone if no other can be started
    bool durable = true;                  // finish() returns only when the file would survive a loss of power
    bool replace = false;                 // replaces a file of that name, once this one is finished
    int level = 1;                        // of compression, 1 to 12; without the fast engines up to 9
    i64 block = 0;                        // bytes of rows in a full block, 65,536 to 4,190,208; 0: 4,190,208
    std::filesystem::perms permissions{0666};  // of the file, less the umask
};

struct AppendOptions {
    std::optional<i64> row0{};  // as ReaderOptions::row0
    int threads = 1;
    bool durable = true;  // as above; also, until finish(), a side file beside the data can undo a crash at any instant
    int level = 1;
    i64 block = 0;           // 0: as in the file's own blocks
    bool roll_back = false;  // first undoes what an interrupted append has left, or completes it if all its rows are
                             // there
    bool any_order = false;  // accepts a file of the other byte order: rows are bytes as they should stand in it;
                             // heading and index get this machine's order
    Progress progress{};     // as ReaderOptions::progress
};

class ORVA_API Writer {
public:
    // Begins a new file. SystemError: EEXIST if the name is taken and `replace` is off, EWOULDBLOCK if the file to
    // replace is being written to, or another error of the system. UsageError for options outside their ranges.
    explicit Writer(const Path& path, const WriterOptions& options = {});
    // Appends to a finished file. SystemError: ENOENT if there is none, EWOULDBLOCK while another writer is at work;
    // UnfinishedFileError if the file is unfinished or its last append was interrupted; DamagedFileError; UsageError
    // for options outside their ranges and, without `any_order`, for a file of the other byte order. After a failure
    // the file is as it was.
    static Writer append(const Path& path, const AppendOptions& options = {});
    Writer(Writer&& from) noexcept;  // calls of `from` are then UsageError
    Writer& operator=(Writer&&) = delete;
    // Abandons unfinished rows: those since the constructor or the last flush_rows().
    ~Writer();

    void write(std::span<const std::byte> rows) {
        if (!put(rows)) write_on(rows, false);
    }
    // Writes values of a type that is stored as its bytes. UsageError on a file of the other byte order.
    template <std::ranges::contiguous_range R>
    void write_rows(const R& rows) {
        static_assert(std::is_trivially_copyable_v<std::ranges::range_value_t<R>>);
        const auto bytes = std::as_bytes(std::span(std::ranges::data(rows), std::ranges::size(rows)));
        if (!put(bytes)) write_on(bytes, true);
    }

    // Room for the next rows, at least one byte, to be filled in place before the next call. wrote() takes its first
    // `count` bytes; UsageError for more than room() gave.
    Bytes room();
    void wrote(std::size_t count);
    // Writes all bytes of a source. The threads that compress also read, each into the memory of its own block, several
    // at once and in any order, so that rows from a file are never copied. Exceptions of the source come out unchanged,
    // as the Writer's failure; the source is not used once this has returned or thrown. FileChangedError if it gives
    // fewer bytes than its size().
    void write_from(const ByteSource& source);

    // Bytes of rows in the file, including those before an append.
    i64 size() const;
    // Makes a finished file of the rows so far, as finish() does, and continues after them: they stay, whatever
    // follows. If rows came since the last block, this ends a block short, which the next call makes anew: with blocks
    // of 4 MiB a call costs milliseconds beside its syncs, however few the rows, with 64 KiB about a tenth of a
    // millisecond.
    void flush_rows();
    // Returns when the file is complete under its name. A new file has mode `permissions` less the umask; one that
    // replaces another has its mode and group, and its owner if root writes it. A second finish() does nothing.
    // SystemError ESTALE, also from flush_rows(): another file has taken the name of the one appended to, so the added
    // rows are in a file without that name.
    void finish();

private:
    struct ORVA_LOCAL State;
    ORVA_LOCAL explicit Writer(std::unique_ptr<State> state) noexcept;
    bool put(std::span<const std::byte> rows) {
        if (rows.size() >= fLeft) return false;
        fNext = std::copy_n(rows.data(), rows.size(), fNext);
        fLeft -= rows.size();
        return true;
    }
    void write_on(std::span<const std::byte> rows, bool values);
    ORVA_LOCAL State& settled();

    std::unique_ptr<State> fState;
    std::byte* fNext = nullptr;  // where write() copies rows inline, in the current block's memory
    std::size_t fLeft = 0;       // bytes that fit there; 0 for a file of the other byte order
};

}  // namespace orva
