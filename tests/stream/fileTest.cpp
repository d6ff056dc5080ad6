#include "support/fileCalls.h"
#include "support/tempDir.h"

#include <orva/errtext.h>
#include <orva/file.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace {

using support::FileCalls;

class File : public support::TempDir {
protected:
    bool open(const std::string& name, const char* mode) {
        fName.SetGeneric(path(name));
        return file.Open(fName, mode);
    }
    // Its result, or the code that it throws as a negative number.
    template <class Operation>
    static long outcome(Operation operation) {
        try {
            return operation();
        } catch (const FileError& error) {
            return -error.messageCode();
        }
    }
    const std::string fHello = made("hello", {'h', 'e', 'l', 'l', 'o'});
    ExtNameStr fName;
    ORVA_File file;
    char bytes[8] = "";
};

struct ModeCase {
    const char* mode;
    bool creates;
    long tell, wrote, read;  // a write of 2 bytes at 1, a read of 2 bytes at 3
    std::uintmax_t size;     // after both
};
constexpr ModeCase kModes[] = {
    {"rb", false, 0, -1002, 2, 5},  {"", false, 0, -1002, 2, 5},   {"rw", false, 0, -1002, 2, 5},
    {"tra", false, 5, -1002, 2, 5}, {"+", false, 0, 2, 2, 5},      {"tr+", false, 0, 2, 2, 5},
    {"wa", true, 0, 2, -1003, 3},   {"rw+a", true, 0, 2, 0, 3},    {"a", true, 5, 2, -1003, 7},
    {"ra+", true, 5, 2, 2, 7},      {"wTD", true, 0, 2, -1003, 3},
};

TEST_F(File, ModesTellAccessCreationTruncationAndPosition) {
    for (const ModeCase& c : kModes) {
        SCOPED_TRACE(c.mode);
        EXPECT_EQ(open("missing", c.mode), c.creates);
        EXPECT_TRUE(file.IsOpen() == c.creates && file.Good() == c.creates &&
                    file.OpenErrno() == (c.creates ? 0 : ENOENT));
        std::filesystem::remove(path("missing"));
        made("hello", {'h', 'e', 'l', 'l', 'o'});
        ASSERT_TRUE(open("hello", c.mode));
        EXPECT_EQ(file.Tell(), c.tell);
        EXPECT_EQ(outcome([&] { return file.Write("XY", 2, 1); }), c.wrote);
        EXPECT_EQ(outcome([&] { return file.Read(bytes, 2, 3); }), c.read);
        EXPECT_EQ(std::filesystem::file_size(fHello), c.size);
        file.Close();
        EXPECT_EQ(std::filesystem::exists(fHello), std::string(c.mode) != "wTD");
    }
}

TEST_F(File, FailedCloseIsThrownAndLeavesItOpenButADestructorLetsGo) {
    FileCalls calls;
    auto writer = std::make_unique<ORVA_File>();
    ASSERT_TRUE(open("hello", "r") && writer->Open(fName, "r+") && !open("hello", "a"));
    for (int round = 0; round < 2; ++round) {
        calls.fail(FileCalls::Call::Close, EIO);
        EXPECT_EQ(outcome([&] { return round == 0 ? writer->Close() : writer->Open(fName, "r"); }), -1002);
        EXPECT_TRUE(writer->IsOpen() && !writer->Good());
    }
    calls.fail(FileCalls::Call::Close, EIO);
    writer.reset();
    EXPECT_TRUE(open("hello", "r+") && file.Open(file.GetNameStr(), "r+"));
    EXPECT_TRUE(file.Close() == 1 && file.Close() == 0 && file.Good());
    EXPECT_EQ(file.Read(bytes, 1, 9) + file.Write(bytes, 1, 9) + file.Size(), 0);
}

TEST_F(File, BreachesOfACallersDutyEndTheProgram) {
    EXPECT_DEATH(ORVA_File copy(file), "file.cpp:[0-9]+: 0 && \"can't copy an ORVA_File\"\n");
    EXPECT_DEATH(file.Read(bytes, 0x80000000U, 0), "byteSize <= INT_MAX");
    EXPECT_DEATH(file.Write(bytes, 0x80000000U, 0), "byteSize <= INT_MAX");
}

}  // namespace
