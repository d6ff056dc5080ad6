// The plain stream against bare system calls for large requests and against the C library's streams for small ones.
#include "base/blockBuffer.h"
#include "benchData.h"
#include "paired.h"

#include <orva/filestr.h>

#include <fcntl.h>
#include <stdio_ext.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

using namespace bench;

constexpr std::uint32_t kRequest = 4U << 20;
constexpr std::size_t kLargePass = 32 * std::size_t{kRequest};
constexpr std::size_t kSmallPass = 12 * std::size_t{kBlockSize};

// A C stream whose buffer is as large as ours and aligned like ours.
struct CStream {
    CStream(const std::string& name, const char* mode) : fBuffer(kBlockSize), fFile(std::fopen(name.c_str(), mode)) {
        require(fFile != nullptr, "cannot open the file of the C stream");
        require(std::setvbuf(fFile, reinterpret_cast<char*>(fBuffer.get()), _IOFBF, kBlockSize) == 0, "setvbuf");
    }
    CStream(const CStream&) = delete;
    CStream& operator=(const CStream&) = delete;
    ~CStream() { std::fclose(fFile); }

    orva::blockBuffer fBuffer;
    std::FILE* fFile;
};

// As hosts hold it: by its interface, so that every call is virtual.
std::shared_ptr<ORVA_FileStream> opened(const std::string& name, const char* mode) {
    auto stream = std::make_shared<ORVA_FileStream>(name.c_str(), mode);
    require(stream->Good() == 1, "cannot open the file of the stream");
    benchmark::DoNotOptimize(stream);
    return stream;
}

Pair largeReads(const Scratch& scratch) {
    const std::string name = scratch.made("large", noise(kLargePass));
    auto buffer = std::make_shared<orva::blockBuffer>(kRequest);
    auto bare = std::make_shared<BareFile>(name, O_RDONLY);
    auto stream = opened(name, "rb");
    const auto peer = [=] {
        return threadSeconds([&] {
            bare->seek(0);
            for (std::size_t done = 0; done < kLargePass; done += kRequest) bare->read(buffer->get(), kRequest);
        });
    };
    const auto ours = [=] {
        return threadSeconds([&] {
            stream->Seek(0, ORVA_StrBaseIO::SeekFromStart);
            for (std::size_t done = 0; done < kLargePass; done += kRequest) {
                require(stream->Read(buffer->get(), kRequest) == kRequest, "short read");
            }
        });
    };
    return {peer, ours, static_cast<double>(kLargePass / kRequest)};
}

Pair smallReads(const Scratch& scratch, std::uint32_t size) {
    const std::string name = scratch.made("small", noise(kSmallPass));
    auto stdio = std::make_shared<CStream>(name, "rb");
    auto stream = opened(name, "rb");
    const std::size_t count = kSmallPass / size;
    auto record = std::make_shared<Bytes>(size);
    const auto peer = [=] {
        return threadSeconds([&] {
            std::rewind(stdio->fFile);
            std::size_t good = 0;
            for (std::size_t i = 0; i < count; ++i) good += fread_unlocked(record->data(), size, 1, stdio->fFile);
            require(good == count, "short fread");
        });
    };
    const auto ours = [=] {
        return threadSeconds([&] {
            stream->Seek(0, ORVA_StrBaseIO::SeekFromStart);
            std::size_t good = 0;
            for (std::size_t i = 0; i < count; ++i) good += stream->Read(record->data(), size);
            require(good == count * size, "short Read");
        });
    };
    return {peer, ours, static_cast<double>(count)};
}

// Overwrites existing bytes, so that neither side pays for new pages; each ends flushed.
Pair smallWrites(const std::string& peerName, const std::string& oursName, std::uint32_t size) {
    auto stdio = std::make_shared<CStream>(peerName, "wb");
    auto stream = opened(oursName, "wb");
    const std::size_t count = kSmallPass / size;
    auto record = std::make_shared<Bytes>(noise(size));
    const auto peer = [=] {
        return threadSeconds([&] {
            std::fseek(stdio->fFile, 0, SEEK_SET);
            std::size_t good = 0;
            for (std::size_t i = 0; i < count; ++i) good += fwrite_unlocked(record->data(), size, 1, stdio->fFile);
            require(good == count && std::fflush(stdio->fFile) == 0, "short fwrite");
        });
    };
    const auto ours = [=] {
        return threadSeconds([&] {
            stream->Seek(0, ORVA_StrBaseIO::SeekFromStart);
            std::size_t good = 0;
            for (std::size_t i = 0; i < count; ++i) good += stream->Write(record->data(), size);
            stream->Flush();
            require(good == count * size, "short Write");
        });
    };
    return {peer, ours, static_cast<double>(count)};
}

}  // namespace

int main(int argc, char** argv) {
    const Scratch scratch;
    add(
        "stream: Read of 4 MiB / read()", speedAtLeast(0.95), [&] { return largeReads(scratch); }, 15);
    for (const std::uint32_t size : {100U, 8U}) {
        const std::string bytes = std::to_string(size) + " bytes";
        const Goal goal = timeAtMost(size == 100 ? 0.9 : 0.75);
        add(
            "stream: Read of " + bytes + " / fread_unlocked", goal,
            [&scratch, size] { return smallReads(scratch, size); }, 15);
        add(
            "stream: Write of " + bytes + " / fwrite_unlocked", goal,
            [&scratch, size] { return smallWrites(scratch.path("peer"), scratch.path("ours"), size); }, 15);
        add(
            "stream: Write of " + bytes + " to the null device / fwrite_unlocked", goal,
            [size] { return smallWrites("/dev/null", "/dev/null", size); }, 15);
    }
    return run(argc, argv);
}
