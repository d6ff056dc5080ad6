#include <orva/errtext.h>

#include <gmock/gmock.h>

TEST(ThrowError, TellsProgramsAndPersonsWhatFailed) {
    const std::string text =
        "cannot write \"x\": No space left on device (datasrc.err 1002); free some space and try again";
    const auto raised = [] { errno = ENOSPC, ThrowError::StringSys("datasrc.err", 1002, "x"); };
    EXPECT_THAT(raised, testing::ThrowsMessage<std::system_error>(text));
    EXPECT_STREQ(FileError(0, "e", 1003, "a b").what(), "cannot read \"a b\": unknown error (e 1003)");
    EXPECT_STREQ(FileError(EINVAL, nullptr, 7, nullptr).what(), "cannot use \"\": Invalid argument ( 7)");
    FileError full(EIO, "", 0, "");
    full = FileError(ENOSPC, "datasrc.err", 1002, "x");  // outlives the error that it is copied from
    EXPECT_EQ(full.withOutcome("gone").what(), text + "; gone");
    EXPECT_EQ(full.code(), std::error_code(ENOSPC, std::generic_category()));
    EXPECT_TRUE(full.catalog() == "datasrc.err" && full.messageCode() == 1002 && full.fileName() == "x");
}
