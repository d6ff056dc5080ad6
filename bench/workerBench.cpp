// The gain by the workers. If the caller works on each block as long as the stream does, a pass should take little
// longer than the longer of the two alone; two threads should come close to the codec alone on two threads. Measures
// wall time, so these benches need a machine with two idle cores.
#include "base/blockBuffer.h"
#include "benchData.h"
#include "format/blockTransfer.h"
#include "paired.h"

#include <orva/filestr.h>
#include <orva/ktthread.h>
#include <orva/zcmpsFilestr.h>
#include <orva/zlibCompress.h>

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace bench;

constexpr std::int64_t kRow0 = 1'000;
constexpr std::size_t kBlocks = 64;
constexpr std::size_t kPass = kBlocks * std::size_t{kBlockSize};

using Work = std::function<void()>;

// The caller's side: requests of one block, and the caller's own work on each.
void readRows(ORVA_FileStream& stream, unsigned char* to, const Work& work) {
    for (std::size_t i = 0; i < kBlocks; ++i) {
        require(stream.Read(to, kBlockSize) == kBlockSize, "short Read");
        work();
    }
}

void writeRows(zcmpsFilestr& stream, const Bytes& rows, const Work& work) {
    for (std::size_t i = 0; i < kBlocks; ++i) {
        work();
        stream.Write(rows.data() + i * kBlockSize, kBlockSize);
    }
    stream.Close();
}

// A threading: a value for setMultiThread, or kTwoThreads for setThreadCount(2).
constexpr std::int32_t kTwoThreads = 100;
void setThreading(zcmpsFilestr& stream, std::int32_t threading) {
    threading == kTwoThreads ? stream.setThreadCount(2) : stream.setMultiThread(threading);
}

std::unique_ptr<zcmpsFilestr> newPart(const std::string& name, std::int32_t threading) {
    ORVA_FileStream dictionary(name.c_str(), "w+b");
    const Bytes bytes(kRow0);
    dictionary.Write(bytes.data(), kRow0);
    auto stream = std::make_unique<zcmpsFilestr>(dictionary);
    setThreading(*stream, threading);
    stream->setRow0Pos(kRow0);
    stream->Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
    return stream;
}

std::unique_ptr<zcmpsFilestr> opened(const std::string& name, std::int32_t threading) {
    auto stream = std::make_unique<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "rb"));
    setThreading(*stream, threading);
    stream->readFilePosInfo(kRow0, false);
    return stream;
}

double timedWork(const Work& work) {
    return wallSeconds([&] {
        for (std::size_t i = 0; i < kBlocks; ++i) work();
    });
}

const Work kNoWork = [] {};

// `side(work, threads)` returns the seconds of a pass. The work is made as long as a pass without it.
Pair sideBySide(const std::function<double(const Work&, std::int32_t)>& side, std::int32_t threads) {
    side(kNoWork, 0);
    const Work work = BusyWork(std::min(side(kNoWork, 0), side(kNoWork, 0)) / kBlocks);
    const auto peer = [=] { return std::max(side(kNoWork, 0), timedWork(work)); };
    const auto ours = [=] { return side(work, threads); };
    return {peer, ours, static_cast<double>(kBlocks)};
}

Pair reading(const Scratch& scratch) {
    const std::string name = scratch.path("rows");
    writeRows(*newPart(name, 0), surveyRows(kPass), kNoWork);
    auto block = std::make_shared<orva::blockBuffer>(kBlockSize);
    return sideBySide(
        [=](const Work& work, std::int32_t threads) {
            const auto stream = opened(name, threads);
            return wallSeconds([&] { readRows(*stream, block->get(), work); });
        },
        2);
}

Pair writing(const Scratch& scratch) {
    const std::string name = scratch.path("written");
    auto rows = std::make_shared<Bytes>(surveyRows(kPass));
    return sideBySide(
        [=](const Work& work, std::int32_t threads) {
            const auto stream = newPart(name, threads);
            return wallSeconds([&] { writeRows(*stream, *rows, work); });
        },
        1);
}

// `fromDisk`: not from the page cache, so the directory should be on a disk.
Pair readingPlain(const Scratch& scratch, bool fromDisk) {
    const std::string name = scratch.made("plain", noise(kPass));
    auto block = std::make_shared<orva::blockBuffer>(kBlockSize);
    return sideBySide(
        [=](const Work& work, std::int32_t threads) {
            if (fromDisk) BareFile(name, O_RDWR).forgetPages();
            ORVA_FileStream stream(name.c_str(), "rb");
            if (threads != 0) stream.EnableMultiThreadReading();
            return wallSeconds([&] { readRows(stream, block->get(), work); });
        },
        1);
}

// Returns the length of the stream; `to` has deflateRoom() bytes.
std::size_t deflate(zlibCompressBlock& codec, const unsigned char* block, unsigned char* to) {
    const blockOutcome outcome = codec.deflateWhole(block, kBlockSize, to, orva::deflateRoom());
    require(outcome.end == blockOutcome::complete, "the codec alone fails");
    return outcome.produced;
}

std::vector<Bytes> deflatedBlocks(const Bytes& rows) {
    std::vector<Bytes> blocks;
    zlibCompressBlock codec;
    for (std::size_t i = 0; i < kBlocks; ++i) {
        Bytes block(orva::deflateRoom());
        block.resize(deflate(codec, rows.data() + i * kBlockSize, block.data()));
        blocks.push_back(std::move(block));
    }
    return blocks;
}

