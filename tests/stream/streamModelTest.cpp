// Random operations on a stream, over all its paths.
#include "stream/streamScript.h"

#include <orva/blockSize.h>

namespace {

class StreamModel : public support::ScriptTest, public testing::WithParamInterface<std::uint64_t> {
protected:
    StreamModel() : fRandom(GetParam()) { open(fRandom.below(2 * kBlockSize)); }

    // Mostly small, now and then around the sizes at which a path ends or begins.
    std::int64_t anySize() {
        if (fRandom.oneIn(500)) return kBlockSize + fRandom.between(-513, 513);
        if (fRandom.oneIn(20)) return 512 + fRandom.between(-2, 2);
        return fRandom.between(0, 199);
    }
    std::string anyStep() {
        const std::int64_t kind = fRandom.between(0, 1'999);
        if (kind < 800) return "r" + std::to_string(anySize());
        if (kind < 1'400) return (model->position() > 16'000'000 ? "s" : "w") + std::to_string(anySize());
        if (kind < 1'960) return "m" + std::to_string(fRandom.between(-700, 700));
        if (kind < 1'968) return "s" + std::to_string(fRandom.between(0, 3) * kBlockSize + anySize());
        if (kind < 1'976) return "e" + std::to_string(fRandom.between(-900, 900));
        constexpr const char* kOthers[] = {"p0", "p1", "p1", "t0", "t1", "t1", "f", "f", "c", "o", "k", "f d0"};
        return kOthers[fRandom.below(std::size(kOthers))];
    }

    support::RandomBytes fRandom;
};

TEST_P(StreamModel, ReadsWhatWasWritten) {
    for (int i = 0; i < 6'000; ++i) {
        run(anyStep());
        ASSERT_FALSE(HasFailure()) << "at operation " << i;
    }
    close();
}
INSTANTIATE_TEST_SUITE_P(Seeds, StreamModel, testing::Range<std::uint64_t>(1, 9));

}  // namespace
