// Look-ups in the block index, against a plain binary search over the same records: shows what the cursor and the guess
// gain if they hit, and that they cost little if they cannot.
#include "format/filePosInfo.h"
#include "paired.h"

#include <orva/blockSize.h>
#include <orva/compressedLayout.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace bench;

constexpr std::uint32_t kRecords = 1'000'000;
constexpr std::int64_t kTerabyte = std::int64_t{1} << 40;

using Positions = std::vector<std::int64_t>;

struct Index {
    filePosInfo info{kBlockSize};
    std::vector<filePosRecord> records;
};

// `nextSize` returns the size of the next block.
template <class NextSize>
std::shared_ptr<Index> made(std::int64_t row0, NextSize nextSize) {
    auto index = std::make_shared<Index>();
    filePosInfo written(kBlockSize);
    std::int64_t pos = row0;
    for (std::uint32_t i = 0; i < kRecords; ++i) {
        const std::int32_t size = nextSize();
        written.addRecord(pos, row0 + i, size, 1);
        index->records.push_back({pos, row0 + i, size, 1});
        pos += size;
    }
    std::uint32_t length = 0;
    index->info.parseForRead(written.serialize(length), false);
    return index;
}

std::shared_ptr<Index> regular(std::uint32_t length) {
    return made(1'000, [length] { return static_cast<std::int32_t>(length); });
}

// Flushed every few rows, after a dictionary part of absurd length: every guess is far off.
std::shared_ptr<Index> shortBlocks() {
    return made(kTerabyte,
                [engine = std::mt19937(1)]() mutable { return static_cast<std::int32_t>(1 + engine() % 999); });
}

Positions inOrder(const Index& index) {
    Positions positions;
    for (const filePosRecord& record : index.records) positions.push_back(record.orginalPos);
    return positions;
}

Positions anywhere(const Index& index) {
    std::mt19937_64 engine(2);
    const filePosRecord& last = index.records.back();
    const std::int64_t begin = index.records.front().orginalPos;
    std::uniform_int_distribution<std::int64_t> position(begin, last.orginalPos + last.orginalSize - 1);
    Positions positions(kRecords);
    std::generate(positions.begin(), positions.end(), [&] { return position(engine); });
    return positions;
}

Pair lookUps(const std::shared_ptr<Index>& index, const Positions& where) {
    const auto positions = std::make_shared<Positions>(where);
    const auto pass = [positions](auto find) {
        return [=] {
            return threadSeconds([&] {
                std::int64_t sum = 0;
                for (const std::int64_t pos : *positions) sum += find(pos).translatePos;
                benchmark::DoNotOptimize(sum);
            });
        };
    };
    const auto peer = pass([index](std::int64_t pos) {
        const auto behind = std::upper_bound(index->records.begin(), index->records.end(), pos,
                                             [](std::int64_t p, const filePosRecord& r) { return p < r.orginalPos; });
        return *(behind - 1);
    });
    const auto ours = pass([index](std::int64_t pos) { return index->info.findRecord(pos); });
    return {peer, ours, static_cast<double>(kRecords)};
}

}  // namespace

int main(int argc, char** argv) {
    for (const std::uint32_t length : {kBlockSize, 1U << 20, 1U << 18, 1U << 16}) {
        const std::string blocks = ", a million blocks of " + std::to_string(length) + " / binary search";
        add("index: in order" + blocks, noGoal(), [=] {
            const auto index = regular(length);
            return lookUps(index, inOrder(*index));
        });
        add("index: anywhere" + blocks, noGoal(), [=] {
            const auto index = regular(length);
            return lookUps(index, anywhere(*index));
        });
    }
    add("index: anywhere, a million short blocks, row 0 at a terabyte / binary search", noGoal(), [] {
        const auto index = shortBlocks();
        return lookUps(index, anywhere(*index));
    });
    return run(argc, argv);
}
