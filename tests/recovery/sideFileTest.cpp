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
    using Deed = std::function<void()>;
    using Blocks = std::vector<Bytes>;
    static constexpr std::int64_t kOldSize = 800;
    const Blocks fOldBlocks = blocksOf({300, 500}), fMore = blocksOf({200}, 100);
    const std::string fOther = path("other"), fKept = path("kept");

    // A safe append of `added` behind the first `kept` bytes of rows, not yet finished.
    static core::Reader appending(const std::string& name, const Blocks& added, std::int64_t kept = kOldSize) {
        core::Reader stream(name, 0, kRow0);
        stream->setSafeAppend(true);
        core::resume(*stream, kRow0 + kept);
        core::writeBlocks(*stream, added);
        return stream;
    }
    // Leaves what a kill of this append leaves.
    void kill(const core::Reader& stream) const {
        const Files files = present();
        stream->abandon();
        lay(files);
    }
    Deed killed(const Blocks& added = {}, std::int64_t kept = kOldSize) const {
        return [=, this] { kill(appending(fFile, added, kept)); };
    }
    static Deed appended(const std::string& name, const Blocks& added, std::int64_t kept = kOldSize) {
        return [=] { EXPECT_EQ(appending(name, added, kept)->Close(), 1); };
    }
    static Deed created(const std::string& name, const Blocks& blocks) {
        return [=] { makeFile(name, blocks); };
    }
    static Deed moved(const std::string& from, const std::string& to) {
        return [=] { fs::rename(from, to); };
    }
    static Deed overwritten(const std::string& name, std::int64_t at, const Bytes& bytes) {
        return [=] { support::overwriteBytes(name, at, bytes); };
    }
    static Deed owned(const std::string& name, uid_t user, gid_t group) {
        return [=] { EXPECT_TRUE(!isRoot() || ::chown(name.c_str(), user, group) == 0); };
    }
    // A file that somebody else has put in the place of the side file.
    Deed foreign(const Deed& make) const {
        return [=, this] {
            make();
            for (const bool safe : {false, true}) {
                const core::Reader stream(fFile, 0, kRow0);
                stream->setSafeAppend(safe);
                const std::string failure = core::fileError(1002, EEXIST, fSide);
                EXPECT_EQ(failureOf([&] { core::resume(*stream, kRow0 + kOldSize); }), failure);
                EXPECT_EQ(failureOf([&] { stream.read(1); }), failure) << "and again, with nothing to finish";
                EXPECT_EQ(stream->Close(), 1);
            }
            EXPECT_EQ(::open(fSide.c_str(), O_WRONLY | O_NONBLOCK | O_EXCL | O_CREAT, 0), -1);
        };
    }
    static bool isRoot() { return ::geteuid() == 0; }
    std::string ending() const {
        auto result = orva::rollBackResult::nothingToDo;
        const std::string failure = failureOf([&] { result = orva::rollBack(fFile); });
        const char* names[] = {"nothing", "undone", "left", "completed"};
        return failure.empty() ? names[static_cast<int>(result)] : failure;
    }
};

