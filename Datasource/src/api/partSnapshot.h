// partSnapshot: a finished part as its heading and index were at one moment. It stays readable: it keeps the file open,
// whoever takes the name, and reads the one block that an append rewrites from the side file.
//
// Units:   bytes; offsets of rows count from 0.
// Threads: const operations on any thread.
// Failure: the errors of orva:: with offset and block; bad_alloc; callbackFailure from a source.
#pragma once

#include "api/foundHeading.h"
#include "api/openedFile.h"
#include "base/blockBuffer.h"
#include "format/blockTransfer.h"

#include <orva/compressedLayout.h>
#include <orva/error.h>
#include <orva/errors.h>
#include <orva/files.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace orva {

class partSnapshot {
public:
    // Opens as Reader does. `place`: the full name of `path`. `locked`: the caller holds the writer's lock.
    partSnapshot(const Path& path, const Path& place, std::optional<i64> row0, bool locked = false,
                 const Progress& progress = {});
    partSnapshot(std::shared_ptr<const ByteSource> source, const std::string& name, std::optional<i64> row0);

    // Unique in this process. A part with a greater id began to open later.
    std::uint64_t id() const { return fId; }
    const Path& path() const { return fPath; }
    const foundHeading& found() const { return fFound; }
    const storedBytes& bytes() const { return *fBytes; }
    std::int64_t fileSize() const { return fFileSize; }
    std::uint32_t indexBlockSize() const { return fBlockSize; }
    bool swapped() const { return fFound.swapped; }
    std::int64_t row0() const { return fFound.heading._caseStartPos; }
    std::int64_t size() const { return begin(blockCount()); }

    std::uint32_t blockCount() const { return static_cast<std::uint32_t>(fRecords.size()); }
    std::span<const filePosRecord> records() const { return fRecords; }
    // Where the rows of the block begin; size() if `number` is blockCount().
    std::int64_t begin(std::uint32_t number) const;
    // The block that holds `offset`, which must lie in the rows.
    std::uint32_t blockAt(std::int64_t offset) const;
    // Its rows end where the next block's begin, whatever its record says: blocks cover all rows, each once.
    Block block(std::uint32_t number) const;
    std::vector<Block> blocks() const;
    std::vector<std::byte> dictionary() const;

    // Memory for the compressed bytes of any block, and for its rows.
    blockBuffer compressedRoom() const { return {kBlockSize, fLongestStored}; }
    blockBuffer rowRoom() const { return {kBlockSize, fLongestRows}; }
    // Reads the rows of a block into `to`, which has room for kBlockSize bytes, or for the block if its size can be
    // true. `compressed` has room for kBlockSize bytes.
    void read(std::uint32_t number, unsigned char* compressed, unsigned char* to) const;

private:
    static std::uint64_t nextId();
    void load();
    bool isOfOneMoment() const;
    void readOld(std::uint32_t number, unsigned char* compressed, unsigned char* to) const;
    bool readKept(std::uint32_t number, const readContext& context, unsigned char* to) const;
    bool hasChanged(std::uint32_t number) const;

    const std::uint64_t fId = nextId();
    const Path fPath;                   // as the caller wrote it; empty for a source
    const std::string fPlace;           // the full name; empty for a source
    const openedFile* fFile = nullptr;  // null for a source
    std::unique_ptr<const storedBytes> fBytes;
    std::int64_t fFileSize = 0;
    foundHeading fFound;
    std::uint32_t fBlockSize = 0;
    std::vector<filePosRecord> fRecords;
    // Of all records. To look for them at each read would take longer than the read, if there are many.
    std::size_t fLongestStored = 0;
    std::size_t fLongestRows = 0;
};

// The part that a Reader shows now.
std::shared_ptr<const partSnapshot> partOf(const Reader& reader);

// The error for a file to which an append is at work (`alive`) or was interrupted.
UnfinishedFileError unfinished(const Path& path, bool alive);

}  // namespace orva
