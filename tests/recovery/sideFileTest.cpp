// The side file of a safe append and what becomes of it: finished rows are never undone, old rows never lost, foreign
// files never touched. That kills and losses of power cost nothing is told in interruptionTest.cpp.
#include "part/heldSideFile.h"
#include "recoveryTest.h"

#include <orva/platformOwner.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace recovery {

namespace fs = std::filesystem;

class SideFileTest : public FileTest {
protected:
    static constexpr std::size_t kOldSize = 800;
    const std::vector<Bytes> fOldBlocks = blocksOf({300, 500});
    const std::vector<Bytes> fMore = blocksOf({200}, 100);
    const Bytes fOld = support::joined(fOldBlocks);
    const Bytes fOldAndMore = fOld + support::joined(fMore);
    const std::string fOther = path("other");

    // A safe append of `added` behind the first `kept` bytes of rows, not yet finished.
    static core::Reader appending(const std::string& name, const std::vector<Bytes>& added,
                                  std::size_t kept = kOldSize) {
        core::Reader stream(name, 0, kRow0);
        stream->setSafeAppend(true);
        core::resume(*stream, kRow0 + static_cast<std::int64_t>(kept));
        core::writeBlocks(*stream, added);
        return stream;
    }
    static void append(const std::string& name, const std::vector<Bytes>& added, std::size_t kept = kOldSize) {
        EXPECT_EQ(appending(name, added, kept)->Close(), 1);
    }
    // What a kill leaves once `added` is in the file.
    void interrupt(const std::vector<Bytes>& added, std::size_t kept = kOldSize) const {
        const core::Reader stream = appending(fFile, added, kept);
        const Files files = present();
        stream->abandon();
        lay(files);
    }
    // Two files of such blocks differ in nothing but the rows.
    static std::vector<Bytes> noise(unsigned char seed) { return blocksOf({kNoise, kNoise}, seed); }
    void replaceBy(const std::vector<Bytes>& blocks) const {
        makeFile(fOther, blocks);
        fs::rename(fOther, fFile);
    }
    // A file that somebody else has put in the place of the side file.
    Bytes foreign(const std::function<void()>& make) const {
        make();
        EXPECT_EQ(failureOf([&] { append(fFile, fMore); }), core::fileError(1002, EEXIST, fSide));
        EXPECT_EQ(::open(fSide.c_str(), O_WRONLY | O_NONBLOCK | O_EXCL | O_CREAT, 0), -1);
        return fOld;
    }
    std::string ending() const {
        auto result = orva::rollBackResult::nothingToDo;
        const std::string failure = failureOf([&] { result = orva::rollBack(fFile); });
        const char* names[] = {"nothing", "rolled back", "left as it is", "completed"};
        return failure.empty() ? names[static_cast<int>(result)] : failure;
    }
};

