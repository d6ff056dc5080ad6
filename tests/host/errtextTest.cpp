#include <orva/errtext.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <type_traits>

namespace {

static_assert(std::is_nothrow_copy_constructible_v<FileError> && std::is_nothrow_copy_assignable_v<FileError>);

struct TextCase {
    const char* name;
    int error;
    long code;
    const char* file;
    const char* text;
};
constexpr TextCase kTexts[] = {
    {"WritingWithAdvice", ENOSPC, 1002, "x.dat",
     "cannot write \"x.dat\": No space left on device (datasrc.err 1002); free some space and try again"},
    {"ReadingWithoutAdvice", EINVAL, 1003, "a b", "cannot read \"a b\": Invalid argument (datasrc.err 1003)"},
    {"UnknownCause", 0, 1003, "x", "cannot read \"x\": unknown error (datasrc.err 1003)"},
    {"OtherCodeAndNoName", EINVAL, 7, nullptr, "cannot use \"\": Invalid argument (datasrc.err 7)"},
};

TEST(FileError, TellsWhatAPersonCanActOn) {
    for (const TextCase& row : kTexts) {
        SCOPED_TRACE(row.name);
        EXPECT_STREQ(FileError(row.error, "datasrc.err", row.code, row.file).what(), row.text);
    }
}

TEST(FileError, CopyOutlivesItsSource) {
    FileError copy(0, "", 0, "");
    {
        const FileError source(ENOSPC, "datasrc.err", 1002, "x.dat");
        copy = source;
    }
    EXPECT_EQ(copy.code(), std::errc::no_space_on_device);
    EXPECT_EQ(copy.catalog(), "datasrc.err");
    EXPECT_EQ(copy.messageCode(), 1002);
    EXPECT_EQ(copy.fileName(), "x.dat");
}

TEST(ThrowError, ThrowsTheErrnoOfTheFailedCallAsASystemError) {
    errno = EDQUOT;
    try {
        ThrowError::StringSys("datasrc.err", 1002, "x.dat");
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::error_code(EDQUOT, std::generic_category()));
        EXPECT_NE(dynamic_cast<const FileError*>(&error), nullptr);
    }
}

}  // namespace
