#include "support/fileCalls.h"
#include "support/tempDir.h"

#include <orva/errtext.h>
#include <orva/file.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>

namespace {

using support::Bytes;
using support::FileCalls;
using support::readBytes;
using Call = FileCalls::Call;

class File : public support::TempDir {
protected:
    static ExtNameStr named(const std::string& name) {
        ExtNameStr result;
        result.SetGeneric(name);
        return result;
    }
    static std::string read(ORVA_File& file, unsigned int size, std::int64_t offset) {
        std::string bytes(size, '\0');
        bytes.resize(file.Read(bytes.data(), size, offset));
        return bytes;
    }
    static std::string text(const std::string& file) {
        const Bytes bytes = readBytes(file);
        return {bytes.begin(), bytes.end()};
    }
    ExtNameStr fHello = named(made("hello", Bytes{'h', 'e', 'l', 'l', 'o'}));
};

struct ModeCase {
    const char* mode;
    bool createsMissing;
    const char* content;  // of the file "hello" after a write of "XY" at offset 1; null: may not write
    bool reads;
    std::int64_t tell;
};
constexpr ModeCase kModes[] = {
    {"r", false, nullptr, true, 0},   {"rb", false, nullptr, true, 0},   {"", false, nullptr, true, 0},
    {"b", false, nullptr, true, 0},   {"rt", false, nullptr, true, 0},   {"rw", false, nullptr, true, 0},
    {"ra", false, nullptr, true, 5},  {"r+", false, "hXYlo", true, 0},   {"+", false, "hXYlo", true, 0},
    {"tr+", false, "hXYlo", true, 0}, {"w", true, "\0XY", false, 0},     {"wa", true, "\0XY", false, 0},
    {"w+b", true, "\0XY", true, 0},   {"rw+", true, "\0XY", true, 0},    {"wa+T", true, "\0XY", true, 0},
    {"a", true, "helloXY", false, 5}, {"a+b", true, "helloXY", true, 5}, {"ra+", true, "helloXY", true, 5},
    {"wT", true, "\0XY", false, 0},   {"r+bD", false, "hXYlo", true, 0},
};

class FileMode : public File, public testing::WithParamInterface<ModeCase> {};

TEST_P(FileMode, AccessCreationTruncationAndPosition) {
    const ModeCase& c = GetParam();
    ORVA_File missing;
    EXPECT_EQ(missing.Open(named(path("missing")), c.mode), c.createsMissing);
    ORVA_File file;
    ASSERT_TRUE(file.Open(fHello, c.mode));
    EXPECT_EQ(file.Tell(), c.tell);
    if (c.content == nullptr) {
        EXPECT_THROW(file.Write("XY", 2, 1), FileError);
    } else {
        EXPECT_EQ(file.Write("XY", 2, 1), 2U);
        const std::string content = c.content[0] == '\0' ? std::string("\0XY", 3) : c.content;
        EXPECT_EQ(text(path("hello")), content);
    }
    if (c.reads) {
        EXPECT_EQ(read(file, 1, 2).size(), 1U);
    } else {
        EXPECT_THROW(read(file, 1, 2), FileError);
    }
    EXPECT_EQ(file.Close(), 1);
    EXPECT_EQ(std::filesystem::exists(path("hello")), std::strchr(c.mode, 'D') == nullptr);
}
INSTANTIATE_TEST_SUITE_P(Modes, FileMode, testing::ValuesIn(kModes), [](const auto& row) {
    std::string name = "Mode" + std::to_string(row.index) + "_";
    for (const char* c = row.param.mode; *c != '\0'; ++c) name += *c == '+' ? 'P' : *c;
    return name;
});

// What each operation asks of the system, and where it leaves the position.
TEST_F(File, PositionAfterEachOperation) {
    FileCalls calls;
    ORVA_File file;
    ASSERT_TRUE(file.Open(fHello, "r+b"));
    char byte[8];
    struct Row {
        const char* name;
        std::function<std::int64_t()> run;
        std::int64_t result, tell;
        const char* seeks;
        const char* transfers;
    };
    const Row rows[] = {
        {"sequential read", [&] { return file.Read(byte, 2, 0); }, 2, 2, "", "R 0+2"},
        {"Size", [&] { return file.Size(); }, 5, 2, "S 2", ""},
        {"read after Size", [&] { return file.Read(byte, 2, 2); }, 2, 4, "", "R 2+2"},
        {"short read", [&] { return file.Read(byte, 8, 4); }, 1, 5, "", "R 4+8"},
        {"read at the end", [&] { return file.Read(byte, 8, 5); }, 0, 5, "", "R 5+8"},
        {"read past the end", [&] { return file.Read(byte, 8, 77); }, 0, 77, "S 77", "R 77+8"},
        {"write elsewhere", [&] { return file.Write("ab", 2, 1); }, 2, 3, "S 1", "W 1+2"},
        {"sequential write", [&] { return file.Write("c", 1, 3); }, 1, 4, "", "W 3+1"},
        {"read of 0 bytes", [&] { return file.Read(byte, 0, 2); }, 0, 2, "S 2", ""},
        {"write of 0 bytes", [&] { return file.Write("", 0, 9); }, 0, 9, "S 9", ""},
        {"Close", [&] { return file.Close(); }, 1, 9, "", ""},
        {"second Close", [&] { return file.Close(); }, 0, 9, "", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        calls.seeks();
        EXPECT_EQ(row.run(), row.result);
        EXPECT_EQ(file.Tell(), row.tell);
        EXPECT_EQ(calls.seeks(), row.seeks);
        EXPECT_EQ(calls.transfers(), row.transfers);
    }
    EXPECT_EQ(text(path("hello")), "habco");
}

TEST_F(File, ClosedObjectAnswersZeroAndStaysGood) {
    ORVA_File file;
    char byte = 0;
    EXPECT_EQ(file.Read(&byte, 1, 0), 0U);
    EXPECT_EQ(file.Write(&byte, 1, 0), 0U);
    EXPECT_EQ(file.Size(), 0);
    EXPECT_EQ(file.Close(), 0);
    EXPECT_EQ(file.FinishEncryption(), 0U);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_TRUE(file.Good());
    EXPECT_EQ(file.Tell(), 0);
}

struct FailureCase {
    const char* name;
    Call call;
    int error;
    long code;
    std::function<void(ORVA_File&)> run;
};
void readAt3(ORVA_File& file) {
    char byte = 0;
    file.Read(&byte, 1, 3);
}
void writeAt3(ORVA_File& file) {
    file.Write("l", 1, 3);
}
const FailureCase kFailures[] = {
    {"ReadSeek", Call::Seek, EIO, 1003, readAt3},
    {"ReadTransfer", Call::Read, EIO, 1003, readAt3},
    {"WriteSeek", Call::Seek, ESPIPE, 1002, writeAt3},
    {"WriteTransfer", Call::Write, ENOSPC, 1002, writeAt3},
    {"Close", Call::Close, EDQUOT, 1002, [](ORVA_File& file) { file.Close(); }},
    {"Sync", Call::Sync, EIO, 1002, [](ORVA_File& file) { file.Sync(); }},
    {"Truncate", Call::Truncate, EPERM, 1002, [](ORVA_File& file) { file.Truncate(1); }},
    {"CloseInOpen", Call::Close, EIO, 1002, [](ORVA_File& file) { file.Open(ExtNameStr(file.GetNameStr()), "r"); }},
};

class FileFailure : public File, public testing::WithParamInterface<FailureCase> {};

TEST_P(FileFailure, ThrowsKeepsPositionAndSeeksNextTime) {
    const FailureCase& c = GetParam();
    ORVA_File file;
    ASSERT_TRUE(file.Open(fHello, "r+b"));
    char byte = 0;
    file.Read(&byte, 1, 0);
    FileCalls calls;
    calls.fail(c.call, c.error);
    try {
        c.run(file);
        FAIL() << "nothing thrown";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code().value(), c.error);
        EXPECT_EQ(error.messageCode(), c.code);
        EXPECT_EQ(error.catalog(), "datasrc.err");
        EXPECT_EQ(error.fileName(), path("hello"));
    }
    EXPECT_FALSE(file.Good());
    EXPECT_TRUE(file.IsOpen());
    EXPECT_EQ(file.Tell(), 1);
    calls.seeks();
    EXPECT_EQ(read(file, 4, 1), "ello") << "where the failure left the descriptor does not matter";
    EXPECT_EQ(calls.seeks(), "S 1");
    EXPECT_FALSE(file.Good()) << "only Clear and Open make it good";
    file.Clear();
    EXPECT_TRUE(file.Good());
    EXPECT_EQ(file.Tell(), 5);
    EXPECT_EQ(file.Close(), 1);
}
INSTANTIATE_TEST_SUITE_P(Calls, FileFailure, testing::ValuesIn(kFailures),
                         [](const auto& row) { return row.param.name; });

TEST_F(File, FailedSizeIsMinusOneAndDisturbsNothing) {
    ORVA_File file;
    ASSERT_TRUE(file.Open(fHello, "r"));
    read(file, 2, 0);
    FileCalls calls;
    calls.fail(Call::Seek, EIO, 1, 2);
    EXPECT_EQ(file.Size(), -1);
    EXPECT_TRUE(file.Good());
    EXPECT_EQ(read(file, 3, 2), "llo");
    calls.fail(Call::Seek, EIO, 2);
    EXPECT_EQ(file.Size(), 5);
    read(file, 1, 0);
    EXPECT_EQ(read(file, 4, 1), "ello") << "the way back from the end failed";
}

TEST_F(File, AppendingWriteLeavesReadsAtTheirOffset) {
    ORVA_File file;
    ASSERT_TRUE(file.Open(fHello, "a+b"));
    EXPECT_EQ(file.Write("XY", 2, 0), 2U);
    EXPECT_EQ(file.Tell(), 2);
    EXPECT_EQ(read(file, 9, 2), "lloXY");
}

TEST_F(File, FailedOpenClosesAndKeepsItsErrno) {
    ORVA_File file;
    ASSERT_TRUE(file.Open(fHello, "r+"));
    read(file, 3, 0);
    EXPECT_FALSE(file.Open(named(path("none")), "r"));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(file.Good());
    EXPECT_EQ(file.OpenErrno(), ENOENT);
    EXPECT_EQ(file.Tell(), 3);
    EXPECT_EQ(file.GetNameStr().GetGeneric(), path("none"));
    EXPECT_TRUE(file.Open(fHello, "r"));
    EXPECT_TRUE(file.Good());
    EXPECT_EQ(file.OpenErrno(), 0);
}

TEST_F(File, OpensAgainUnderItsOwnName) {
    ORVA_File file;
    ASSERT_TRUE(file.Open(fHello, "w"));
    file.Write("new", 3, 0);
    ASSERT_TRUE(file.Open(file.GetNameStr(), "r+b"));
    EXPECT_EQ(file.GetNameStr().GetGeneric(), path("hello"));
    EXPECT_EQ(read(file, 9, 0), "new");
}

TEST_F(File, SecondWriterIsRefusedAndTruncatesNothing) {
    ORVA_File writer;
    ASSERT_TRUE(writer.Open(fHello, "r+"));
    for (const char* mode : {"w", "r+", "a", "w+"}) {
        SCOPED_TRACE(mode);
        ORVA_File second;
        EXPECT_FALSE(second.Open(fHello, mode));
        EXPECT_EQ(second.OpenErrno(), EWOULDBLOCK);
    }
    ORVA_File reader;
    ASSERT_TRUE(reader.Open(fHello, "r"));
    EXPECT_EQ(read(reader, 9, 0), "hello");
    writer.Close();
    EXPECT_TRUE(writer.Open(fHello, "w")) << "a reader holds no lock";
}

TEST_F(File, DestructorSwallowsAFailedCloseAndLetsGoOfTheFile) {
    FileCalls calls;
    {
        ORVA_File file;
        ASSERT_TRUE(file.Open(fHello, "r+"));
        calls.fail(Call::Close, EIO);
    }
    ORVA_File next;
    EXPECT_TRUE(next.Open(fHello, "r+")) << "the lock went with the object";
}

TEST(FileDeathTest, BreachesOfACallersDuty) {
    ORVA_File file;
    char byte = 0;
    EXPECT_DEATH(ORVA_File copy(file), "file.cpp:[0-9]+: 0 && \"can't copy an ORVA_File\"\n");
    EXPECT_DEATH(file.Read(&byte, 0x80000000U, 0), "byteSize <= INT_MAX");
    EXPECT_DEATH(file.Write(&byte, 0x80000000U, 0), "byteSize <= INT_MAX");
}

}  // namespace
