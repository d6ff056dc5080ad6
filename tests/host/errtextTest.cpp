#include <orva/errtext.h>

#include <gmock/gmock.h>

TEST(ThrowError, TellsProgramsAndPersonsWhatFailed) {
    const auto expectTold = [](int error, long code, const char* file, const std::string& text) {
        const auto raised = [&] { errno = error, ThrowError::StringSys("datasrc.err", code, file); };
        EXPECT_THAT(raised, testing::ThrowsMessage<std::system_error>(text));
    };
    const std::string text =
        "cannot write \"x\": No space left on device (datasrc.err 1002); free some space and try again";
    expectTold(ENOSPC, 1002, "x", text);
    expectTold(0, 1003, "a b", "cannot read \"a b\": unknown error (datasrc.err 1003)");
    expectTold(EINVAL, 7, nullptr, "cannot use \"\": Invalid argument (datasrc.err 7)");
    FileError full(EIO, "", 0, "");
    full = FileError(ENOSPC, "datasrc.err", 1002, "x");  // outlives the one that it is given
    EXPECT_EQ(full.withOutcome("gone").what(), text + "; gone");
    EXPECT_EQ(full.code(), std::error_code(ENOSPC, std::generic_category()));
    EXPECT_TRUE(full.catalog() == "datasrc.err" && full.messageCode() == 1002 && full.fileName() == "x");
}