void inflate(zlibCompressBlock& codec, const Bytes& block, unsigned char* to) {
    const blockOutcome outcome =
        codec.inflateWhole(block.data(), static_cast<std::uint32_t>(block.size()), to, kBlockSize);
    require(outcome.end == blockOutcome::complete, "the codec alone fails");
}

// What the machine allows two threads that take turns, without stream, index and file: one inflates a block, the other
// copies it out and works on it.
Pair inflatingAlone() {
    auto blocks = std::make_shared<std::vector<Bytes>>(deflatedBlocks(surveyRows(kPass)));
    auto made = std::make_shared<orva::blockBuffer>(kBlockSize);
    auto taken = std::make_shared<orva::blockBuffer>(kBlockSize);
    return sideBySide(
        [=](const Work& work, std::int32_t threads) {
            zlibCompressBlock codec;
            ktSemaphore wanted{1};
            ktSemaphore ready{0};
            const auto makeAll = [&] {
                for (const Bytes& block : *blocks) {
                    wanted.waitSemaphore();
                    inflate(codec, block, made->get());
                    ready.postSemaphore();
                }
            };
            std::thread other(threads != 0 ? std::function<void()>(makeAll) : kNoWork);
            const double seconds = wallSeconds([&] {
                for (const Bytes& block : *blocks) {
                    threads != 0 ? static_cast<void>(ready.waitSemaphore()) : inflate(codec, block, made->get());
                    std::memcpy(taken->get(), made->get(), kBlockSize);
                    wanted.postSemaphore();
                    work();
                }
            });
            other.join();
            return seconds;
        },
        1);
}

// The codec alone over the same blocks, every second one on each of two threads.
class CodecOnTwoThreads {
public:
    using Step = std::function<void(zlibCompressBlock&, std::size_t block, unsigned char* to)>;
    explicit CodecOnTwoThreads(Step step) : fStep(std::move(step)) {}

    double operator()() {
        return wallSeconds([this] {
            std::thread other([this] { pass(1); });
            pass(0);
            other.join();
        });
    }

private:
    void pass(std::size_t thread) {
        for (std::size_t i = thread; i < kBlocks; i += 2) {
            fStep(fCodecs[thread], i, fRoom[thread].get());
        }
    }

    const Step fStep;
    zlibCompressBlock fCodecs[2];
    orva::blockBuffer fRoom[2] = {orva::blockBuffer(orva::deflateRoom()), orva::blockBuffer(orva::deflateRoom())};
};

using Rows = Bytes (*)(std::size_t);

Pair writingOnTwo(const Scratch& scratch, Rows make) {
    auto rows = std::make_shared<Bytes>(make(kPass));
    auto codec = std::make_shared<CodecOnTwoThreads>([=](zlibCompressBlock& one, std::size_t i, unsigned char* to) {
        deflate(one, rows->data() + i * kBlockSize, to);
    });
    const auto ours = [=, name = scratch.path("written")] {
        const auto stream = newPart(name, kTwoThreads);
        return wallSeconds([&] { writeRows(*stream, *rows, kNoWork); });
    };
    return {[=] { return (*codec)(); }, ours, static_cast<double>(kBlocks)};
}

Pair readingOnTwo(const Scratch& scratch, Rows make) {
    const Bytes rows = make(kPass);
    const std::string name = scratch.path("rows");
    writeRows(*newPart(name, 0), rows, kNoWork);
    auto deflated = std::make_shared<std::vector<Bytes>>(deflatedBlocks(rows));
    auto codec = std::make_shared<CodecOnTwoThreads>(
        [=](zlibCompressBlock& one, std::size_t i, unsigned char* to) { inflate(one, (*deflated)[i], to); });
    auto block = std::make_shared<orva::blockBuffer>(kBlockSize);
    const auto ours = [=] {
        const auto stream = opened(name, kTwoThreads);
        return wallSeconds([&] { readRows(*stream, block->get(), kNoWork); });
    };
    return {[=] { return (*codec)(); }, ours, static_cast<double>(kBlocks)};
}

}  // namespace

int main(int argc, char** argv) {
    const Scratch scratch;
    const Scratch onDisk(".");  // the build tree's disk; a directory for temporary files may lie in memory
    add("worker: read beside a consumer / the longer of both", timeAtMost(1.15), [&] { return reading(scratch); });
    add("worker: the codec alone beside a consumer / the longer of both", noGoal(), inflatingAlone);
    add("worker: write beside a producer / the longer of both", timeAtMost(1.15), [&] { return writing(scratch); });
    // The worker's buffer, the stream's and the caller's: two copies of each block against one read of it.
    add("worker: plain read from disk beside a consumer / the longer of both", noGoal(),
        [&] { return readingPlain(onDisk, true); });
    add("worker: plain read from memory beside a consumer / the longer of both", noGoal(),
        [&] { return readingPlain(scratch, false); });
    const std::pair<std::string, Rows> kinds[] = {{"survey", surveyRows}, {"text", textRows}};
    for (const auto& [name, rows] : kinds) {
        add("two threads: write, " + name + " / the codec on two threads", timeAtMost(1.25),
            [&scratch, rows = rows] { return writingOnTwo(scratch, rows); });
        add("two threads: read, " + name + " / the codec on two threads", timeAtMost(1.25),
            [&scratch, rows = rows] { return readingOnTwo(scratch, rows); });
    }
    return run(argc, argv);
}
