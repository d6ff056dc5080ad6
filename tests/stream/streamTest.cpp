#include "stream/modelStream.h"
#include "support/fileCalls.h"

#include <orva/errtext.h>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <exception>
#include <limits>
#include <optional>

namespace {

using support::Bytes;
using support::FileCalls;
using Call = FileCalls::Call;

class Stream : public support::TempDir {
protected:
    std::string text(const std::string& name) const {
        const Bytes bytes = support::readBytes(path(name));
        return {bytes.begin(), bytes.end()};
    }
    static std::string read(ORVA_FileStream& stream, std::uint32_t size) {
        std::string bytes(size, '\0');
        bytes.resize(stream.Read(bytes.data(), size));
        return bytes;
    }
    const std::string fFile = made("file", Bytes(100, 'o'));
    const std::string fOther = made("other", Bytes(50, 'p'));
};

void expectUnusable(ORVA_FileStream& stream) {
    char byte = 0;
    EXPECT_EQ(stream.Read(&byte, 1), 0U);
    EXPECT_EQ(stream.Write(&byte, 1), 0U);
    for (const auto direction :
         {ORVA_StrBaseIO::SeekFromStart, ORVA_StrBaseIO::SeekFromCurrent, ORVA_StrBaseIO::SeekFromEnd})
        EXPECT_EQ(stream.Seek(0, direction), -1);
    EXPECT_EQ(stream.Close(), 0);
    EXPECT_EQ(static_cast<const ORVA_FileStream&>(stream).Close(), 0);
    EXPECT_EQ(stream.Flush(), 1);
    EXPECT_EQ(stream.Tell(), 0);
    EXPECT_EQ(stream.EndOfFile(), 0);
    EXPECT_FALSE(stream.IsShared());
}

TEST_F(Stream, WithoutAFile) {
    ORVA_FileStream stream;
    expectUnusable(stream);
    EXPECT_EQ(stream.Name(), nullptr);
    EXPECT_EQ(stream.GetNameStr().GetGeneric(), "");
    EXPECT_EQ(&stream.GetNameStr(), &ORVA_FileStream(true).GetNameStr()) << "one empty name for all";
    EXPECT_EQ(stream.Footprint(), 4'190'248U);
    stream.EnableMultiThreadReading();
    expectUnusable(stream);
}

TEST_F(Stream, AfterAFailedOpen) {
    ORVA_FileStream stream(fFile.c_str(), "r");
    read(stream, 10);
    EXPECT_EQ(stream.Open(path("none").c_str(), "r"), 0);
    EXPECT_EQ(stream.Good(), 0);
    EXPECT_EQ(stream.Name(), path("none"));
    expectUnusable(stream);
    EXPECT_EQ(ORVA_FileStream(path("none").c_str(), "r", true).Good(), 0);
}

TEST_F(Stream, EveryWayToOpen) {
    ExtNameStr name;
    name.SetGeneric(fFile);
    ORVA_FileStream stream;
    EXPECT_EQ(stream.Open(fFile.c_str(), "r"), 1);
    EXPECT_EQ(stream.Open(fFile.c_str(), "secret", "r"), 1);
    EXPECT_EQ(stream.Open(name, "r"), 1);
    EXPECT_EQ(stream.Open(name, name, "r"), 1);
    EXPECT_EQ(stream.Open(stream.GetNameStr(), "r"), 1) << "its own name";
    EXPECT_EQ(stream.Name(), fFile);
    EXPECT_EQ(read(stream, 200).size(), 100U);
    EXPECT_EQ(stream.Open(name, "a"), 1);
    EXPECT_EQ(stream.Tell(), 100);
}

TEST_F(Stream, CloseLeavesItOpen) {
    ORVA_FileStream stream(fFile.c_str(), "r+");
    stream.Write("abc", 3);
    EXPECT_EQ(text("file").substr(0, 3), "ooo");
    EXPECT_EQ(stream.Close(), 1);
    EXPECT_EQ(text("file").substr(0, 4), "abco");
    EXPECT_EQ(stream.Close(), 1);
    EXPECT_EQ(read(stream, 200).size(), 97U);
}

TEST_F(Stream, SecondOpenFinishesTheOldFileAndForgetsItsBytes) {
    ORVA_FileStream stream(fFile.c_str(), "r+");
    stream.EnableMultiThreadReading();
    stream.Write("abc", 3);
    ASSERT_EQ(stream.Open(fOther.c_str(), "r+"), 1);
    EXPECT_EQ(text("file").substr(0, 4), "abco");
    EXPECT_EQ(stream.Tell(), 0);
    EXPECT_EQ(read(stream, 200), std::string(50, 'p'));
    EXPECT_EQ(ORVA_FileStream(fFile.c_str(), "r+").Good(), 1) << "the old file is closed";
    stream.Write("q", 1);
    FileCalls calls;
    calls.fail(Call::Write, ENOSPC);
    EXPECT_THROW(stream.Open(fFile.c_str(), "r"), FileError);
    EXPECT_EQ(stream.Name(), fOther) << "a file that cannot be finished is kept";
    EXPECT_EQ(stream.Close(), 1);
    EXPECT_EQ(text("other").back(), 'q');
}

TEST_F(Stream, SeekTargets) {
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    struct Row {
        std::int64_t offset;
        int direction, result;
        std::int64_t tell;
    };
    constexpr Row kRows[] = {
        {30, 0, 0, 30},   {-1, 0, -1, 30},     {5, 1, 0, 35},    {-35, 1, 0, 0},        {-1, 1, -1, 0},
        {0, 2, 0, 100},   {-100, 2, 0, 0},     {-101, 2, -1, 0}, {7, 2, 0, 107},        {kMax, 0, 0, kMax},
        {1, 1, -1, kMax}, {kMax, 2, -1, kMax}, {-kMax, 1, 0, 0}, {-kMax - 1, 1, -1, 0}, {9, 77, 0, 9},
    };
    ORVA_FileStream stream(fFile.c_str(), "r");
    for (const Row& row : kRows) {
        EXPECT_EQ(stream.Seek(row.offset, static_cast<ORVA_StrBaseIO::SeekDirection>(row.direction)), row.result)
            << row.offset << " in direction " << row.direction;
        EXPECT_EQ(stream.Tell(), row.tell);
    }
}

TEST_F(Stream, WriteThatWouldPassTheLastPositionIsRefused) {
    ORVA_FileStream stream(fFile.c_str(), "r+");
    stream.Seek(std::numeric_limits<std::int64_t>::max() - 2, ORVA_StrBaseIO::SeekFromStart);
    try {
        stream.Write("abc", 3);
        FAIL() << "nothing thrown";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code().value(), EFBIG);
        EXPECT_EQ(error.messageCode(), 1002);
    }
}

