// partReader: reads the rows of a finished compressed part, with one current block at a time.
//
// Units:   bytes; positions are logical: the first byte of rows has the row-0 position.
// Owner:   the caller owns the file and keeps it until the reader is gone. The reader owns the index, 24 bytes a block,
//          the memory of its blocks and those of its threads.
// Threads: one caller at a time. Threads of the reader's own, as `threadSettings` says, read ahead for it.
// Failure: FileError; DamagedFileError for a block that is not what its record says; FileChangedError if heading or
//          index have been written since. The reader goes on serving sound blocks.
// Fork:    in a process other than its maker's a reader works without its threads, as far as their locks allow.
#pragma once

#include "format/filePosInfo.h"
#include "part/blockPipeline.h"

#include <orva/compressedLayout.h>
#include <orva/file.h>

#include <cstdint>
#include <memory>
#include <optional>

namespace orva {

class partReader {
public:
    // Reads heading and index of the part at `row0Pos`; `swap`: both have the other byte order there.
    partReader(ORVA_File& file, std::int64_t row0Pos, bool swap, const threadSettings& threads,
               std::uint32_t cachedBlocks);

    // The logical position after the rows.
    std::int64_t end() const { return fIndex.dataEnd(fHeading._caseStartPos); }
    // Reads up to `size` rows from `pos` on, which advances by them, and returns their number: fewer if the rows end
    // there, or `pos` lies outside them. DamagedFileError if no block holds a position inside them.
    std::uint64_t read(std::int64_t& pos, unsigned char* to, std::uint64_t size);
    // Reads by the threads that `threads` asks for from now on. If this throws, nothing has changed.
    void setThreads(const threadSettings& threads) { makeSource(threads, fCachedBlocks); }
    // Keeps up to `blocks` blocks beside the current one from now on, and forgets those that it holds.
    void setBlockCache(std::uint32_t blocks) { makeSource(fThreadSettings, blocks); }
    // Ends the threads; the reader goes on without them.
    void endThreads() noexcept;
    bool hasThreads() const { return fSource != nullptr && fSource->hasThreads(); }

private:
    bool holds(std::int64_t pos) const { return fBuffer != nullptr && pos >= fpos && pos - fpos < fSize; }
    std::uint64_t readOn(std::int64_t pos, unsigned char* to, std::uint64_t size);
    std::uint64_t loadSeveral(std::uint32_t first, unsigned char* to, std::uint64_t size);
    std::optional<std::uint32_t> blockToLoad(std::int64_t pos);
    void makeSource(const threadSettings& threads, std::uint32_t cachedBlocks);

    ORVA_File& fFile;
    const compressionHeading fHeading;
    const bool bSwap;
    filePosInfo fIndex;
    threadSettings fThreadSettings;
    std::uint32_t fCachedBlocks = 0;
    std::unique_ptr<blockSource> fSource;  // null until it is needed
    // The current block, in memory of the source; none while fBuffer is null.
    const unsigned char* fBuffer = nullptr;
    std::int64_t fpos = -1;
    std::int64_t fSize = 0;
};

}  // namespace orva
