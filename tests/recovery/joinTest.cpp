// Joining finished parts, as a program calls it. What the joined files hold, the tests of the tool show.
#include "recoveryTest.h"

#include <orva/join.h>

namespace {

using namespace recovery;

class JoinTest : public FileTest {
protected:
    orva::joinReport join(bool swapSecond, const std::string& output, const std::function<void(std::int64_t)>& copied) {
        orva::joinOptions options;
        options.copied = copied;
        return orva::join({{fFile, kPart}, {fFile, {kRow0, swapSecond}}}, output, options);
    }
};

TEST_F(JoinTest, ReportsWhatItMade) {
    makeFile(fFile, blocksOf({300, 500}));
    std::int64_t copied = 0;
    const orva::joinReport report = join(false, fOut, [&](std::int64_t bytes) { copied += bytes; });
    EXPECT_EQ(report.blocks, 4U);
    EXPECT_EQ(report.rows, 1'600);
    EXPECT_EQ(report.part.row0Pos, kRow0);
    EXPECT_EQ(copied, kRow0 + report.stored);
}

// The append has rewritten the last block before it was copied under its old record.
TEST_F(JoinTest, RefusesAnInputThatChangesMeanwhile) {
    makeFile(fFile, blocksOf({300, 500}));
    int pieces = 0;
    const auto append = [&](std::int64_t) {
        if (++pieces == 2) kAppends[0].run(fFile);  // behind the dictionary part, the first input's blocks
    };
    EXPECT_THROW(join(false, fOut, append), FileChangedError);
    EXPECT_FALSE(orva::findPart(fOut).has_value());
}

TEST_F(JoinTest, RefusesBeforeAnythingIsWritten) {
    makeFile(fFile, blocksOf({300, 500}));
    const Bytes before = bytes();
    EXPECT_THROW(join(true, fOut, {}), std::invalid_argument);
    EXPECT_THROW(join(false, fFile, {}), FileError);
    EXPECT_THROW(orva::join({}, fOut, {}), std::invalid_argument);
    EXPECT_TRUE(sameBytes(bytes(), before));
    EXPECT_FALSE(std::filesystem::exists(fOut));
}

}  // namespace
