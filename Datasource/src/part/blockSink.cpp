#include "part/blockSink.h"

#include "base/assertion.h"
#include "base/blockBuffer.h"
#include "format/blockTransfer.h"
#include "part/zcmpsMultiThread.h"
#include "part/zcmpsPreIOThread.h"

namespace orva {

namespace {

class inlineSink : public blockSink {
public:
    explicit inlineSink(const sinkPlace& at) : fAt(at), fpos(at.pos), fCompressedPos(at.place) {}
    void put(const unsigned char* rows, std::uint32_t size) override {
        if (!fDeflated) fDeflated = blockBuffer(deflateRoom());
        fCompressedPos =
            writeBlock({fAt.file, fAt.index, fCompressor, fDeflated.get()}, rows, size, fpos, fCompressedPos);
        fpos += size;
    }
    std::exception_ptr end(bool) override { return nullptr; }

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
    void put(const unsigned char*, std::uint32_t) override {
        const void* fpIOThread = nullptr;
        ORVA_ASSERT(fpIOThread != nullptr, "fpIOThread != 0");
    }
};

std::exception_ptr endWorker(PreIOThreadBase& worker) {
    worker.putBlock(nullptr, 0, 0);
    worker.stopThreads();
    worker.destroyThreads();
    return worker.failure();
}

class oneThreadSink final : public blockSink {
public:
    explicit oneThreadSink(const sinkPlace& at)
        : fpIOThread(startedWorker(
              std::make_unique<PreIOThread_W_C>(&at.file, &at.index, at.blockLength, at.pos, at.place), false)) {}
    void put(const unsigned char* rows, std::uint32_t size) override { fpIOThread->putBlock(rows, size, 0); }
    std::exception_ptr end(bool drop) override {
        if (drop) fpIOThread->drop();
        return endWorker(*fpIOThread);
    }
    atWork threads() const override { return atWork::one; }

private:
    const std::unique_ptr<PreIOThread_W_C> fpIOThread;
};

class severalThreadsSink final : public blockSink {
public:
    severalThreadsSink(const sinkPlace& at, std::uint32_t threads) : fAt(at), fThreads(threads) {}
    unsigned char* room() override { return worker().lendRows(); }
    void put(const unsigned char* rows, std::uint32_t size) override { worker().putBlock(rows, size, 0); }
    std::exception_ptr end(bool drop) override {
        if (fWorker == nullptr) return nullptr;
        if (drop) fWorker->drop();
        return endWorker(*fWorker);
    }
    atWork threads() const override { return fWorker != nullptr ? atWork::several : atWork::none; }

private:
    PreIOThread_Multi_W_C& worker() {
        if (fWorker == nullptr) {
            fWorker = startedWorker(std::make_unique<PreIOThread_Multi_W_C>(&fAt.file, &fAt.index, fAt.blockLength,
                                                                            fAt.pos, fAt.place, fThreads),
                                    false);
        }
        return *fWorker;
    }

    const sinkPlace fAt;
    const std::uint32_t fThreads;
    std::unique_ptr<PreIOThread_Multi_W_C> fWorker;
};

}  // namespace

std::unique_ptr<blockSink> makeSink(const sinkPlace& at, const roads& taken, bool begun) {
    if (taken.threadCount != 0) return std::make_unique<severalThreadsSink>(at, taken.threadCount);
    if (taken.multiThread == 0) return std::make_unique<inlineSink>(at);
    if (taken.multiThread == 1 && !begun) return std::make_unique<oneThreadSink>(at);
    return std::make_unique<missingSink>(at);
}

}  // namespace orva
