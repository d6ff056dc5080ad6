// What the tests of the workers share: a worker's life, a finished part without a stream, bad places on the disk, doors
// for threads, and a fixture with a file of six short blocks.
#pragma once

#include "coreTest.h"
#include "indexTransfer.h"
#include "zcmpsPreIOThread.h"

namespace core {

using platform::faults::Call;

// Where the calling thread's descriptor stands tells a call's place in the file, the same on every road.
inline std::int64_t placeOf(int descriptor) {
    return lseek(descriptor, 0, SEEK_CUR);
}

// Transfers that begin in a range of the file fail, as on a disk with a bad spot or with no room behind a place.
class BadPlace : public platform::faults::Hook {
public:
    BadPlace(Call call, std::int64_t begin, std::int64_t end, int error)
        : fCall(call), fBegin(begin), fEnd(end), fError(error), fInstalled(*this) {}
    using Verdict = platform::faults::Verdict;

    Verdict before(Call call, int descriptor, std::uint64_t) override {
        if (call != fCall) return Verdict::goOn();
        ++fTransfers;
        const std::int64_t at = placeOf(descriptor);
        return at >= fBegin && at < fEnd && fLeft-- > 0 ? Verdict::fail(fError) : Verdict::goOn();
    }
    void allow(int failures) { fLeft = failures; }
    int transfers() const { return fTransfers; }

private:
    const Call fCall;
    const std::int64_t fBegin;
    const std::int64_t fEnd;
    const int fError;
    std::atomic<int> fLeft{INT32_MAX};
    std::atomic<int> fTransfers{0};
    platform::faults::Installed fInstalled;
};

// A door that threads wait at until it is opened.
class Gate {
public:
    void open() { fSem.postSemaphore(); }
    void pass() {
        fSem.waitSemaphore();
        fSem.postSemaphore();
    }

private:
    ktSemaphore fSem{0};
};

struct OpenedPart {
    explicit OpenedPart(const std::string& name) : index(kBlock, name) {
        ExtNameStr fileName;
        fileName.SetGeneric(name);
        if (!file.Open(fileName, "rb")) throw std::runtime_error("cannot open");
        const compressionHeading heading = orva::readHeading(file, kRow0, false, "");
        index.limitPlaces(file.Size());
        index.parseForRead(orva::readIndex(file, heading, false).get(), false);
    }
    Bytes request(PreIOThreadBase& worker, std::uint32_t number) {
        const filePosRecord& record = index.parsed(number);
        Bytes rows(static_cast<std::size_t>(record.orginalSize));
        worker.getBlock(rows.data(), static_cast<std::uint32_t>(rows.size()), record.orginalPos);
        return rows;
    }

    ORVA_File file;
    filePosInfo index;
};

template <class Worker>
class Running {
public:
    template <class... Arguments>
    explicit Running(bool bRead, Arguments... arguments) {
        auto worker = std::make_unique<Worker>(arguments...);
        fWorker = worker.get();
        fOwner = startedWorker(std::move(worker), bRead);
    }
    ~Running() { stop(); }
    void stop() {
        if (fStopped) return;
        fStopped = true;
        fOwner->stopThreads();
        fOwner->destroyThreads();
    }
    Worker& operator*() const { return *fWorker; }
    Worker* operator->() const { return fWorker; }

private:
    std::unique_ptr<PreIOThreadBase> fOwner;
    Worker* fWorker;
    bool fStopped = false;
};

class Workers : public support::TempDir {
protected:
    static constexpr std::size_t kBlocks = 6;

    Workers() {
        support::RandomBytes random(41);
        for (const std::size_t size : {3'000u, 1u, 20'000u, 700u, 5'000u, 100u}) fBlocks.push_back(random.rows(size));
        makeFile(fName, fBlocks);
        fLayout = Layout(support::readBytes(fName));
    }
    std::int64_t placeOfBlock(std::size_t number) const { return fLayout.records[number].translatePos; }
    void damage(std::size_t number) const {
        support::flipBit(
            fName, static_cast<std::uint64_t>(placeOfBlock(number) + fLayout.records[number].translateSize - 1), 3);
    }

    const Watchdog fWatchdog{"a worker hangs\n"};
    const std::string fName = path("rows.orva");
    std::vector<Bytes> fBlocks;
    Layout fLayout;
};

}  // namespace core
