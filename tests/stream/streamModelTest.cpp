// Random operations on a stream beside a byte vector that says what it must read.
#include "stream/modelStream.h"
#include "support/fileCalls.h"

#include <orva/blockSize.h>

#include <gtest/gtest.h>

#include <memory>

namespace {

using support::Bytes;
using support::ModelStream;
using support::RandomBytes;

constexpr std::int64_t kLargest = 16'000'000;

class StreamModel : public support::TempDir, public testing::WithParamInterface<std::uint64_t> {
protected:
    // Mostly small, now and then around the sizes at which a path ends or begins.
    std::size_t anySize() {
        if (fRandom.oneIn(500)) return static_cast<std::size_t>(kBlockSize + fRandom.between(-513, 513));
        if (fRandom.oneIn(20)) return static_cast<std::size_t>(512 + fRandom.between(-2, 2));
        return static_cast<std::size_t>(fRandom.below(200));
    }
    std::int64_t anyPlace() {
        if (fRandom.oneIn(2)) return static_cast<std::int64_t>(fRandom.below(4)) * kBlockSize + fRandom.between(0, 513);
        return static_cast<std::int64_t>(fRandom.below(kLargest));
    }

    void seek(ModelStream& s) {
        if (!fRandom.oneIn(60)) return s.seek(fRandom.between(-700, 700), ORVA_StrBaseIO::SeekFromCurrent);
        if (fRandom.oneIn(3)) return s.seek(fRandom.between(-900, 900), ORVA_StrBaseIO::SeekFromEnd);
        s.seek(anyPlace());
    }

    void write(ModelStream& s) {
        const std::size_t size = anySize();
        if (s.position() + static_cast<std::int64_t>(size) > kLargest) return s.seek(0);
        s.write(fRandom.noise(size));
    }

    void switchPaths(ModelStream& s) {
        fRandom.oneIn(4) ? s.stream().DisablePreReading() : s.stream().EnablePreReading();
        fRandom.oneIn(2) ? s.stream().DisableMultiThreadReading() : s.stream().EnableMultiThreadReading();
    }

    // Copies share no buffer, so both only read until one of them goes.
    void copy() {
        auto other = std::make_unique<ModelStream>(*fStream);
        for (int i = 0; i < 20; ++i) {
            ModelStream& s = fRandom.oneIn(2) ? *other : *fStream;
            if (fRandom.oneIn(5)) s.seek(anyPlace());
            s.read(anySize());
        }
        if (fRandom.oneIn(2)) fStream.swap(other);
    }

    void step() {
        const std::uint64_t kind = fRandom.below(2'000);
        if (kind < 800) {
            fStream->read(anySize());
        } else if (kind < 1'400) {
            write(*fStream);
        } else if (kind < 1'980) {
            seek(*fStream);
        } else if (kind < 1'984) {
            switchPaths(*fStream);
        } else if (kind < 1'990) {
            EXPECT_EQ(fStream->stream().Flush(), 1);
        } else if (kind < 1'995) {
            EXPECT_EQ(fStream->stream().Close(), 1);
        } else if (kind < 1'999) {
            fStream->reset();
        } else {
            copy();
        }
    }

    RandomBytes fRandom{GetParam()};
    support::Watchdog fWatchdog;
    Bytes fContent = fRandom.noise(static_cast<std::size_t>(fRandom.below(2 * kBlockSize)));
    const std::string fFile = made("data", fContent);
    std::unique_ptr<ModelStream> fStream = std::make_unique<ModelStream>(fFile, "r+b", fContent);
};

TEST_P(StreamModel, ReadsWhatWasWritten) {
    for (int i = 0; i < 20'000; ++i) {
        if (i % 256 == 0) fWatchdog.feed();
        step();
        ASSERT_FALSE(HasFailure()) << "at operation " << i;
    }
    fStream.reset();
    EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), fContent));
}
INSTANTIATE_TEST_SUITE_P(Seeds, StreamModel, testing::Range<std::uint64_t>(1, 9));

}  // namespace
