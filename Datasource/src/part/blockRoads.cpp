#include "part/blockRoads.h"

#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"
#include "part/zcmpsPreIOThread.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

namespace orva {

namespace {

class inlineSink : public blockSink {
public:
    explicit inlineSink(const sinkPlace& at) : fAt(at), fpos(at.pos), fCompressedPos(at.place) {}
    void put(const unsigned char* rows, std::uint32_t size) override {
        if (!fDeflated) fDeflated = blockBuffer(deflateRoom(fAt.chosen.blockLength));
        fCompressedPos = writeBlock({fAt.file, fAt.index, fCompressor, fDeflated.get(), fAt.chosen.level}, rows, size,
                                    fpos, fCompressedPos);
        fpos += size;
    }
    void end(bool) override {}

private:
    const sinkPlace fAt;
    std::int64_t fpos;
    std::int64_t fCompressedPos;
    zlibCompressBlock fCompressor;
    blockBuffer fDeflated;
};

// What a setting that promises a thread leads to where there is none.
class missingSink final : public inlineSink {
public:
    using inlineSink::inlineSink;
    void put(const unsigned char*, std::uint32_t) override { ORVA_ASSERT(false, "fpIOThread != 0"); }
};

// A worker whose threads start when it is first asked for, and end with this.
template <class Worker, bool bRead>
class lazyWorker {
public:
    explicit lazyWorker(std::function<std::unique_ptr<Worker>()> make) : fMake(std::move(make)) {
        if (kKind == atWork::one) **this;
    }
    Worker& operator*() {
        if (fWorker == nullptr) fWorker.reset(startedWorker(fMake(), bRead).release());
        return *fWorker;
    }
    Worker* get() const { return fWorker.get(); }
    atWork threads() const { return fWorker != nullptr ? kKind : atWork::none; }

private:
    static constexpr atWork kKind = std::is_base_of_v<PreIOThreadSeveral, Worker> ? atWork::several : atWork::one;
    struct stop {
        void operator()(Worker* worker) const {
            worker->stopThreads();
            worker->destroyThreads();
            delete worker;
        }
    };
    const std::function<std::unique_ptr<Worker>()> fMake;
    std::unique_ptr<Worker, stop> fWorker;
};

template <class Worker>
class workerSink final : public blockSink {
public:
    template <class... Arguments>
    explicit workerSink(const sinkPlace& at, Arguments... more)
        : fWorker([=] {
              return std::make_unique<Worker>(&at.file, &at.index, at.chosen.blockLength, at.pos, at.place, more...);
          }) {}
    unsigned char* room() override { return (*fWorker).lendRows(); }
    void put(const unsigned char* rows, std::uint32_t size) override { (*fWorker).putBlock(rows, size, 0); }
    bool putFrom(const rowSource& source, std::int64_t offset, std::uint32_t size) override {
        return (*fWorker).putFrom(source, offset, size);
    }
    void awaitRows() override {
        if (Worker* worker = fWorker.get()) worker->awaitRows();
    }
    void end(bool drop) override {
        Worker* worker = fWorker.get();
        if (worker == nullptr) return;
        if (drop) worker->drop();
        worker->putBlock(nullptr, 0, 0);
        worker->stopThreads();
        if (!drop && worker->failure() != nullptr) std::rethrow_exception(worker->failure());
    }
    atWork threads() const override { return fWorker.threads(); }

private:
    lazyWorker<Worker, false> fWorker;
};

class inlineSource final : public blockSource {
public:
    inlineSource(ORVA_File& file, const filePosInfo& index) : blockSource(index), fFile(file) {}
    void read(std::uint32_t number, unsigned char* to) override {
        if (!fCompressedBuffer) fCompressedBuffer = compressedRoom(fIndex.records());
        readBlock({fFile, fCompressor, fCompressedBuffer.get()}, placeOf(fIndex, number), to);
    }

private:
    ORVA_File& fFile;
    zlibCompressBlock fCompressor;
    blockBuffer fCompressedBuffer;
};

template <class Worker>
class workerSource final : public blockSource {
public:
    template <class... Arguments>
    workerSource(ORVA_File& file, const filePosInfo& index, Arguments... more)
        : blockSource(index),
          fWorker([=, &file, &index] { return std::make_unique<Worker>(&file, &index, kBlockSize, more...); }) {}
    const unsigned char* lend(std::uint32_t number) override { return (*fWorker).lend(number, own()); }
    void read(std::uint32_t number, unsigned char* to) override { (*fWorker).load(number, to); }
    std::uint32_t readSeveral(std::uint32_t first, std::uint32_t count, unsigned char* to) override {
        return (*fWorker).loadSeveral(first, count, to);
    }
    atWork threads() const override { return fWorker.threads(); }

private:
    lazyWorker<Worker, true> fWorker;
};

class cachedSource final : public blockSource {
public:
    cachedSource(std::unique_ptr<blockSource> source, const filePosInfo& index, std::uint32_t blocks)
        : blockSource(index), fSource(std::move(source)), fBlocks(blocks) {}
    const unsigned char* lend(std::uint32_t number) override {
        if (!comesFirst(number)) {
            entry& last = fBlocks.back();
            last.number = -1;
            if (!last.rows) last.rows = rowRoom(fIndex.records());
            fSource->read(number, last.rows.get());
            last.number = number;
            comesFirst(number);
        }
        return fBlocks.front().rows.get();
    }
    void read(std::uint32_t number, unsigned char* to) override {
        if (!comesFirst(number)) return fSource->read(number, to);
        std::memcpy(to, fBlocks.front().rows.get(), static_cast<std::size_t>(fIndex.parsed(number).orginalSize));
    }
    atWork threads() const override { return fSource->threads(); }

private:
    struct entry {
        blockBuffer rows;
        std::int64_t number = -1;
    };
    // A block that is kept goes to the front; false for another one.
    bool comesFirst(std::uint32_t number) {
        const auto held = std::ranges::find(fBlocks, std::int64_t{number}, &entry::number);
        if (held == fBlocks.end()) return false;
        std::rotate(fBlocks.begin(), held, held + 1);
        return true;
    }

