#include "part/blockPipeline.h"

#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"
#include "part/zcmpsPreIOThread.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

namespace orva {

namespace {

class inlineSink final : public blockSink {
public:
    // `lacksThread`: a setting asks for a thread that a sink does not have.
    inlineSink(const sinkPlace& at, bool lacksThread) : fAt(at), bLacksThread(lacksThread) {}
    void put(const unsigned char* rows, std::uint32_t size) override {
        ORVA_ASSERT(!bLacksThread, "fpIOThread != 0");
        if (!fDeflated) fDeflated = {deflateRoom(fAt.chosen.blockLength), deflateRoom(size)};
        fAt.place = writeBlock({fAt.file, fAt.index, fCompressor, fDeflated.get(), fAt.chosen.level}, rows, size,
                               fAt.pos, fAt.place);
        fAt.pos += size;
    }

private:
    sinkPlace fAt;
    const bool bLacksThread;
    zlibCompressBlock fCompressor;
    blockBuffer fDeflated;
};

// A worker that ends its threads when it is destroyed.
template <class Worker>
class scoped : public Worker {
public:
    using Worker::Worker;
    ~scoped() override {
        this->stopThreads();
        this->destroyThreads();
    }
    bool hasThreads() const override { return this->pThreadPool != nullptr; }
};

template <class Worker>
class workerSink : public scoped<Worker> {
public:
    explicit workerSink(const sinkPlace& at, auto... threads)
        : scoped<Worker>(&at.file, &at.index, at.chosen.blockLength, at.pos, at.place, threads..., at.chosen.level) {}
    void end(bool drop) override {
        if (drop) this->drop();
        this->putBlock(nullptr, 0, 0);
        this->stopThreads();
        if (!drop && this->failure() != nullptr) std::rethrow_exception(this->failure());
    }
};

// Threads that nobody has asked for by number: if they cannot start, the caller does their work.
class willingSink final : public workerSink<PreIOThread_Multi_W_C> {
public:
    using workerSink::workerSink;
    bool startThreads() override {
        try {
            return workerSink::startThreads();
        } catch (const std::system_error&) {
            workAlone();
            return false;
        }
    }
};

class cachedSource final : public blockSource {
public:
    // Keeps no more blocks than the index has.
    cachedSource(std::unique_ptr<blockSource> source, const filePosInfo& index, std::uint32_t blocks)
        : blockSource(&index), fSource(std::move(source)), fBlocks(std::min(blocks, index.parsedCount())) {}
    const unsigned char* lend(std::uint32_t number) override {
        if (!moveToFront(number)) {
            entry& last = fBlocks.back();
            last.number = -1;
            if (!last.rows) last.rows = rowRoom(pPosInfo->records());
            fSource->load(number, last.rows.get());
            last.number = number;
            moveToFront(number);
        }
        return fBlocks.front().rows.get();
    }
    void load(std::uint32_t number, unsigned char* to) override {
        if (!moveToFront(number)) return fSource->load(number, to);
        std::memcpy(to, fBlocks.front().rows.get(), static_cast<std::size_t>(pPosInfo->parsed(number).orginalSize));
    }
    bool hasThreads() const override { return fSource->hasThreads(); }

private:
    struct entry {
        blockBuffer rows;
        std::int64_t number = -1;
    };
    // Moves a block that is kept to the front; false if it is not kept.
    bool moveToFront(std::uint32_t number) {
        const auto held = std::ranges::find(fBlocks, std::int64_t{number}, &entry::number);
        if (held == fBlocks.end()) return false;
        std::rotate(fBlocks.begin(), held, held + 1);
        return true;
    }

    const std::unique_ptr<blockSource> fSource;
    std::vector<entry> fBlocks;  // the most recently used one in front
};

}  // namespace

blockBuffer& blockSource::ownBuffer() {
    if (!fBuffer) fBuffer = rowRoom(pPosInfo->records());
    return fBuffer;
}

std::unique_ptr<blockSink> makeSink(const sinkPlace& at, const threadSettings& threads) {
    if (threads.threadCount != 0 && !threads.required) return std::make_unique<willingSink>(at, threads.threadCount);
    if (threads.threadCount != 0) return std::make_unique<workerSink<PreIOThread_Multi_W_C>>(at, threads.threadCount);
    if (threads.multiThread == 1) return startedWorker(std::make_unique<workerSink<PreIOThread_W_C>>(at), false);
    return std::make_unique<inlineSink>(at, threads.multiThread != 0);
}

std::unique_ptr<blockSource> makeSource(ORVA_File& file, const filePosInfo& index, const threadSettings& threads,
                                        std::uint32_t cachedBlocks) {
    std::unique_ptr<blockSource> source;
    if (threads.threadCount == 0 && threads.multiThread >= 2) {
        source = startedWorker(std::make_unique<scoped<PreIOThread_R_D>>(&file, &index, kBlockSize), true);
    } else {
        source = std::make_unique<scoped<PreIOThread_Multi_R_D>>(&file, &index, kBlockSize, threads.threadCount);
    }
    if (cachedBlocks != 0) source = std::make_unique<cachedSource>(std::move(source), index, cachedBlocks);
    return source;
}

}  // namespace orva
