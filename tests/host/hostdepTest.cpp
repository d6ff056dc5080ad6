#include "hostTest.h"

#include <orva/hostdep.h>
#include <orva/platform.h>

#include <cerrno>

namespace {

class ExtNameStrTest : public FreshDirectory {};

TEST_F(ExtNameStrTest, CopyIsIndependentAndSelfAssignmentChangesNothing) {
    ExtNameStr name;
    name.SetGeneric("first");
    const ExtNameStr copy(name);
    const ExtNameStr& itself = name;
    name = itself;
    EXPECT_EQ(name.GetGeneric(), "first");
    name.SetU8("second");
    EXPECT_EQ(name.GetGeneric(), "second");
    EXPECT_EQ(copy.GetCP(), "first");
}

TEST_F(ExtNameStrTest, OpensTheFileOfThatName) {
    ExtNameStr name;
    name.SetGeneric(made("data", "abc"));
    const int descriptor = name.Sopen(platform::_O_RDONLY, platform::_SH_DENYWR, 0x180);
    char bytes[4] = {};
    EXPECT_EQ(platform::_read(descriptor, bytes, 4), 3);
    EXPECT_STREQ(bytes, "abc");
    EXPECT_EQ(platform::_close(descriptor), 0);
}

TEST_F(ExtNameStrTest, NameThatNamesNoFileOpensNone) {
    const std::string cases[] = {"", path("missing"), made("data", "abc") + std::string("\0tail", 5)};
    for (const std::string& text : cases) {
        SCOPED_TRACE(text);
        ExtNameStr name;
        name.SetGeneric(text);
        errno = 0;
        EXPECT_EQ(name.Sopen(platform::_O_RDONLY, platform::_SH_DENYWR, 0x180), -1);
        EXPECT_EQ(errno, ENOENT);
    }
}

}  // namespace
