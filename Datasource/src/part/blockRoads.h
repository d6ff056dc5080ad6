// Where a writer's blocks go and a reader's come from: by the caller's thread, by one of their own, or by several.
//
// Owner:   partWriter and partReader. File and index outlive sink and source. A parsed index stays as it is.
// Threads: the caller's. In a forked child a sink can only be destroyed; a source goes on without its threads.
// Failure: of a sink, the first failure of a block is thrown by put, room or end, and the blocks behind it are dropped.
//          Of a source, what readBlock throws for the block that was asked for; it goes on serving the others.
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
struct roads {
    std::int32_t multiThread = 0;   // 0: none; 1: a thread that writes; 2 and above: one that reads
    std::uint32_t threadCount = 0;  // several threads, which outrank it
};

// The settings of setBlockLength and setCompressionLevel.
struct choices {
    std::uint32_t blockLength = kBlockSize;  // rows of a full block
    std::int32_t level = zlibCompressBlock::kFastestLevel;
};

// Fills all of `to` with the rows at that offset of a source, or throws. Called on several threads at once.
using rowSource = std::function<void(std::int64_t offset, std::span<unsigned char> to)>;

// Deflates, writes and records blocks in the order in which they come.
class blockSink {
public:
    virtual ~blockSink() = default;
    // Memory of the sink's own for the rows of the next block, until the next put; null where it has none.
    virtual unsigned char* room() { return nullptr; }
    // Takes the next block. `rows` is free again at return; what stands in room() is not copied.
    virtual void put(const unsigned char* rows, std::uint32_t size) = 0;
    // Takes the next block, whose rows a thread of the sink will get from there; false from one without such threads.
    virtual bool putFrom(const rowSource&, std::int64_t, std::uint32_t) { return false; }
    // Until no thread asks a source of putFrom any more. Throws if one has failed.
    virtual void awaitRows() {}
    // Once, and nothing after it: every block is in the file and in the index on return, or, with `drop`, what had not
    // begun is given up. Throws a failure that no call has thrown, unless it is to drop.
    virtual void end(bool) {}
    // It has made threads.
    virtual bool hasThreads() const { return false; }
};

// Where the next block goes.
struct sinkPlace {
    ORVA_File& file;
    filePosInfo& index;
    choices chosen;
    std::int64_t pos;    // logical
    std::int64_t place;  // file offset
};

// Starts the one thread at once, several with the first block.
std::unique_ptr<blockSink> makeSink(const sinkPlace& at, const roads& taken);

// Gives blocks by their numbers: whole, inflated and checked.
class blockSource {
public:
    // `index` is parsed, and outlives the source.
    explicit blockSource(const filePosInfo* index) : pPosInfo(index) {}
    virtual ~blockSource() = default;
    // The rows of the block, in memory of the source until the next call.
    virtual const unsigned char* lend(std::uint32_t number) = 0;
    // The rows of the block into the caller's memory.
    virtual void load(std::uint32_t number, unsigned char* to) = 0;
    // The rows of so many blocks, which lie one behind the other, by several threads at once: how many of them, from
    // the first on, are there. None from a source without such threads, or where the first one fails: `load` tells why.
    virtual std::uint32_t loadSeveral(std::uint32_t, std::uint32_t, unsigned char*) { return 0; }
    // It has made threads.
    virtual bool hasThreads() const { return false; }

protected:
    // Memory for one block.
    blockBuffer& own();

    const filePosInfo* const pPosInfo;

private:
    blockBuffer fBuffer;
};

// Starts the one thread at once, several with the first block. Keeps up to `cachedBlocks` blocks that were lent, 4 MiB
// each; the least recently used one makes room.
std::unique_ptr<blockSource> makeSource(ORVA_File& file, const filePosInfo& index, const roads& taken,
                                        std::uint32_t cachedBlocks);

}  // namespace orva