TEST_F(SideFileTest, NeverUndoesAFinishedRowAndNeverLosesAnOldOne) {
    const bool isRoot = ::geteuid() == 0;
    const struct {
        const char* name;
        std::function<Bytes()> arrange;  // gives the rows that the file has to hold in the end; none: is not looked at
        const char* ending;              // the side file stays where this is a refusal
    } rows[] = {
        {"1 another file renamed over the name",
         [&] {
             interrupt({});
             replaceBy(blocksOf({70'000}, 7));
             return support::joined(blocksOf({70'000}, 7));
         },
         "left as it is"},
        {"2 a backup restored, appended to and renamed over",
         [&] {
             fs::copy_file(fFile, fOther);
             interrupt(fMore);
             append(fOther, fMore);
             fs::rename(fOther, fFile);
             return fOldAndMore;
         },
         "left as it is"},
        {"3 an append by another hard link",
         [&] {
             interrupt({});
             fs::create_hard_link(fFile, fOther);
             append(fOther, fMore);
             return fOldAndMore;
         },
         "left as it is"},
        {"4 rewritten in place by plain calls",
         [&] {
             interrupt({});
             makeFile(fOther, blocksOf({300}, 7));
             support::overwriteBytes(fFile, 0, support::readBytes(fOther));
             return support::joined(blocksOf({300}, 7));
         },
         "left as it is"},
        {"5 the host changes its dictionary part",
         [&] {
             interrupt(fMore);
             support::overwriteBytes(fFile, 0, Bytes(kRow0, 0x11));
             return fOld;
         },
         "rolled back"},
        {"6 a writer whose file was renamed ends beside a live append",
         [&] {
             const core::Reader first = appending(fFile, fMore);
             fs::rename(fFile, fOther);
             fs::rename(fSide, fOther + ".orva-undo");
             makeFile(fFile, fOldBlocks);
             const core::Reader live = appending(fFile, fMore);
             EXPECT_EQ(first->Close(), 1);
             const Files files = present();
             live->abandon();
             lay(files);
             return fOld;
         },
         "rolled back"},
        {"7 moved away, a new part under its name, moved back",
         [&] {
             interrupt(fMore);
             fs::rename(fFile, fOther);
             makeFile(fFile, blocksOf({40}));
             fs::rename(fOther, fFile);
             return fOld;
         },
         "rolled back"},
        {"8 a text file", [&] { return foreign([&] { support::writeBytes(fSide, Bytes(60, 'a')); }); },
         "no append has made it"},
        {"8 a pipe", [&] { return foreign([&] { ASSERT_EQ(::mkfifo(fSide.c_str(), 0600), 0); }); },
         "no append has made it"},
        {"8 a link that leads nowhere", [&] { return foreign([&] { fs::create_symlink(fOther, fSide); }); },
         "no append has made it"},
        {"11 another file with the same heading and index",
         [&] {
             replaceBy(noise(10));
             const Bytes heading = support::slice(bytes(), kRow0, kHeadingSize);
             interrupt(fMore, 2 * kNoise);
             replaceBy(noise(20));
             EXPECT_EQ(support::slice(bytes(), kRow0, kHeadingSize), heading);
             return support::joined(noise(20));
         },
         "left as it is"},
        {"12 a cut and as many new rows, finished",
         [&] {
             replaceBy(noise(10));
             interrupt({noise(20)[1]}, kNoise);
             const Bytes side = support::readBytes(fSide);
             fs::remove(fSide);
             replaceBy(noise(10));
             append(fFile, {noise(20)[1]}, kNoise);
             support::writeBytes(fSide, side);
             return noise(10)[0] + noise(20)[1];
         },
         "left as it is"},
        {"12 a cut and as many new rows, interrupted",
         [&] {
             replaceBy(noise(10));
             interrupt({noise(20)[1]}, kNoise);
             return support::joined(noise(10));
         },
         "rolled back"},
        {"Bytes that no heading has are none that was torn",
         [&] {
             interrupt(fMore);
             const Bytes side = support::readBytes(fSide);
             EXPECT_EQ(orva::rollBack(fFile), orva::rollBackResult::rolledBack);
             append(fFile, fMore);
             support::overwriteBytes(fFile, kRow0, Bytes(kHeadingSize, 0x77));
             support::writeBytes(fSide, side);
             return Bytes();
         },
         "neither whole nor what the append has left"},
        {"13 planted by another user",
         [&] {
             interrupt(fMore);
             EXPECT_TRUE(!isRoot || ::chown(fSide.c_str(), 4711, 4711) == 0);
             return isRoot ? Bytes() : fOld;
         },
         isRoot ? "FileError 1003 errno 1 " : "rolled back"},
        {"14 of another user who may write the data",
         [&] {
             EXPECT_TRUE(!isRoot || ::chown(fFile.c_str(), 4711, 4712) == 0);
             ::chmod(fFile.c_str(), 0664);
             const core::Reader stream = appending(fFile, fMore);
             struct stat data {};
             struct stat side {};
             EXPECT_TRUE(::stat(fFile.c_str(), &data) == 0 && ::stat(fSide.c_str(), &side) == 0);
             EXPECT_EQ(std::tuple(side.st_mode, side.st_uid, side.st_gid),
                       std::tuple(data.st_mode, data.st_uid, data.st_gid));
             const Files files = present();
             stream->abandon();
             lay(files);
             EXPECT_TRUE(!isRoot ||
                         (::chown(fFile.c_str(), 4711, 4712) == 0 && ::chown(fSide.c_str(), 4713, 4712) == 0));
             ::chmod(fFile.c_str(), 0664);
             return fOld;
         },
         "rolled back"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (const auto& entry : fs::directory_iterator(fDirectory)) fs::remove(entry.path());
        makeFile(fFile, fOldBlocks);
        const Bytes wanted = row.arrange();
        const Bytes before = bytes();
        const std::string ended = ending();
        EXPECT_THAT(ended, testing::HasSubstr(row.ending));
        const bool refused = ended.find("Error ") != std::string::npos;
        EXPECT_EQ(fs::symlink_status(fSide).type() != fs::file_type::not_found, refused);
        EXPECT_TRUE(!refused || bytes() == before);
        EXPECT_TRUE(wanted.empty() || sameBytes(rowsOf(fFile), wanted));
    }
}

TEST_F(SideFileTest, IsBelievedOnlyWhereNobodyElseCanHaveMadeIt) {
    constexpr std::uint32_t owner = 1, caller = 2, member = 3;
    const struct {
        const char* name;
        bool believed;
        platform::fileAccess side{
            .device = 1, .inode = 1, .links = 1, .user = member, .group = 10, .mode = 0664, .regular = true};
        std::uint32_t dataMode = 0664;
        std::uint32_t directoryMode = 0775;
    } rows[] = {
        {"RootsOwn", true, {1, 1, 1, 0, 0, 0600, true}},
        {"TheCallers", true, {1, 1, 1, caller, 99, 0600, true}},
        {"TheDataOwners", true, {1, 1, 1, owner, 99, 0600, true}},
        {"AGroupMembers", true},
        {"OfAnotherGroup", false, {1, 1, 1, member, 99, 0644, true}},
        {"WhereTheGroupMayNotWrite", false, {1, 1, 1, member, 10, 0644, true}, 0644},
        {"WhereTheDirectoryGivesTheGroup", false, {1, 1, 1, member, 10, 0664, true}, 0664, 02775},
        {"WhereAllMayPutFiles", false, {1, 1, 1, member, 10, 0664, true}, 0664, 01777},
        {"WritableByAll", false, {1, 1, 1, owner, 10, 0666, true}},
        {"WritableByAllLikeTheData", true, {1, 1, 1, owner, 10, 0666, true}, 0666},
        {"WritableByAnotherGroup", false, {1, 1, 1, owner, 99, 0660, true}},
        {"WithASecondName", false, {1, 1, 2, owner, 10, 0664, true}},
        {"NoRegularFile", false, {1, 1, 1, owner, 10, 0664, false}},
    };
    for (const auto& row : rows) {
        const platform::fileAccess data{1, 2, 1, owner, 10, row.dataMode, true};
        const platform::fileAccess directory{1, 3, 2, owner, 10, row.directoryMode, false};
        EXPECT_EQ(orva::canBeTrusted(row.side, data, directory, caller), row.believed) << row.name;
    }
}

}  // namespace recovery
