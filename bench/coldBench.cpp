// The cost for a user who starts a process for a single task: each pass is a new process, with no memory touched and
// nothing loaded before. The peer does the same with the bare codec and system calls, in memory of malloc.
#include "benchData.h"
#include "paired.h"

#include <orva/compressedLayout.h>
#include <orva/filestr.h>
#include <orva/reader.h>
#include <orva/zcmpsFilestr.h>
#include <orva/zlibCompress.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

namespace {

using namespace bench;

constexpr std::int64_t kRow0 = 1'000;
constexpr std::size_t kWritten = 8'000'000;

// The seconds that `work` takes in a process that has done nothing else: runs this program again, with the name of the
// work.
double inFreshProcess(const std::string& work, const std::string& file) {
    int ends[2];
    require(pipe(ends) == 0, "pipe");
    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        execl("/proc/self/exe", "coldBench", "--work", work.c_str(), file.c_str(), nullptr);
        _exit(1);
    }
    close(ends[1]);
    double seconds = 0;
    const bool whole = read(ends[0], &seconds, sizeof seconds) == sizeof seconds;
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    require(whole && status == 0, "a fresh process failed");
    return seconds;
}

void makePart(const std::string& name, const unsigned char* rows, std::size_t size, std::int32_t threads) {
    ORVA_FileStream dictionary(name.c_str(), "w+b");
    const Bytes bytes(kRow0);
    dictionary.Write(bytes.data(), kRow0);
    zcmpsFilestr stream(dictionary);
    stream.setThreadCount(threads);
    stream.setRow0Pos(kRow0);
    stream.Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
    stream.Write(rows, static_cast<std::uint32_t>(size));
    stream.Close();
}

// The rows after S.
double reading(const std::string& name, std::size_t size) {
    return wallSeconds([&] {
        const std::unique_ptr<std::byte[]> to(new std::byte[size]);
        require(orva::Reader(name, {.row0 = kRow0}).read_at(0, {to.get(), size}) == size, "short");
    });
}

// The first block, by the codec alone. The file's name is followed by the block's compressed size.
double bareBlock(const std::string& name) {
    const std::size_t at = name.rfind(':');
    const auto size = static_cast<std::uint32_t>(std::stoul(name.substr(at + 1)));
    return wallSeconds([&] {
        const std::unique_ptr<unsigned char[]> from(new unsigned char[size]);
        const std::unique_ptr<unsigned char[]> to(new unsigned char[kBlockSize]);
        const BareFile file(name.substr(0, at), O_RDONLY);
        file.seek(kRow0 + 24);
        file.read(from.get(), size);
        zlibCompressBlock codec;
        require(codec.inflateWhole(from.get(), size, to.get(), kBlockSize).produced == kBlockSize, "inflate");
    });
}

double writing(const std::string& name) {
    const Bytes rows = surveyRows(kWritten);
    return wallSeconds([&] { makePart(name + ".new", rows.data(), rows.size(), 0); });
}

// The codec alone over the same rows.
double bareWriting(const std::string& name) {
    const Bytes rows = surveyRows(kWritten);
    return wallSeconds([&] {
        const std::uint32_t room = zlibCompressBlock::compressRoom(kBlockSize);
        const std::unique_ptr<unsigned char[]> copy(new unsigned char[kBlockSize]);
        const std::unique_ptr<unsigned char[]> to(new unsigned char[room]);
        zlibCompressBlock codec;
        const BareFile file(name + ".new", O_RDWR | O_CREAT | O_TRUNC);
        for (std::size_t done = 0; done < kWritten; done += kBlockSize) {
            const auto size = static_cast<std::uint32_t>(std::min<std::size_t>(kBlockSize, kWritten - done));
            std::memcpy(copy.get(), rows.data() + done, size);
            file.write(to.get(), codec.deflateWhole(copy.get(), size, to.get(), room).produced);
        }
    });
}

int runWork(const std::string& work, const std::string& file) {
    double seconds = 0;
    if (work == "block") seconds = reading(file, kBlockSize);
    if (work == "rows") seconds = reading(file, 1'000);
    if (work == "bareBlock") seconds = bareBlock(file);
    if (work == "write") seconds = writing(file);
    if (work == "bareWrite") seconds = bareWriting(file);
    return write(STDOUT_FILENO, &seconds, sizeof seconds) == sizeof seconds ? 0 : 1;
}

void addCold(const std::string& name, const std::string& peer, const std::string& ours) {
    add(name, noGoal(), [=] {
        const auto scratch = std::make_shared<Scratch>();
        const std::string file = scratch->path("rows");
        const Bytes rows = surveyRows(3 * std::size_t{kBlockSize});
        makePart(file, rows.data(), rows.size(), 0);
        filePosRecord first{};
        const BareFile made(file, O_RDONLY);
        compressionHeading heading{};
        made.seek(kRow0);
        made.read(&heading, sizeof heading);
        made.seek(heading._indexPos + kRecordSize);
        made.read(&first, sizeof first);
        const std::string peerFile = peer == "bareBlock" ? file + ":" + std::to_string(first.translateSize) : file;
        return Pair{[=] { return scratch ? inFreshProcess(peer, peerFile) : 0; },
                    [=] { return scratch ? inFreshProcess(ours, file) : 0; }};
    });
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "--work") return runWork(argv[2], argv[3]);
    addCold("cold: first block / read(), codec, memory of malloc", "bareBlock", "block");
    addCold("cold: first 1,000 bytes / read(), codec, memory of malloc", "bareBlock", "rows");
    addCold("cold: write of 8 MB / codec, copy, write(), memory of malloc", "bareWrite", "write");
    return run(argc, argv);
}
