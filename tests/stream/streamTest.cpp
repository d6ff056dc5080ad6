#include "stream/streamScript.h"

namespace {

using support::FileCalls;

class Stream : public support::TempDir {
protected:
    const std::string fFile = made("file", support::Bytes(100, 'o'));
};

TEST_F(Stream, WithoutAnOpenFileAnswersByResult) {
    ORVA_FileStream none;
    ORVA_FileStream failed(fFile.c_str(), "a");
    EXPECT_EQ(failed.Tell(), 100);
    EXPECT_TRUE(failed.Open(path("none").c_str(), "r") == 0 && failed.Good() == 0);
    EXPECT_EQ(failed.Name(), path("none"));
    EXPECT_EQ(none.Name(), nullptr);
    EXPECT_EQ(&none.GetNameStr(), &ORVA_FileStream(true).GetNameStr()) << "one empty name for all";
    for (ORVA_FileStream* stream : {&none, &failed}) {
        stream->EnableMultiThreadReading();
        char byte = 0;
        EXPECT_EQ(stream->Read(&byte, 1) + stream->Write(&byte, 1), 0U);
        EXPECT_EQ(stream->Seek(0, ORVA_StrBaseIO::SeekFromCurrent), -1);
        EXPECT_TRUE(stream->Close() == 0 && stream->Flush() == 1 && stream->Tell() == 0 && !stream->IsShared());
    }
}

TEST_F(Stream, CopySharesTheFileUntilOneGoesOn) {
    ORVA_FileStream stream(fFile.c_str(), "r+");
    stream.Write("abc", 3);
    ORVA_FileStream copy(stream);
    EXPECT_TRUE(copy.Tell() == 0 && stream.Tell() == 3 && copy.IsShared() && stream.IsShared());
    copy.Open(made("other", {'p'}).c_str(), "r");
    EXPECT_FALSE(stream.IsShared());
    stream.Open(path("other").c_str(), "r");
    EXPECT_EQ(ORVA_FileStream(fFile.c_str(), "r+").Good(), 1) << "closed with the last one";
}

TEST_F(Stream, AWriteBeyondTheLastPositionMovesNothing) {
    ORVA_FileStream stream(fFile.c_str(), "r+");
    const std::int64_t last = std::numeric_limits<std::int64_t>::max() - 1;
    stream.Seek(last, ORVA_StrBaseIO::SeekFromStart);
    try {
        stream.Write("abc", 3);
        ADD_FAILURE() << "written";
    } catch (const FileError& error) {
        EXPECT_TRUE(error.messageCode() == 1002 && error.code().value() == EFBIG);
    }
    EXPECT_TRUE(stream.Good() == 0 && stream.Tell() == last);
    EXPECT_EQ(support::readBytes(fFile), support::Bytes(100, 'o'));
}

TEST_F(Stream, DestructorThrowsUnlessAFlightBeganSinceItsConstruction) {
    const auto end = [this](bool inFlight) {
        FileCalls calls;
        ORVA_FileStream stream(fFile.c_str(), "r+");
        stream.EnableMultiThreadReading();
        stream.Write("abc", 3);
        calls.fail(FileCalls::Call::Write, ENOSPC);
        if (inFlight) throw 7;
    };
    EXPECT_THROW(end(false), FileError);
    EXPECT_THROW(end(true), int);
    try {
        const std::shared_ptr<void> atUnwinding(nullptr, [&](auto) { EXPECT_THROW(end(false), FileError); });
        throw 7;
    } catch (int) {
    }
    EXPECT_EQ(ORVA_FileStream(fFile.c_str(), "r+").Good(), 1) << "closed and unlocked all the same";
    EXPECT_EQ(support::readBytes(fFile)[0], 'o');
}

}  // namespace
