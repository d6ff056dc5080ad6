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

// A setting asks for a thread that a writer does not have.
class lackingSink final : public blockSink {
public:
    void put(const unsigned char*, std::uint32_t) override { ORVA_ASSERT(false, "fpIOThread != 0"); }
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
    if (threads.threadCount == 0 && threads.multiThread == 1)
        return startedWorker(std::make_unique<workerSink<PreIOThread_W_C>>(at), false);
    if (threads.threadCount == 0 && threads.multiThread != 0) return std::make_unique<lackingSink>();
    auto several = std::make_unique<workerSink<PreIOThread_Multi_W_C>>(at, threads.threadCount);
    if (threads.threadCount == 0 || threads.required) return several;
    try {
        return startedWorker(std::move(several), false);
    } catch (const std::system_error&) {
        return std::make_unique<workerSink<PreIOThread_Multi_W_C>>(at, 0U);
    }
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
