// The compressed stream without threads, against the least that can be done: the codec alone, one copy between the
// caller's memory and an aligned block that is kept, and bare system calls on the compressed bytes.
#include "base/blockBuffer.h"
#include "benchData.h"
#include "format/blockTransfer.h"
#include "paired.h"

#include <orva/compressedLayout.h>
#include <orva/filestr.h>
#include <orva/zcmpsFilestr.h>
#include <orva/zlibCompress.h>

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

namespace {

using namespace bench;

constexpr std::int64_t kRow0 = 1'000;
constexpr std::size_t kPass = 16 * std::size_t{kBlockSize};
constexpr std::uint32_t kSmall = 1U << 20;
constexpr std::uint32_t kSixteenBlocks = kPass;

// Calls `take(place, size)` for the pieces into which such requests over `size` bytes fall.
template <class Take>
void inRequests(std::uint32_t request, std::size_t size, Take take) {
    for (std::size_t at = 0; at < size; at += request) {
        take(at, static_cast<std::uint32_t>(std::min<std::size_t>(request, size - at)));
    }
}

std::unique_ptr<zcmpsFilestr> newPart(const std::string& name) {
    ORVA_FileStream dictionary(name.c_str(), "w+b");
    const Bytes bytes(kRow0);
    dictionary.Write(bytes.data(), kRow0);
    auto stream = std::make_unique<zcmpsFilestr>(dictionary);
    stream->setRow0Pos(kRow0);
    stream->Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
    return stream;
}

double writeRows(const std::string& name, const Bytes& rows, std::uint32_t request) {
    const auto stream = newPart(name);
    return threadSeconds([&] {
        inRequests(request, rows.size(),
                   [&](std::size_t at, std::uint32_t size) { stream->Write(rows.data() + at, size); });
        stream->Close();
    });
}

class BareWriter {
public:
    double operator()(const std::string& name, const Bytes& rows) {
        BareFile file(name, O_WRONLY | O_CREAT | O_TRUNC);
        file.write(Bytes(kRow0).data(), kRow0);
        return threadSeconds([&] {
            file.seek(kRow0 + kHeadingSize);
            std::size_t blocks = 0;
            inRequests(kSmall, rows.size(),
                       [&](std::size_t at, std::uint32_t size) { blocks += take(file, &rows[at], size); });
            file.write(Bytes((blocks + 1) * kRecordSize).data(), (blocks + 1) * kRecordSize);
            file.seek(kRow0);
            file.write(Bytes(kHeadingSize).data(), kHeadingSize);
            file.close();
        });
    }

private:
    std::size_t take(const BareFile& file, const unsigned char* from, std::uint32_t size) {
        const std::uint32_t count = std::min(size, kBlockSize - fFilled);
        std::memcpy(fBlock.get() + fFilled, from, count);
        fFilled += count;
        if (fFilled < kBlockSize) return 0;
        const blockOutcome outcome =
            fCodec.deflateWhole(fBlock.get(), kBlockSize, fDeflated.get(), orva::deflateRoom());
        require(outcome.end == blockOutcome::complete, "the block does not deflate");
        file.write(fDeflated.get(), outcome.produced);
        std::memcpy(fBlock.get(), from + count, size - count);
        fFilled = size - count;
        return 1;
    }

    zlibCompressBlock fCodec;
    orva::blockBuffer fBlock{kBlockSize};
    orva::blockBuffer fDeflated{orva::deflateRoom()};
    std::uint32_t fFilled = 0;
};

std::vector<filePosRecord> recordsOf(const std::string& name) {
    const BareFile file(name, O_RDONLY);
    compressionHeading heading{};
    file.seek(kRow0);
    file.read(&heading, sizeof heading);
    std::vector<filePosRecord> records(static_cast<std::size_t>(heading._size / kRecordSize));
    file.seek(heading._indexPos);
    file.read(records.data(), static_cast<std::size_t>(heading._size));
    records.erase(records.begin());
    return records;
}

class BareReader {
public:
    explicit BareReader(const std::string& name) : fFile(name, O_RDONLY), fRecords(recordsOf(name)) {}

