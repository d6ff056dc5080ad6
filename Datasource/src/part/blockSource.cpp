#include "part/blockSource.h"

#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"
#include "part/zcmpsPreIOThread.h"

#include <orva/blockSize.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace orva {

namespace {

class inlineSource final : public blockSource {
public:
    inlineSource(ORVA_File& file, const filePosInfo& index) : fFile(file), fIndex(index) {}
    void read(std::uint32_t number, unsigned char* to) override {
        if (!fCompressedBuffer) fCompressedBuffer = blockBuffer(kBlockSize);
        readBlock({fFile, fCompressor, fCompressedBuffer.get()}, placeOf(fIndex, number), to);
    }

private:
    ORVA_File& fFile;
    const filePosInfo& fIndex;
    zlibCompressBlock fCompressor;
    blockBuffer fCompressedBuffer;
};

// Ends the worker's threads before it goes.
template <class Worker>
struct stopped {
    void operator()(Worker* worker) const {
        worker->stopThreads();
        worker->destroyThreads();
        delete worker;
    }
};
template <class Worker>
using running = std::unique_ptr<Worker, stopped<Worker>>;

class oneThreadSource final : public blockSource {
public:
    oneThreadSource(ORVA_File& file, const filePosInfo& index)
        : fpIOThread(startedWorker(std::make_unique<PreIOThread_R_D>(&file, &index, kBlockSize), true).release()) {}
    void read(std::uint32_t number, unsigned char* to) override { fpIOThread->load(number, to); }
    atWork threads() const override { return atWork::one; }

private:
    const running<PreIOThread_R_D> fpIOThread;
};

class severalThreadsSource final : public blockSource {
public:
    severalThreadsSource(ORVA_File& file, const filePosInfo& index, std::uint32_t threads)
        : fFile(file), fIndex(index), fThreads(threads) {}
    const unsigned char* lend(std::uint32_t number) override {
        const unsigned char* ahead = worker().lend(number);
        return ahead != nullptr ? ahead : blockSource::lend(number);
    }
    void read(std::uint32_t number, unsigned char* to) override { worker().load(number, to); }
    atWork threads() const override { return fWorker != nullptr ? atWork::several : atWork::none; }

private:
    PreIOThread_Multi_R_D& worker() {
        if (fWorker == nullptr) {
            auto worker = std::make_unique<PreIOThread_Multi_R_D>(&fFile, &fIndex, kBlockSize, fThreads);
            fWorker.reset(startedWorker(std::move(worker), true).release());
        }
        return *fWorker;
    }

    ORVA_File& fFile;
    const filePosInfo& fIndex;
    const std::uint32_t fThreads;
    running<PreIOThread_Multi_R_D> fWorker;
};

class cachedSource final : public blockSource {
public:
    cachedSource(std::unique_ptr<blockSource> source, const filePosInfo& index, std::uint32_t blocks)
        : fSource(std::move(source)), fIndex(index), fBlocks(blocks) {}
    const unsigned char* lend(std::uint32_t number) override {
        if (const unsigned char* held = find(number)) return held;
        entry& oldest = *std::min_element(fBlocks.begin(), fBlocks.end(),
                                          [](const entry& a, const entry& b) { return a.lastUse < b.lastUse; });
        oldest.number = kNone;
        if (!oldest.rows) oldest.rows = blockBuffer(kBlockSize);
        fSource->read(number, oldest.rows.get());
        oldest.number = number;
        oldest.lastUse = ++fClock;
        return oldest.rows.get();
    }
    void read(std::uint32_t number, unsigned char* to) override {
        const unsigned char* held = find(number);
        if (held == nullptr) return fSource->read(number, to);
        std::memcpy(to, held, static_cast<std::size_t>(fIndex.parsed(number).orginalSize));
    }
    atWork threads() const override { return fSource->threads(); }

private:
    static constexpr std::int64_t kNone = -1;
    struct entry {
        blockBuffer rows;
        std::int64_t number = kNone;
        std::uint64_t lastUse = 0;
    };
    const unsigned char* find(std::uint32_t number) {
        const auto held =
            std::find_if(fBlocks.begin(), fBlocks.end(), [=](const entry& e) { return e.number == number; });
        if (held == fBlocks.end()) return nullptr;
        held->lastUse = ++fClock;
        return held->rows.get();
    }

    const std::unique_ptr<blockSource> fSource;
    const filePosInfo& fIndex;
    std::vector<entry> fBlocks;
    std::uint64_t fClock = 0;
};

}  // namespace

const unsigned char* blockSource::lend(std::uint32_t number) {
    if (!fBuffer) fBuffer = blockBuffer(kBlockSize);
    read(number, fBuffer.get());
    return fBuffer.get();
}

std::unique_ptr<blockSource> makeSource(ORVA_File& file, const filePosInfo& index, const roads& taken) {
    if (taken.threadCount != 0) return std::make_unique<severalThreadsSource>(file, index, taken.threadCount);
    if (taken.multiThread >= 2) return std::make_unique<oneThreadSource>(file, index);
    return std::make_unique<inlineSource>(file, index);
}

std::unique_ptr<blockSource> cached(std::unique_ptr<blockSource> source, const filePosInfo& index,
                                    std::uint32_t blocks) {
    return std::make_unique<cachedSource>(std::move(source), index, blocks);
}

}  // namespace orva
