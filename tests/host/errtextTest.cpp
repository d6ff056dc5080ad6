#include <orva/errtext.h>

#include <gtest/gtest.h>

namespace {

TEST(ThrowError, TellsProgramsAndPersonsWhatFailed) {
    const struct {
        int error;
        long code;
        const char* file;
        const char* text;
    } rows[] = {
        {ENOSPC, 1002, "x",
         "cannot write \"x\": No space left on device (datasrc.err 1002); free some space and try again"},
        {0, 1003, "a b", "cannot read \"a b\": unknown error (datasrc.err 1003)"},
        {EINVAL, 7, nullptr, "cannot use \"\": Invalid argument (datasrc.err 7)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        FileError copy(EIO, "", 0, "");  // outlives the failure that it is given
        errno = row.error;
        try {
            ThrowError::StringSys("datasrc.err", row.code, row.file);
        } catch (const std::system_error& error) {
            copy = dynamic_cast<const FileError&>(error);
        }
        EXPECT_STREQ(copy.what(), row.text);
        EXPECT_EQ(copy.code(), std::error_code(row.error, std::generic_category()));
        EXPECT_EQ(copy.catalog(), "datasrc.err");
        EXPECT_EQ(copy.messageCode(), row.code);
        EXPECT_EQ(copy.fileName(), row.file == nullptr ? "" : row.file);
        EXPECT_EQ(copy.withOutcome("gone").what(), std::string(row.text) + "; gone");
    }
}

}  // namespace
