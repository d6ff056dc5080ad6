// Functions on whole files: what one holds, whether it is sound, what can be saved of it, and many as one.
//
// Units:   bytes; offsets of rows count from the first one, blocks from 0.
// Threads: any; nothing is kept.
// Failure: error.h; std::bad_alloc; what `progress` throws, which ends the work. A file that is made appears under its
//          name when it is complete, as a Writer's does; a failure leaves nothing of it.
#pragma once

#include <orva/dictionaryText.h>
#include <orva/error.h>
#include <orva/orvaApi.h>
#include <orva/reader.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orva {

// Called on the caller's thread now and then with the bytes done of `total`.
using Progress = std::function<void(i64 done, i64 total)>;

struct FileInfo {
    enum class FoundBy : std::uint8_t { option, dictionary, search };
    FoundBy found_by = FoundBy::option;
    bool swapped = false;                  // of the other byte order
    i64 row0 = 0;                          // where the heading stands: the length of the dictionary part
    std::optional<dictionaryText> text{};  // the dictionary part, where that is such a text
    i64 size = 0;                          // of the rows
    i64 stored = 0;                        // of their blocks
    i64 file_size = 0;
    i64 block_size = 0;  // as the index tells it, which means nothing to readers
    Range index;         // in the file
    std::vector<Block> blocks;
};

// Reads heading and index. Fails as opening a Reader does.
ORVA_API FileInfo info(const Path& path, std::optional<i64> row0 = {});
// Of the file that a Reader shows.
ORVA_API FileInfo info(const Reader& reader);

struct VerifyOptions {
    std::optional<i64> row0{};
    int threads = 1;  // the caller's counted, above 256 as 256; 0: one a core
    Progress progress{};
    i64 first_block = 0;  // those before it are passed over
};

struct BadBlock {
    i64 block = 0;
    Range rows;        // that are lost
    std::string text;  // what is wrong, or why the disk could not give it
};

struct VerifyReport {
    i64 blocks = 0;  // of the file
    std::vector<BadBlock> bad;
    std::string index;  // what is wrong with the index as a whole, as exchanged blocks; empty where it is sound
    bool sound() const { return bad.empty() && index.empty(); }
};

// Inflates every block, and goes on behind a damaged one. Fails as opening a Reader does.
ORVA_API VerifyReport verify(const Path& path, const VerifyOptions& options = {});
// Of the file that a Reader shows, whatever has its name by now; row0 means nothing.
ORVA_API VerifyReport verify(const Reader& reader, const VerifyOptions& options = {});

struct RecoverOptions {
    std::optional<i64> row0{};
    bool committed = false;  // without what an interrupted append has added
    bool drop_lost = false;  // closes gaps; else zeros stand in the place of lost rows, so that offsets stay
    bool durable = true;
    bool replace = false;
    Progress progress{};  // of going through the file twice
};

struct LostRows {
    Range rows;              // in the damaged file
    i64 file_offset = 0;     // where they should have stood there
    bool estimated = false;  // no index tells how many rows there were
    std::string text;
};

struct RecoverReport {
    i64 row0 = 0;
    bool swapped = false;
    bool had_heading = false;
    bool had_index = false;
    i64 blocks = 0;
    i64 size = 0;                 // of the rows that were got back
    i64 committed = 0;            // of the rows, lost ones included, that heading or index vouch for
    bool last_rewritten = false;  // an append has rewritten the last block that the heading vouches for
    std::vector<LostRows> lost;
};

// Writes what can be read of a damaged or unfinished file into the new file `to`; `from` stays as it is. Where its rows
// begin tells `row0`, else the first line of its dictionary part, unless no block begins there and a sound part is
// found elsewhere, else a search for whatever is left of them. Who may use the new file: whoever may use `from`.
// DamagedFileError if not one block can be found; UsageError if `to` is `from`, and for a file in which two finished
// parts fit: `row0` says which.
ORVA_API RecoverReport recover(const Path& from, const Path& to, const RecoverOptions& options = {});

enum class RollBack : std::uint8_t {
    nothing,    // no append was interrupted
    undone,     // the file holds the rows of before it
    whole,      // the file is whole as it stands, with or without the append's rows; only its side file was left
    completed,  // all rows of the append were there; the file holds them
};

// Ends an append that a crash or a loss of power has interrupted, durably. SystemError, EWOULDBLOCK: it is alive.
ORVA_API RollBack roll_back(const Path& path);

// What an append has to do with a file, for a message: that one, or another writer, is at work on it, or that one was
// interrupted, and what to do then. Empty where there is no sign of either. Fails as opening any file for reading does.
ORVA_API std::string append_state(const Path& path);

struct JoinOptions {
    std::optional<i64> row0{};            // as ReaderOptions::row0, of each file
    std::vector<std::byte> dictionary{};  // empty: the first file's; a text, of several files, without what is no more
                                          // true, as its name and size
    bool durable = true;
    bool replace = false;
    Progress progress{};
    std::filesystem::perms permissions{0666};  // of the file, less the umask, and no more than all of the files allow
};

struct JoinReport {
    i64 row0 = 0;
    i64 blocks = 0;
    i64 size = 0;    // of the rows
    i64 stored = 0;  // of their blocks
};

// The rows of finished files, one behind the other, in the new file `to`. Their blocks are copied as they stand; only
// the last one of each file, which an append would rewrite, is inflated to see whether it is whole. Who may use the new
// file: whoever may use all of them. UsageError for no file, for files of two byte orders, and if `to` is one of them;
// FileChangedError for one that was written to meanwhile.
ORVA_API JoinReport join(std::span<const Path> from, const Path& to, const JoinOptions& options = {});

}  // namespace orva
