// Sinks take a writer's blocks, sources give a reader's: on the caller's thread, one of their own, or several.
//
// Owner:   partWriter and partReader. File and index outlive sink and source. A parsed index does not change.
// Threads: one caller. In a forked child a sink can only be destroyed; a source goes on without its threads.
// Failure: put, room and end of a sink throw the first failure of a block, and the blocks after it are dropped. A
//          source throws what readBlock throws for the block that was asked for, and goes on serving the others.
#pragma once

#include "base/blockBuffer.h"

#include <orva/blockSize.h>
#include <orva/zlibCompress.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

class ORVA_File;
class filePosInfo;

namespace orva {

// The settings of setMultiThread and setThreadCount. Only makeSink and makeSource look at them.
struct threadSettings {
    std::int32_t multiThread = 0;   // 0: none; 1: a thread that writes; 2 and above: one that reads
    std::uint32_t threadCount = 0;  // several threads; if not 0, multiThread does not count
    bool required = true;           // else a sink works without several threads if they cannot start
};

// The settings of setBlockLength and setCompressionLevel.
struct choices {
    std::uint32_t blockLength = kBlockSize;  // bytes of rows in a full block
    std::int32_t level = zlibCompressBlock::kFastestLevel;
};

// Fills all of `to` with the rows at `offset`, or throws. Called on several threads at once.
using rowSource = std::function<void(std::int64_t offset, std::span<unsigned char> to)>;

// Deflates, writes and records blocks in the order in which they come.
class blockSink {
public:
    virtual ~blockSink() = default;
    // Memory of the sink for the rows of the next block, valid until the next put; null if it has none.
    virtual unsigned char* room() { return nullptr; }
    // Takes the next block. `rows` is free again at return; rows in room() are not copied.
    virtual void put(const unsigned char* rows, std::uint32_t size) = 0;
    // Takes the next block unfilled: a thread of the sink gets its rows from the source. False without such threads.
    virtual bool putFrom(const rowSource&, std::int64_t, std::uint32_t) { return false; }
    // Waits until no thread calls a source of putFrom any more. Throws if one has failed.
    virtual void awaitRows() {}
    // Called once and last. On return every block is in the file and in the index, or, with `drop`, blocks not begun
    // have been dropped. Throws a failure that no call has thrown, unless `drop`.
    virtual void end(bool) {}
    // True if it has made threads.
    virtual bool hasThreads() const { return false; }
};

// Where the next block goes.
struct sinkPlace {
    ORVA_File& file;
    filePosInfo& index;
    choices chosen;
    std::int64_t pos;    // logical position
    std::int64_t place;  // file offset
};

// One thread starts at once, as do several that are not required; others start with the first block.
std::unique_ptr<blockSink> makeSink(const sinkPlace& at, const threadSettings& threads);

// Gives blocks by number: whole, inflated and checked.
class blockSource {
public:
    // `index` is parsed, and outlives the source.
    explicit blockSource(const filePosInfo* index) : pPosInfo(index) {}
    virtual ~blockSource() = default;
    // The rows of the block, in memory of the source, valid until the next call.
    virtual const unsigned char* lend(std::uint32_t number) = 0;
    // Puts the rows of the block into the caller's memory.
    virtual void load(std::uint32_t number, unsigned char* to) = 0;
    // True if it has several threads, as loadSeveral() needs; starts them if they have not begun.
    virtual bool loadsSeveral() { return false; }
    // Loads a number of consecutive blocks by several threads at once, and returns how many of them, from the first on,
    // have come: 0 if the first one fails, for which load() throws the reason.
    virtual std::uint32_t loadSeveral(std::uint32_t, std::uint32_t, unsigned char*) { return 0; }
    // True if it has made threads.
    virtual bool hasThreads() const { return false; }

protected:
    // Memory for one block.
    blockBuffer& ownBuffer();

    const filePosInfo* const pPosInfo;

private:
    blockBuffer fBuffer;
};

// One thread starts at once, several with the first block. Keeps up to `cachedBlocks` lent blocks, 4 MiB each; the
// least recently used one makes room.
std::unique_ptr<blockSource> makeSource(ORVA_File& file, const filePosInfo& index, const threadSettings& threads,
                                        std::uint32_t cachedBlocks);

}  // namespace orva
