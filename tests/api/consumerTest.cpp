// A program whose own names are those of the streams below the face.
#include <orva/error.h>
#include <orva/files.h>
#include <orva/iostream.h>
#include <orva/reader.h>
#include <orva/rows.h>
#include <orva/writer.h>

#include <gtest/gtest.h>

constexpr int kBlockSize = 1;
using FileError = int;
using DamagedFileError = int;
using ORVA_File = int;
namespace platform {
constexpr int value = kBlockSize;
}

TEST(Consumer, KeepsItsNames) {
    static_assert(platform::value == 1);
    EXPECT_THROW(orva::Rows<int>(orva::Reader("none/such")), orva::SystemError);
}
