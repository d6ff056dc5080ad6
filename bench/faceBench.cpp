// orva::Reader, Rows and Writer against the least that can be done: the codec and bare reads for whole files, sorted
// rows for rows in any order, one big write for many small ones.
#include "base/blockBuffer.h"
#include "benchData.h"
#include "paired.h"

#include <orva/rows.h>
#include <orva/writer.h>
#include <orva/zlibCompress.h>

#include <fcntl.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <thread>

namespace {

using namespace bench;

constexpr std::size_t kPass = 32 * std::size_t{kBlockSize};
constexpr orva::i64 kKeptReads = 1'000'000;

struct Files {
    Files() : rows(measuredRows(kPass)) {
        orva::Writer writer(scratch.path("rows"), {.durable = false});
        writer.write(std::as_bytes(std::span(rows)));
        writer.finish();
    }
    Scratch scratch;
    const Bytes rows;
    Bytes to = Bytes(kPass);
};

Pair wholeFile(const std::shared_ptr<Files>& files) {
    const Side peer = [files] {
        const auto blocks = orva::Reader(files->scratch.path("rows")).blocks();
        const orva::blockBuffer compressed(kBlockSize);
        const BareFile file(files->scratch.path("rows"), O_RDONLY);
        return threadSeconds([&] {
            for (const orva::Block& block : blocks) {
                file.seek(block.file_offset);
                file.read(compressed.get(), static_cast<std::size_t>(block.stored));
                const auto outcome =
                    zlibCompressBlock().inflateWhole(compressed.get(), static_cast<std::uint32_t>(block.stored),
                                                     &files->to[static_cast<std::size_t>(block.rows.offset)],
                                                     static_cast<std::uint32_t>(block.rows.length));
                require(outcome.end == blockOutcome::complete, "a block inflates");
            }
        });
    };
    const Side ours = [files] {
        const orva::Reader reader(files->scratch.path("rows"));
        return threadSeconds([&] {
            const std::size_t got = reader.read_at(0, std::as_writable_bytes(std::span(files->to)));
            require(got == kPass, "all rows are read");
        });
    };
    return {peer, ours, static_cast<double>(kPass / kBlockSize)};
}

Side onThreads(const std::shared_ptr<Files>& files, int threads) {
    const orva::Reader reader(files->scratch.path("rows"), {.threads = threads});
    return [files, reader] {
        return wallSeconds([&] { reader.read_at(0, std::as_writable_bytes(std::span(files->to))); });
    };
}

Side taken(const std::shared_ptr<Files>& files, bool sorted) {
    const orva::Rows<double> rows(orva::Reader(files->scratch.path("rows")));
    std::vector<orva::i64> wanted(1'000);
    std::mt19937_64 random(1);
    for (auto& row : wanted) row = static_cast<orva::i64>(random() % static_cast<std::uint64_t>(rows.size()));
    if (sorted) std::ranges::sort(wanted);
    return [files, rows, wanted] {
        std::vector<double> to(wanted.size());
        return threadSeconds([&] { rows.take(wanted, to); });
    };
}

Side written(const std::shared_ptr<Files>& files, bool inRows) {
    return [files, inRows] {
        orva::Writer writer(files->scratch.path("new"), {.durable = false, .replace = true});
        const auto* values = reinterpret_cast<const double*>(files->rows.data());
        return threadSeconds([&] {
            if (inRows) {
                for (std::size_t i = 0; i < kPass / 8; ++i) writer.write_rows(std::span(values + i, 1));
            } else {
                writer.write_rows(std::span(values, kPass / 8));
            }
            writer.finish();
        });
    };
}

// Two threads read few bytes of an inflated block, through copies of one Reader or through one each.
Side keptRows(const std::shared_ptr<Files>& files, bool oneReader) {
    const orva::Path path = files->scratch.path("rows");
    const orva::Reader one(path), other = oneReader ? one : orva::Reader(path);
    const auto readOn = [](const orva::Reader& reader) {
        std::byte row[16];
        for (orva::i64 i = 0; i < kKeptReads; ++i) reader.read_at(i * 4'099 % 1'000'000, row);
    };
    return [=] {
        return wallSeconds([&] {
            const std::jthread beside(readOn, other);
            readOn(one);
        });
    };
}

}  // namespace

int main(int argc, char** argv) {
    const auto files = std::make_shared<Files>();
    add("reader/all rows against pread and inflate", timeAtMost(1.05), [=] { return wholeFile(files); });
    add("reader/two threads against one", speedAtLeast(1.8), [=] {
        return Pair{onThreads(files, 1), onThreads(files, 2)};
    });
    add("rows/1,000 random ones against sorted", timeAtMost(1.2), [=] {
        return Pair{taken(files, true), taken(files, false)};
    });
    add("rows/16 bytes of a kept block, two threads: one Reader against two", timeAtMost(1.2), [=] {
        return Pair{keptRows(files, false), keptRows(files, true), 2.0 * kKeptReads};
    });
    add("writer/rows of 8 bytes against one write", timeAtMost(1.05), [=] {
        return Pair{written(files, false), written(files, true)};
    });
    return run(argc, argv);
}
