// Functions on whole files: describe, verify, recover, roll back and join them.
//
// Units:   bytes; offsets of rows count from the first one, blocks from 0.
// Threads: any; nothing is kept between calls.
// Failure: error.h; std::bad_alloc; exceptions of `progress`, which end the work. An output file appears under its name
//          when it is complete, as a Writer's does; a failure leaves nothing of it.
#pragma once

#include <orva/dictionaryText.h>
#include <orva/error.h>
#include <orva/orvaApi.h>
#include <orva/reader.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orva {

struct FileInfo {
    enum class FoundBy : std::uint8_t { option, dictionary, search };
    FoundBy found_by = FoundBy::option;
    bool swapped = false;                  // the file has the other byte order
    i64 row0 = 0;                          // offset of the heading: the length of the dictionary part
    std::optional<dictionaryText> text{};  // the dictionary part, if it is such a text
    i64 size = 0;                          // bytes of rows
    i64 stored = 0;                        // bytes of their compressed blocks
    i64 file_size = 0;
    i64 block_size = 0;  // as the index states it; readers ignore it
    Range index;         // its place in the file
    std::vector<Block> blocks;
};

// Reads heading and index. Throws as opening a Reader does.
ORVA_API FileInfo info(const Path& path, std::optional<i64> row0 = {});
// The same for the file that `reader` has open.
ORVA_API FileInfo info(const Reader& reader);

struct VerifyOptions {
    std::optional<i64> row0{};
    int threads = 1;  // the caller's included; more than 256 count as 256; 0: one a core
    Progress progress{};
    i64 first_block = 0;  // blocks before it are skipped
};

struct BadBlock {
    i64 block = 0;
    Range rows;        // the rows that are lost
    std::string text;  // what is wrong with the block, or why it could not be read
};

struct VerifyReport {
    i64 blocks = 0;  // in the file
    std::vector<BadBlock> bad;
    std::string index;  // what is wrong with the index as a whole, such as exchanged blocks; empty if it is sound
    bool sound() const { return bad.empty() && index.empty(); }
};

// Inflates every block, and continues after a damaged one. Throws as opening a Reader does.
ORVA_API VerifyReport verify(const Path& path, const VerifyOptions& options = {});
// The same for the file that `reader` has open, even if another has its name by now; `row0` is ignored.
ORVA_API VerifyReport verify(const Reader& reader, const VerifyOptions& options = {});

struct RecoverOptions {
    std::optional<i64> row0{};
    bool committed = false;  // leaves out blocks that the heading does not count: an interrupted append's
    bool drop_lost = false;  // closes gaps; else zeros replace lost rows, so that offsets stay
    bool durable = true;
    bool replace = false;
    Progress progress{};  // over the two passes through the file
};

struct LostRows {
    Range rows;              // in the damaged file
    i64 file_offset = 0;     // where their block should be there
    bool estimated = false;  // the size is a guess: no index proves how many rows are lost
    std::string text;
};

struct RecoverReport {
    i64 row0 = 0;
    bool swapped = false;
    bool had_heading = false;
    bool had_index = false;
    i64 blocks = 0;
    i64 size = 0;                 // bytes of recovered rows
    i64 committed = 0;            // bytes of rows that the heading vouches for, lost ones included
    bool last_rewritten = false;  // an append rewrote the last block that heading or index vouch for
    std::vector<LostRows> lost;
};

// Writes what can be read of a damaged or unfinished file into the new file `to`; `from` stays as it is. The rows begin
// at `row0` if given; else where the first line of the dictionary part says, unless no block begins there and a sound
// part is found elsewhere; else a search looks for whatever is left of them. The new file's mode is that of the file
// that it replaces, else no wider than the mode of `from`. DamagedFileError if not a single block can be found;
// UsageError if `to` is `from`, or if two finished parts fit in the file: `row0` then says which.
ORVA_API RecoverReport recover(const Path& from, const Path& to, const RecoverOptions& options = {});

enum class RollBack : std::uint8_t {
    nothing,    // no append was interrupted
    undone,     // the file holds the rows from before the append
    whole,      // the file is sound as it stands, with or without the append's rows; only a side file was left over
    completed,  // all rows of the append were there; the file now holds them
};

// Durably ends an append that a crash or a loss of power has interrupted. SystemError EWOULDBLOCK if it is still alive.
ORVA_API RollBack roll_back(const Path& path);

// For messages: says that an append or another writer is at work on the file, or that an append was interrupted, and
// what to do then. Empty if there is no sign of either. Throws as opening any file for reading does.
ORVA_API std::string append_state(const Path& path);

struct JoinOptions {
    std::optional<i64> row0{};            // as ReaderOptions::row0, for each file
    std::vector<std::byte> dictionary{};  // empty: the first file's; if that is orva's text and there are several
                                          // files, without the lines that hold no longer: source and size
    bool durable = true;
    bool replace = false;
    Progress progress{};
    std::filesystem::perms permissions{0666};  // of a new file, less the umask, and no more than every input allows; a
                                               // file that is replaced passes its own on
};

struct JoinReport {
    i64 row0 = 0;
    i64 blocks = 0;
    i64 size = 0;    // bytes of rows
    i64 stored = 0;  // bytes of their compressed blocks
};

// Writes the rows of finished files, one after the other, into the new file `to`. Blocks are copied as they stand;
// only the last one of each file, which an append would rewrite, is inflated as a check. UsageError for no file, for
// files of different byte orders, and if `to` is one of them; FileChangedError if one was written to meanwhile.
ORVA_API JoinReport join(std::span<const Path> from, const Path& to, const JoinOptions& options = {});

}  // namespace orva
