// A thousand bytes from anywhere: a stream of rows in blocks of several lengths, against htslib's bgzf, whose blocks
// are of 64 KiB, and against the minimum, one read of a block's bytes and one inflate.
#include "benchData.h"
#include "paired.h"

#include <orva/orva.h>

#include <fcntl.h>
#include <htslib/bgzf.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kRows = std::size_t{64} << 20;
constexpr std::uint32_t kRowSize = 1000;
constexpr int kLookUps = 40;

std::vector<std::int64_t> places() {
    std::mt19937_64 random(7);
    std::vector<std::int64_t> list(kLookUps);
    for (std::int64_t& place : list) place = static_cast<std::int64_t>(random() % (kRows - kRowSize));
    return list;
}

// One file of the rows in each format.
struct Files {
    explicit Files(std::uint32_t blockLength) : length(blockLength) {
        const bench::Bytes rows = bench::surveyRows(kRows);
        ORVA_FileStream dictionary(scratch.made("rows.orva", {'d'}).c_str(), "r+b");
        zcmpsFilestr writer(dictionary);
        writer.setBlockLength(length);
        writer.setRow0Pos(1);
        writer.Seek(1, ORVA_StrBaseIO::SeekFromStart);
        writer.Write(rows.data(), static_cast<std::uint32_t>(rows.size()));
        writer.Close();
        BGZF* const bgzf = bgzf_open(bgzfName.c_str(), "w1");
        bench::require(bgzf != nullptr && bgzf_index_build_init(bgzf) == 0, "bgzf_open");
        bench::require(bgzf_write(bgzf, rows.data(), rows.size()) == static_cast<ssize_t>(rows.size()), "bgzf_write");
        bench::require(bgzf_index_dump(bgzf, bgzfName.c_str(), ".gzi") == 0 && bgzf_close(bgzf) == 0, "bgzf_close");
    }

    const std::uint32_t length;
    bench::Scratch scratch;
    const std::string name = scratch.path("rows.orva");
    const std::string bgzfName = scratch.path("rows.gz");
};

// Made only once.
const Files& files(std::uint32_t length) {
    static std::map<std::uint32_t, Files> made;
    return made.try_emplace(length, length).first->second;
}

bench::Side stream(const Files& from) {
    auto source = std::make_shared<ORVA_FileStream>(from.name.c_str(), "rb");
    auto reader = std::make_shared<zcmpsFilestr>(*source);
    reader->readFilePosInfo(1, false);
    return [reader, source, row = std::vector<char>(kRowSize), at = places()]() mutable {
        return bench::threadSeconds([&] {
            for (const std::int64_t place : at) {
                reader->Seek(1 + place, ORVA_StrBaseIO::SeekFromStart);
                bench::require(reader->Read(row.data(), kRowSize) == kRowSize, "Read");
            }
        });
    };
}

bench::Side bgzf(const Files& from) {
    const std::shared_ptr<BGZF> file(bgzf_open(from.bgzfName.c_str(), "r"), bgzf_close);
    bench::require(file != nullptr && bgzf_index_load(file.get(), from.bgzfName.c_str(), ".gzi") == 0, "bgzf_open");
    return [file, row = std::vector<char>(kRowSize), at = places()]() mutable {
        return bench::threadSeconds([&] {
            for (const std::int64_t place : at) {
                bench::require(bgzf_useek(file.get(), place, SEEK_SET) == 0, "bgzf_useek");
                bench::require(bgzf_read(file.get(), row.data(), kRowSize) == kRowSize, "bgzf_read");
            }
        });
    };
}

bench::Side oneInflate(const Files& from) {
    auto part = std::make_shared<orva::finishedPart>(from.name, orva::foundPart{1, false});
    auto file = std::make_shared<bench::BareFile>(from.name, O_RDONLY);
    return [part, file, length = from.length, compressed = bench::Bytes(kBlockSize), rows = bench::Bytes(kBlockSize),
            at = places()]() mutable {
        return bench::threadSeconds([&] {
            zlibCompressBlock codec;
            for (const std::int64_t place : at) {
                const filePosRecord& block = part->block(static_cast<std::uint32_t>(place / length));
                const auto size = static_cast<std::uint32_t>(block.translateSize);
                file->seek(block.translatePos);
                file->read(compressed.data(), size);
                bench::require(
                    codec.inflateWhole(compressed.data(), size, rows.data(), kBlockSize).end == blockOutcome::complete,
                    "inflate");
            }
        });
    };
}

}  // namespace

int main(int argc, char** argv) {
    for (const std::uint32_t length : {1U << 16, 1U << 18, 1U << 20, kBlockSize}) {
        const std::string row = "random row of 1000 bytes, blocks of " + std::to_string(length);
        const bench::Goal besideBgzf = length == 1U << 16 ? bench::timeAtMost(1.0) : bench::noGoal();
        bench::add(row + " / bgzf", besideBgzf, [=] {
            return bench::Pair{bgzf(files(length)), stream(files(length)), kLookUps};
        });
        bench::add(row + " / a read and one inflate", bench::timeAtMost(1.1), [=] {
            return bench::Pair{oneInflate(files(length)), stream(files(length)), kLookUps};
        });
    }
    return bench::run(argc, argv);
}
