// orva::Writer: rows into a new finished file, or behind those of one that is finished.
//
//   orva::Writer writer("trades.orva");
//   writer.write_rows(trades);
//   writer.finish();
//
// The new file stands under a hidden name beside its own until it is complete. What is not finished never appears: an
// exception between constructor and finish() leaves nothing behind, and an append goes back to what it found.
//
// Units:   bytes of rows; sizes have 64 bits.
// Owner:   file and memory: one to two blocks of 4 MiB, on n threads some 8 n + 8 MiB, with shorter blocks less.
// Threads: one at a time. Threads of its own compress where asked; they end in finish() or with the Writer.
// Fork:    a child writes and removes nothing: its flush_rows and finish are UsageError, and a write once a block is
//          full; its destructor lets go.
// Failure: error.h; std::bad_alloc. A failure is final: nothing of a new file is left, an append is undone, which the
//          text says, and every later call but the destructor is UsageError.
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
    std::vector<std::byte> dictionary{};  // stands in front of the rows, byte for byte; empty: 512 bytes of text that
                                          // say where the rows begin, so that Reader and `orva` need no row0
    int threads = 1;                      // that compress, the caller's counted, above 256 as 256; 0: one a core
    bool durable = true;                  // finish() returns once the file would survive a loss of power
    bool replace = false;                 // a file that has the name, once this one is finished
    int level = 1;                        // of compression, 1 to 12; without the fast engines to 9
    i64 block = 0;                        // bytes of rows in a full block, 65,536 to 4,190,208; 0: the latter
    std::filesystem::perms permissions{0666};  // of the file, less the umask
};

struct AppendOptions {
    std::optional<i64> row0{};  // as ReaderOptions::row0
    int threads = 1;
    bool durable = true;  // and a crash at any instant can be undone, by a side file beside the data until finish()
    int level = 1;
    i64 block = 0;           // 0: as long as the file's own
    bool roll_back = false;  // what an interrupted append has left is undone first, or completed where it was all there
    bool any_order = false;  // takes a file of the other byte order too: rows are bytes as they are to stand in
                             // it, and heading and index get this machine's order
};

class ORVA_API Writer {
public:
    // Begins a new file. SystemError: EEXIST if the name is taken and `replace` is off, EWOULDBLOCK if the file to be
    // replaced is being written to, else as the system tells. UsageError for options outside their ranges.
    explicit Writer(const Path& path, const WriterOptions& options = {});
    // Goes on behind the rows of a finished file. SystemError: ENOENT, EWOULDBLOCK while another writer is at work;
    // UnfinishedFileError for a file that is unfinished, or whose last append was interrupted; DamagedFileError;
    // UsageError for options outside their ranges and, without `any_order`, for a file of the other byte order. The
    // file is as it was then.
    static Writer append(const Path& path, const AppendOptions& options = {});
    Writer(Writer&& from) noexcept;  // `from` has ended then
    Writer& operator=(Writer&&) = delete;
    // Abandons what is not finished: the rows since the constructor or the last flush_rows().
    ~Writer();

    void write(std::span<const std::byte> rows) {
        if (!put(rows)) write_on(rows, false);
    }
    // Values of any type that is stored as its bytes. UsageError on a file of the other byte order.
    template <std::ranges::contiguous_range R>
    void write_rows(const R& rows) {
        static_assert(std::is_trivially_copyable_v<std::ranges::range_value_t<R>>);
        const auto bytes = std::as_bytes(std::span(std::ranges::data(rows), std::ranges::size(rows)));
        if (!put(bytes)) write_on(bytes, true);
    }

    // Room for the next rows, to be filled in place: at least one byte, until the next call. wrote() takes its first
    // `count` bytes; UsageError for more than room() gave.
    Bytes room();
    void wrote(std::size_t count);
    // All bytes of a source, read by the threads that compress them, each into the memory of its block: several at once
    // and in any order. Rows that come from a file cost no copy so. What the source throws comes out unchanged, as the
    // Writer's failure; it is not asked any more once this returns or throws. FileChangedError if it is shorter than
    // its size().
    void write_from(const ByteSource& source);

    // Bytes of rows in the file, those of before an append included.
    i64 size() const;
    // Makes a finished file of the rows so far, as finish() does, and goes on behind them: they stay, whatever comes.
    // Ends a block short if rows came since the last one, and the next call makes that block anew: with blocks of 4 MiB
    // a call costs milliseconds beside its syncs, however few rows came, with ones of 64 KiB about a tenth of one.
    void flush_rows();
    // The file is complete and under its name when this returns, with mode `permissions` less the umask, or mode and
    // group of the file that it replaces, and by root its owner. A second finish() does nothing. SystemError, ESTALE:
    // another file has taken the name of one to which rows were added, so that they stand in a file without that name;
    // flush_rows() as well.
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
    std::byte* fNext = nullptr;  // where write() puts rows without a call, in the room of the current block
    std::size_t fLeft = 0;       // how many go there; none of a file of the other byte order
};

}  // namespace orva