TEST_F(Stream, CopySharesTheFileAtItsStart) {
    std::optional<ORVA_FileStream> source(std::in_place, fFile.c_str(), "r+");
    source->DisablePreReading();
    source->Write("abc", 3);
    EXPECT_FALSE(source->IsShared());
    ORVA_FileStream copy(*source);
    EXPECT_EQ(text("file").substr(0, 4), "abco");
    EXPECT_EQ(copy.Tell(), 0);
    EXPECT_EQ(source->Tell(), 3);
    EXPECT_TRUE(copy.IsShared());
    EXPECT_TRUE(source->IsShared());
    EXPECT_EQ(read(*source, 2), "oo");
    source.reset();
    EXPECT_FALSE(copy.IsShared());
    FileCalls calls;
    EXPECT_EQ(read(copy, 4), "abco");
    EXPECT_EQ(calls.transfers(), "R 0+4") << "the way of reading is copied";
}

TEST_F(Stream, CopyThatCannotFlushItsSourceLeavesItAlone) {
    ORVA_FileStream source(fFile.c_str(), "r+");
    source.Write("abc", 3);
    FileCalls calls;
    calls.fail(Call::Write, EIO);
    EXPECT_THROW(ORVA_FileStream copy(source), FileError);
    EXPECT_FALSE(source.IsShared());
    EXPECT_EQ(source.Close(), 1);
    EXPECT_EQ(text("file").substr(0, 4), "abco");
}

TEST_F(Stream, DestructorThrowsWhatItsFlushMeetsAndLetsGoOfTheFile) {
    FileCalls calls;
    calls.fail(Call::Write, ENOSPC);
    bool thrown = false;
    try {
        ORVA_FileStream stream(fOther.c_str(), "r+");
        stream.EnableMultiThreadReading();
        stream.Write("q", 1);
    } catch (const FileError& error) {
        thrown = error.messageCode() == 1002;
    }
    EXPECT_TRUE(thrown);
    EXPECT_EQ(ORVA_FileStream(fOther.c_str(), "r+").Good(), 1) << "closed and unlocked all the same";
}

TEST_F(Stream, DestructorThrowsNothingWhileAnotherExceptionFlies) {
    FileCalls calls;
    calls.fail(Call::Write, ENOSPC);
    try {
        ORVA_FileStream stream(fFile.c_str(), "r+");
        stream.Write("abc", 3);
        throw 7;
    } catch (int caught) {
        EXPECT_EQ(caught, 7);
    }
    EXPECT_EQ(ORVA_FileStream(fFile.c_str(), "r+").Good(), 1);
    EXPECT_EQ(text("file").substr(0, 3), "ooo");
}

// A stream made and ended while an exception flies may throw: the flight was there before it.
TEST_F(Stream, DestructorThrowsInsideAnotherDestructorOfAFlight) {
    struct Guard {
        std::string file;
        bool& thrown;
        ~Guard() {
            FileCalls calls;
            calls.fail(Call::Write, ENOSPC);
            try {
                ORVA_FileStream stream(file.c_str(), "r+");
                stream.Write("abc", 3);
            } catch (const FileError&) {
                thrown = true;
            }
        }
    };
    bool thrown = false;
    try {
        const Guard guard{fFile, thrown};
        throw 7;
    } catch (int) {
    }
    EXPECT_TRUE(thrown);
}

TEST_F(Stream, ForkedChildLeavesTheFileAlone) {
    support::Watchdog watchdog;
    auto* stream = new ORVA_FileStream(fFile.c_str(), "r+");
    stream->EnableMultiThreadReading();
    read(*stream, 10);
    stream->Write("abc", 3);
    const pid_t child = fork();
    if (child == 0) {
        ::alarm(30);
        const bool closed = stream->Close() != 0;
        delete stream;
        _exit(closed ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "wait status of the child";
    EXPECT_EQ(text("file"), std::string(100, 'o'));
    delete stream;
    EXPECT_EQ(text("file").substr(9, 5), "oabco");
}

}  // namespace
