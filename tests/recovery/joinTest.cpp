// Joining a finished part beside an append to it. What joined files hold, the tests of the face and of the tool show.
#include "recoveryTest.h"

#include <orva/join.h>

namespace recovery {

using JoinTest = FileTest;

TEST_F(JoinTest, RefusesAnInputThatChangesMeanwhile) {
    makeFile(fFile, blocksOf({300, 500}));
    int pieces = 0;
    orva::joinOptions options;
    // Behind the dictionary part comes the first input's blocks. The append then rewrites the last block before it is
    // copied under its old record.
    options.copied = [&](std::int64_t) {
        if (++pieces == 2) kAppends[0].run(fFile);
    };
    EXPECT_THROW(orva::join({{fFile, kPart}, {fFile, kPart}}, fOut, options), FileChangedError);
    EXPECT_FALSE(orva::findPart(fOut).has_value());
}

}  // namespace recovery
