// What the workers win. The caller works as long on each block as the road does; side by side the pass should take
// little longer than the longer of the two alone. Timed by the clock on the wall, so these want a machine with two idle
// cores.
#include "benchData.h"
#include "blockBuffer.h"
#include "paired.h"

#include <orva/filestr.h>
#include <orva/zcmpsFilestr.h>

#include <fcntl.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>

namespace {

using namespace bench;

constexpr std::int64_t kRow0 = 1'000;
constexpr std::size_t kBlocks = 20;
constexpr std::size_t kPass = kBlocks * std::size_t{kBlockSize};

using Work = std::function<void()>;

// The caller's side: requests of a block, and its own work on each.
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

std::unique_ptr<zcmpsFilestr> newPart(const std::string& name, std::int32_t threads) {
    ORVA_FileStream dictionary(name.c_str(), "w+b");
    const Bytes bytes(kRow0);
    dictionary.Write(bytes.data(), kRow0);
    auto stream = std::make_unique<zcmpsFilestr>(dictionary);
    stream->setMultiThread(threads);
    stream->setRow0Pos(kRow0);
    stream->Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
    return stream;
}

std::unique_ptr<zcmpsFilestr> opened(const std::string& name, std::int32_t threads) {
    auto stream = std::make_unique<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "rb"));
    stream->setMultiThread(threads);
    stream->readFilePosInfo(kRow0, false);
    return stream;
}

double timedWork(const Work& work) {
    return wallSeconds([&] {
        for (std::size_t i = 0; i < kBlocks; ++i) work();
    });
}

const Work kNoWork = [] {};

// `road(work, threads)` gives the seconds of a pass. The work is made as long as a pass without it.
Pair sideBySide(const std::function<double(const Work&, std::int32_t)>& road, std::int32_t threads) {
    road(kNoWork, 0);
    const Work work = BusyWork(std::min(road(kNoWork, 0), road(kNoWork, 0)) / kBlocks);
    const auto peer = [=] { return std::max(road(kNoWork, 0), timedWork(work)); };
    const auto ours = [=] { return road(work, threads); };
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

// `fromDisk`: not from the page cache, so the directory should lie on a disk.
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

}  // namespace

int main(int argc, char** argv) {
    const Scratch scratch;
    const Scratch onDisk(".");  // the build tree's disk; a directory for temporary files may lie in memory
    add("worker: read beside a consumer / the longer of both", timeAtMost(1.15), [&] { return reading(scratch); });
    add("worker: write beside a producer / the longer of both", timeAtMost(1.15), [&] { return writing(scratch); });
    // The worker's buffer, the stream's and the caller's: two copies of each block stand against one read of it.
    add("worker: plain read from disk beside a consumer / the longer of both", noGoal(),
        [&] { return readingPlain(onDisk, true); });
    add("worker: plain read from memory beside a consumer / the longer of both", noGoal(),
        [&] { return readingPlain(scratch, false); });
    return run(argc, argv);
}
