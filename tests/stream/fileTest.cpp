// Files and streams in every mode, shared, without a file and at their end; and the counted pointers that share them.
#include "stream/streamTest.h"

using namespace support;

struct File : TempDir {
    bool open(const std::string& name, const char* mode, ORVA_File* as = nullptr) {
        fName.SetGeneric(path(name));
        return (as != nullptr ? *as : file).Open(fName, mode);
    }
    const std::string fHello = made("hello", {'h', 'e', 'l', 'l', 'o'});
    ExtNameStr fName;
    ORVA_File file;
    char bytes[8] = "";
};

struct ModeCase {
    const char* mode;
    bool creates;
    std::int64_t tell;
    bool writes;          // 2 bytes at 1
    std::int64_t reads;   // result of reading 2 bytes at 3; below 0 if refused
    std::uintmax_t size;  // after both
};
constexpr ModeCase kModes[] = {
    {"", false, 0, false, 2, 5},   {"rw", false, 0, false, 2, 5}, {"tra", false, 5, false, 2, 5},
    {"tr+", false, 0, true, 2, 5}, {"wTD", true, 0, true, -1, 3}, {"wa", true, 0, true, -1, 3},
    {"rw+a", true, 0, true, 0, 3}, {"ra+", true, 5, true, 2, 7},  {"+", false, 0, true, 2, 5},
};

TEST_F(File, ModesTellAccessCreationTruncationAndPosition) {
    for (const ModeCase& c : kModes) {
        SCOPED_TRACE(c.mode);
        EXPECT_EQ(open("missing", c.mode), c.creates);
        EXPECT_TRUE(file.IsOpen() == c.creates && file.OpenErrno() == (c.creates ? 0 : ENOENT));
        std::filesystem::remove(path("missing"));
        made("hello", {'h', 'e', 'l', 'l', 'o'});
        ASSERT_TRUE(open("hello", c.mode));
        EXPECT_EQ(file.Tell(), c.tell);
        EXPECT_EQ(failureOf([&] { file.Write("XY", 2, -1); }), fileError(1002, EINVAL, fHello));
        EXPECT_EQ(failureOf([&] { file.Write("XY", 2, 1); }), c.writes ? "" : fileError(1002, EBADF, fHello));
        const std::string failure = failureOf([&] { EXPECT_EQ(file.Read(bytes, 2, 3), c.reads); });
        EXPECT_EQ(failure, c.reads >= 0 ? "" : fileError(1003, EBADF, fHello));
        EXPECT_EQ(std::filesystem::file_size(fHello), c.size);
        file.Close();
        EXPECT_EQ(std::filesystem::exists(fHello), std::string(c.mode) != "wTD");
    }
}

TEST_F(File, ATemporaryFileIsItsOwnersAloneAndGoesWhenThatProcessCloses) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(fDirectory);
    fName.SetGeneric("data");
    ASSERT_TRUE(file.Open(fName, "w+bD"));
    std::filesystem::current_path(before);
    const std::string data = path("data");
    EXPECT_EQ(std::filesystem::status(data).permissions(), std::filesystem::perms(0600));
    expectInChild([&] {
        ORVA_File own;
        EXPECT_EQ(file.Close(), 1);
        EXPECT_FALSE(open("data", "w+b", &own)) << "the lock is the parent's";
        EXPECT_TRUE(open("own", "w+bD", &own));
    });
    EXPECT_TRUE(std::filesystem::exists(data)) << "deleted by a process that did not open it";
    EXPECT_FALSE(std::filesystem::exists(path("own")));
    EXPECT_EQ(file.Close(), 1);
    EXPECT_FALSE(std::filesystem::exists(data)) << "the directory it was opened in is another one now";

    ASSERT_TRUE(open("data", "w+bD"));
    std::filesystem::rename(made("other", {}), data);
    EXPECT_EQ(file.Close(), 1);
    EXPECT_TRUE(std::filesystem::exists(data)) << "a file that took the name over";
}