    const std::unique_ptr<blockSource> fSource;
    std::vector<entry> fBlocks;  // the one used last in front
};

}  // namespace

blockBuffer& blockSource::own() {
    if (!fBuffer) fBuffer = rowRoom(fIndex.records());
    return fBuffer;
}

const unsigned char* blockSource::lend(std::uint32_t number) {
    read(number, own().get());
    return own().get();
}

std::unique_ptr<blockSink> makeSink(const sinkPlace& at, const roads& taken) {
    if (taken.threadCount != 0) {
        return std::make_unique<workerSink<PreIOThread_Multi_W_C>>(at, taken.threadCount, at.chosen.level);
    }
    if (taken.multiThread == 0) return std::make_unique<inlineSink>(at);
    if (taken.multiThread == 1) return std::make_unique<workerSink<PreIOThread_W_C>>(at, at.chosen.level);
    return std::make_unique<missingSink>(at);
}

std::unique_ptr<blockSource> makeSource(ORVA_File& file, const filePosInfo& index, const roads& taken,
                                        std::uint32_t cachedBlocks) {
    std::unique_ptr<blockSource> source;
    if (taken.threadCount != 0) {
        source = std::make_unique<workerSource<PreIOThread_Multi_R_D>>(file, index, taken.threadCount);
    } else if (taken.multiThread >= 2) {
        source = std::make_unique<workerSource<PreIOThread_R_D>>(file, index);
    } else {
        source = std::make_unique<inlineSource>(file, index);
    }
    if (cachedBlocks != 0) source = std::make_unique<cachedSource>(std::move(source), index, cachedBlocks);
    return source;
}

}  // namespace orva