TEST_F(SideFileTest, NeverUndoesAFinishedRowAndNeverLosesAnOldOne) {
    const Bytes old = support::joined(fOldBlocks), oldAndMore = old + fMore[0];
    const Blocks shorter = blocksOf({300}, 7), other = blocksOf({70'000}, 7);
    // Files of such blocks differ in nothing but the rows.
    const Blocks noise = blocksOf({kNoise, kNoise}, 10), noise2 = blocksOf({kNoise, kNoise}, 20);
    const char* const stranger = "no append has made it";
    const Deed liveBesideARenamedOne = [&] {
        const core::Reader first = appending(fFile, fMore);
        fs::rename(fFile, fOther);
        fs::rename(fSide, fOther + ".orva-undo");
        makeFile(fFile, fOldBlocks);
        const core::Reader live = appending(fFile, fMore);
        EXPECT_EQ(first->Close(), 1);
        kill(live);
    };
    const Deed appendedByWhoMay = [&] {
        ::chmod(fFile.c_str(), 0664);
        const core::Reader stream = appending(fFile, fMore);
        struct stat data {
        }, side{};
        EXPECT_TRUE(::stat(fFile.c_str(), &data) == 0 && ::stat(fSide.c_str(), &side) == 0);
        EXPECT_EQ(std::tuple(side.st_mode, side.st_uid, side.st_gid),
                  std::tuple(data.st_mode, data.st_uid, data.st_gid));
        kill(stream);
        ::chmod(fFile.c_str(), 0664);
    };
    const Deed newPart = [&] {
        zcmpsFilestr stream(ORVA_FileStream(fFile.c_str(), "r+b"));
        core::beginRows(stream);
        core::write(stream, Bytes(10));
        EXPECT_TRUE(fs::exists(fSide));
        stream.Flush();
        EXPECT_FALSE(fs::exists(fSide));
    };
    const struct {
        const char* name;
        const char* ending;  // the side file stays where this is a refusal
        Bytes rows;          // that the file has to hold in the end; none: is not looked at
        std::vector<Deed> deeds;
    } rows[] = {
        {"1 another file renamed over the name",
         "left",
         other[0],
         {killed(), created(fOther, other), moved(fOther, fFile)}},
        {"2 a backup restored, appended to and renamed over",
         "left",
         oldAndMore,
         {created(fOther, fOldBlocks), killed(fMore), appended(fOther, fMore), moved(fOther, fFile)}},
        {"3 an append by another hard link",
         "left",
         oldAndMore,
         {killed(), [&] { fs::create_hard_link(fFile, fOther); }, appended(fOther, fMore)}},
        {"4 rewritten in place by plain calls",
         "left",
         shorter[0],
         {killed(), created(fOther, shorter), [&] { overwritten(fFile, 0, support::readBytes(fOther))(); }}},
        {"5 the host changes its dictionary part",
         "undone",
         old,
         {killed(fMore), overwritten(fFile, 0, Bytes(kRow0, 0x11))}},
        {"6 a writer whose file was renamed ends beside a live append", "undone", old, {liveBesideARenamedOne}},
        {"7 moved away, a new part under its name, moved back",
         "undone",
         old,
         {killed(fMore), moved(fFile, fOther), created(fFile, shorter), moved(fOther, fFile)}},
        {"8 a text file", stranger, old, {foreign([&] { support::writeBytes(fSide, Bytes(60, 'a')); })}},
        {"8 a pipe", stranger, old, {foreign([&] { ASSERT_EQ(::mkfifo(fSide.c_str(), 0600), 0); })}},
        {"8 a link that leads nowhere", stranger, old, {foreign([&] { fs::create_symlink(fOther, fSide); })}},
        {"8 a directory", stranger, old, {foreign([&] { fs::create_directory(fSide); })}},
        {"11 another file with the same heading and index",
         "left",
         support::joined(noise2),
         {created(fFile, noise), killed(fMore, 2 * kNoise), created(fOther, noise2), moved(fOther, fFile)}},
        {"12 a cut and as many new rows, finished",
         "left",
         noise[0] + noise2[1],
         {created(fFile, noise), killed({noise2[1]}, kNoise), moved(fSide, fKept), created(fFile, noise),
          appended(fFile, {noise2[1]}, kNoise), moved(fKept, fSide)}},
        {"12 a cut and as many new rows, interrupted",
         "undone",
         support::joined(noise),
         {created(fFile, noise), killed({noise2[1]}, kNoise)}},
        {"13 planted by another user",
         isRoot() ? "FileError 1003 errno 1 " : "undone",
         isRoot() ? Bytes() : old,
         {killed(fMore), owned(fSide, 4711, 4711)}},
        {"14 of another user who may write the data",
         "undone",
         old,
         {owned(fFile, 4711, 4712), appendedByWhoMay, owned(fFile, 4711, 4712), owned(fSide, 4713, 4712)}},
        {"Bytes that no heading has are none that was torn",
         "neither whole nor what the append has left",
         {},
         {killed(fMore), moved(fSide, fKept), created(fFile, fOldBlocks), appended(fFile, fMore),
          overwritten(fFile, kRow0, Bytes(kHeadingSize, 0x77)), moved(fKept, fSide)}},
        {"A new part takes the place of the rows that it brings back", "nothing", {}, {killed(), newPart}},
        {"Another file has begun anew", "left", shorter[0], {killed(), created(fFile, shorter)}},
        {"The append had not begun", "left", old, {[&] {
             support::writeBytes(fSide, {'.', 'O', 'R'});
         }}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (const auto& entry : fs::directory_iterator(fDirectory)) fs::remove(entry.path());
        makeFile(fFile, fOldBlocks);
        for (const Deed& deed : row.deeds) deed();
        const Bytes before = bytes();
        const std::string ended = ending();
        EXPECT_THAT(ended, testing::HasSubstr(row.ending));
        const bool refused = ended.find("Error ") != std::string::npos;
        EXPECT_EQ(fs::symlink_status(fSide).type() != fs::file_type::not_found, refused);
        EXPECT_TRUE(!refused || bytes() == before);
        EXPECT_TRUE(row.rows.empty() || sameBytes(rowsOf(fFile), row.rows));
    }
    const auto heading = [&](const Blocks& blocks) {
        makeFile(fFile, blocks);
        return support::slice(bytes(), kRow0, kHeadingSize);
    };
    EXPECT_EQ(heading(noise), heading(noise2)) << "else row 11 shows nothing";
}

TEST_F(SideFileTest, IsBelievedOnlyWhereNobodyElseCanHaveMadeIt) {
    constexpr std::uint32_t owner = 1, caller = 2, member = 3;
    const struct {
        const char* name;
        bool believed;
        std::uint64_t links;
        std::uint32_t user, group, mode;
        bool regular = true;
        std::uint32_t dataMode = 0664;
        std::uint32_t directoryMode = 0775;
    } rows[] = {
        {"RootsOwn", true, 1, 0, 0, 0600},
        {"TheCallers", true, 1, caller, 99, 0600},
        {"TheDataOwners", true, 1, owner, 99, 0600},
        {"AGroupMembers", true, 1, member, 10, 0664},
        {"OfAnotherGroup", false, 1, member, 99, 0644},
        {"WhereTheGroupMayNotWrite", false, 1, member, 10, 0644, true, 0644},
        {"WhereTheDirectoryGivesTheGroup", false, 1, member, 10, 0664, true, 0664, 02775},
        {"WhereAllMayPutFiles", false, 1, member, 10, 0664, true, 0664, 01777},
        {"WritableByAll", false, 1, owner, 10, 0666},
        {"WritableByAllLikeTheData", true, 1, owner, 10, 0666, true, 0666},
        {"WritableByAnotherGroup", false, 1, owner, 99, 0660},
        {"WithASecondName", false, 2, owner, 10, 0664},
        {"NoRegularFile", false, 1, owner, 10, 0664, false},
    };
    for (const auto& row : rows) {
        const platform::fileAccess data{1, 2, 1, owner, 10, row.dataMode, true};
        const platform::fileAccess directory{1, 3, 2, owner, 10, row.directoryMode, false};
        const platform::fileAccess side{1, 1, row.links, row.user, row.group, row.mode, row.regular};
        EXPECT_EQ(orva::canBeTrusted(side, data, directory, caller), row.believed) << row.name;
    }
}

}  // namespace recovery