TEST_F(File, FailedCloseIsThrownAndLeavesItOpenButADestructorLetsGo) {
    FileCalls calls;
    auto writer = std::make_unique<ORVA_File>();
    ASSERT_TRUE(open("hello", "r") && writer->Open(fName, "r+") && !open("hello", "a"));
    for (int round = 0; round < 2; ++round) {
        calls.fail(Call::Close, EIO);
        const std::string failure = failureOf([&] { round == 0 ? writer->Close() : writer->Open(fName, "r"); });
        EXPECT_EQ(failure, fileError(1002, EIO, fHello));
        EXPECT_TRUE(writer->IsOpen() && !writer->Good());
    }
    calls.fail(Call::Close, EIO);
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

TEST_F(File, AStreamWithoutAnOpenFileAnswersByResult) {
    ORVA_FileStream none, failed(fHello.c_str(), "a");
    EXPECT_EQ(failed.Tell(), 5);
    EXPECT_TRUE(failed.Open(path("none").c_str(), "r") == 0 && failed.Good() == 0);
    EXPECT_EQ(failed.Name(), path("none"));
    EXPECT_EQ(none.Name(), nullptr);
    EXPECT_EQ(&none.GetNameStr(), &ORVA_FileStream(true).GetNameStr()) << "one empty name for all";
    EXPECT_TRUE(failed.IsShared() == 0 && ORVA_FileStream(failed).IsShared() == 1);
    for (ORVA_FileStream* stream : {&none, &failed}) {
        stream->EnableMultiThreadReading();
        EXPECT_EQ(stream->Read(bytes, 1) + stream->Write(bytes, 1), 0U);
        EXPECT_EQ(stream->Seek(0, ORVA_StrBaseIO::SeekFromCurrent), -1);
        EXPECT_TRUE(stream->Close() == 0 && stream->Flush() == 1 && stream->Tell() == 0 && !stream->IsShared());
    }
    zcmpsFilestr packed(failed);
    EXPECT_EQ(failureOf([&] { packed.readFilePosInfo(1, false); }), fileError(1003, ENOENT, path("none")));
}

TEST_F(File, APipeIsAppendedToAndReadToItsEnd) {
    for (const bool ahead : {false, true}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const auto nameOf = [](int end) { return "/dev/fd/" + std::to_string(end); };
        ORVA_FileStream in(nameOf(ends[0]).c_str(), "r");
        if (ahead) in.EnableMultiThreadReading();
        {
            ORVA_FileStream out(nameOf(ends[1]).c_str(), "a");
            EXPECT_TRUE(out.Tell() == 0 && out.Write("ab", 2) == 2 && out.Write("c", 1) == 1);
        }
        close(ends[0]), close(ends[1]);
        EXPECT_TRUE(in.Read(bytes, 2) == 2 && in.Read(bytes, 2) == 1 && in.Read(bytes, 2) == 0 && in.EndOfFile() == 1);
    }
}

TEST_F(File, AStreamsDestructorThrowsUnlessAFlightBeganSinceItsConstruction) {
    const auto end = [this](bool inFlight) {
        FileCalls calls;
        ORVA_FileStream stream(fHello.c_str(), "r+");
        stream.EnableMultiThreadReading();
        stream.Write("abc", 3);
        calls.fail(Call::Write, ENOSPC);
        if (inFlight) throw 7;
    };
    EXPECT_THROW(end(false), FileError);
    EXPECT_THROW(end(true), int);
    const auto whileUnwinding = [&] {
        const std::shared_ptr<void> last(nullptr, [&](auto) { EXPECT_THROW(end(false), FileError); });
        throw 7;
    };
    EXPECT_THROW(whileUnwinding(), int);
    EXPECT_EQ(ORVA_FileStream(fHello.c_str(), "r+").Good(), 1) << "closed and unlocked all the same";
    EXPECT_EQ(readBytes(fHello)[0], 'h');
}

struct Counted : ORVA_RefCntObject {
    Counted() { ++alive; }
    Counted(const Counted& other) : ORVA_RefCntObject(other) {
        if (other.refusesCopies) throw "no";
        ++alive;
    }
    ~Counted() override { --alive; }
    bool refusesCopies = false;
    static inline int alive = 0;
};

TEST(RefCounted, HoldersShareTheLastOneDeletesAndSomeGetFreshCopies) {
    RefCountPtr<Counted> first(new Counted), second(new Counted);
    Counted* const object = first.get();
    first = object;
    second = first;
    EXPECT_TRUE(Counted::alive == 1 && object->IsShared() == 1 && first == second && !(first != second.get()));
    object->refusesCopies = true;
    EXPECT_THROW(second.Unshared(), const char*);
    EXPECT_TRUE(second == object && object->IsShared() == 1) << "as before";
    object->refusesCopies = false;
    Counted* const own = second.Unshared();
    EXPECT_TRUE(own != object && second.Unshared() == own && object->IsShared() == 0 && own->IsShared() == 0);
    object->MarkUnshareable();
    second = first;
    EXPECT_TRUE(second != object && second->IsShareable() == 1U && second->IsShared() == 0);
    first = nullptr, second = nullptr;
    EXPECT_TRUE(first.IsValid() == 0 && Counted::alive == 0);
}
