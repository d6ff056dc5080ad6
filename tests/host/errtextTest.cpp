#include <orva/errtext.h>

#include <gtest/gtest.h>

namespace {

TEST(ThrowError, TellsProgramsAndPersonsWhatFailed) {
    const auto heard = [](int error, long code, const char* file) {
        FileError copy(EIO, "", 0, "");  // outlives the failure that it is given
        errno = error;
        try {
            ThrowError::StringSys("datasrc.err", code, file);
        } catch (const std::system_error& thrown) {
            copy = dynamic_cast<const FileError&>(thrown);
        }
        return copy;
    };
    const FileError full = heard(ENOSPC, 1002, "x");
    const std::string text =
        "cannot write \"x\": No space left on device (datasrc.err 1002); free some space and try again";
    EXPECT_EQ(full.what(), text);
    EXPECT_EQ(full.withOutcome("gone").what(), text + "; gone");
    EXPECT_EQ(full.code(), std::error_code(ENOSPC, std::generic_category()));
    EXPECT_TRUE(full.catalog() == "datasrc.err" && full.messageCode() == 1002 && full.fileName() == "x");
    EXPECT_STREQ(heard(0, 1003, "a b").what(), "cannot read \"a b\": unknown error (datasrc.err 1003)");
    EXPECT_STREQ(heard(EINVAL, 7, nullptr).what(), "cannot use \"\": Invalid argument (datasrc.err 7)");
}

}  // namespace