    double operator()(unsigned char* to) {
        return threadSeconds([&] {
            fFile.seek(fRecords.front().translatePos);
            fNext = 0;
            fAvailable = 0;
            inRequests(kSmall, kPass, [&](std::size_t, std::uint32_t size) { give(to, size); });
        });
    }

private:
    void give(unsigned char* to, std::uint32_t size) {
        while (size != 0) {
            if (fAvailable == 0) fetch();
            const std::uint32_t count = std::min(size, fAvailable);
            std::memcpy(to, fBlock.get() + fSize - fAvailable, count);
            fAvailable -= count;
            to += count;
            size -= count;
        }
    }

    void fetch() {
        const filePosRecord& record = fRecords[fNext++];
        const auto deflated = static_cast<std::uint32_t>(record.translateSize);
        fFile.read(fCompressed.get(), deflated);
        fSize = static_cast<std::uint32_t>(record.orginalSize);
        const blockOutcome outcome = fCodec.inflateWhole(fCompressed.get(), deflated, fBlock.get(), fSize);
        require(outcome.end == blockOutcome::complete && outcome.produced == fSize, "the block does not inflate");
        fAvailable = fSize;
    }

    BareFile fFile;
    std::vector<filePosRecord> fRecords;
    zlibCompressBlock fCodec;
    orva::blockBuffer fCompressed{kBlockSize};
    orva::blockBuffer fBlock{kBlockSize};
    std::size_t fNext = 0;
    std::uint32_t fSize = 0;
    std::uint32_t fAvailable = 0;
};

Pair writing(const Scratch& scratch, const Bytes& rows, std::uint32_t request) {
    auto bare = std::make_shared<BareWriter>();
    auto kept = std::make_shared<Bytes>(rows);
    const auto peer = [=, name = scratch.path("peer")] { return (*bare)(name, *kept); };
    const auto ours = [=, name = scratch.path("ours")] { return writeRows(name, *kept, request); };
    return {peer, ours, static_cast<double>(kPass / kBlockSize)};
}

Pair reading(const Scratch& scratch, const Bytes& rows, std::uint32_t request) {
    const std::string name = scratch.path("rows");
    writeRows(name, rows, request);
    auto to = std::make_shared<orva::blockBuffer>(request);
    auto bare = std::make_shared<BareReader>(name);
    auto stream = std::make_shared<zcmpsFilestr>(ORVA_FileStream(name.c_str(), "rb"));
    stream->readFilePosInfo(kRow0, false);
    const auto peer = [=] { return (*bare)(to->get()); };
    const auto ours = [=] {
        return threadSeconds([&] {
            stream->Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
            inRequests(request, kPass, [&](std::size_t, std::uint32_t size) {
                require(stream->Read(to->get(), size) == size, "short Read");
            });
        });
    };
    return {peer, ours, static_cast<double>(kPass / kBlockSize)};
}

}  // namespace

int main(int argc, char** argv) {
    const Scratch scratch;
    struct Kind {
        const char* name;
        Bytes (*rows)(std::size_t);
    };
    for (const Kind kind : {Kind{"survey", surveyRows}, Kind{"text", textRows}, Kind{"incompressible", noise}}) {
        const std::string name = kind.name;
        const auto rows = kind.rows;
        for (const auto& [request, size] : {std::pair("1 MiB", kSmall), std::pair("16 blocks", kSixteenBlocks)}) {
            const std::string by = name + " by " + request;
            add(
                "compressed: write, " + by + " / codec, copy, write()", timeAtMost(1.05),
                [&scratch, rows, size = size] { return writing(scratch, rows(kPass), size); }, 7);
            add(
                "compressed: read, " + by + " / read(), codec, copy", timeAtMost(1.05),
                [&scratch, rows, size = size] { return reading(scratch, rows(kPass), size); }, 7);
        }
    }
    return run(argc, argv);
}
