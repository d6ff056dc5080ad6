// A program whose own names are those of the streams below the face.
#include <orva/error.h>
#include <orva/files.h>
#include <orva/iostream.h>
#include <orva/reader.h>
#include <orva/rows.h>
#include <orva/writer.h>

#include <gtest/gtest.h>

namespace {
constexpr int kBlockSize = 1;
struct FileError {};
struct DamagedFileError {};
struct ORVA_File {};
}  // namespace
namespace platform {
constexpr int value = kBlockSize;
}

TEST(Consumer, KeepsItsNames) {
    static_assert(platform::value == 1);
    static_assert(!std::is_base_of_v<orva::Error, DamagedFileError>);
    static_assert(sizeof(FileError) == sizeof(ORVA_File));
    EXPECT_THROW(orva::Rows<int>(orva::Reader("none/such")), orva::SystemError);
}
