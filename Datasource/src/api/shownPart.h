// shownPart: a finished part as its heading and index told at one moment, which stays what it shows: its bytes are held
// open, whatever becomes of the name, and the one block that an append rewrites is had from the side file.
//
// Units:   offsets of rows, from 0, in bytes.
// Threads: const operations from any.
// Failure: the face's errors with offset and block; bad_alloc; callersFailure from a source.
#pragma once

#include "api/foundHeading.h"
#include "api/openedFile.h"
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

class shownPart {
public:
    // Opens as Reader does. `place`: the full name of `path`. `locked`: the caller holds the writer's lock.
    shownPart(const Path& path, const Path& place, std::optional<i64> row0, bool locked = false);
    shownPart(std::shared_ptr<const ByteSource> source, const std::string& name, std::optional<i64> row0);

    // Of no other one in this process. Who has the greater one has begun to look later.
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
    // Where the rows of the block begin; size() for blockCount().
    std::int64_t begin(std::uint32_t number) const;
    // The block that holds the offset, which lies in the rows.
    std::uint32_t blockAt(std::int64_t offset) const;
    // Its rows end where the next block's begin, whatever the record says: blocks cover all rows, each once.
    Block block(std::uint32_t number) const;
    std::vector<Block> blocks() const;
    std::vector<std::byte> dictionary() const;

    // The rows of the block into `to`, which has room for kBlockSize bytes, or for the block's where that can be true.
    // `compressed` has kBlockSize bytes.
    void read(std::uint32_t number, unsigned char* compressed, unsigned char* to) const;

private:
    static std::uint64_t nextId();
    void load();
    bool isOfOneMoment() const;
    void readOld(std::uint32_t number, unsigned char* compressed, unsigned char* to) const;
    bool readKept(std::uint32_t number, const readRoad& road, unsigned char* to) const;
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
};

// What a Reader shows just now.
std::shared_ptr<const shownPart> partOf(const Reader& reader);

// Of a file to which an append is at work (`alive`) or was interrupted.
UnfinishedFileError unfinished(const Path& path, bool alive);

}  // namespace orva
