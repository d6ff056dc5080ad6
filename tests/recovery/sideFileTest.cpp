// The side file of a safe append and its end: finished rows are never undone, old rows never lost, foreign files never
// touched. interruptionTest.cpp covers kills and losses of power.
#include "part/heldSideFile.h"
#include "part/undoRecord.h"
#include "recoveryTest.h"

#include <orva/platformOwner.h>

using namespace support;

namespace fs = std::filesystem;

struct SideFileTest : FileTest {
    using Deed = std::function<void()>;
    using Blocks = std::vector<Bytes>;
    const Blocks fOldBlocks = blocksOf({300, 500}), fMore = blocksOf({200}, 100);

    // A safe append of `added` after the first `kept` bytes of rows, not yet finished.
    static Reader appending(const std::string& name, const Blocks& added, std::int64_t kept = 800) {
        Reader stream(name, 0, kRow0);
        stream->setSafeAppend(true);
        resume(*stream, kRow0 + kept);
        writeBlocks(*stream, added);
        return stream;
    }
    // A foreign file in the place of the side file.
    Deed foreign(const Deed& make) const {
        return [=, this] {
            make();
            for (const bool safe : {false, true}) {
                const Reader stream(fFile, 0, kRow0);
                stream->setSafeAppend(safe);
                const std::string failure = fileError(1002, EEXIST, fSide);
                EXPECT_EQ(failureOf([&] { resume(*stream, kRow0 + 800); }), failure);
                EXPECT_EQ(failureOf([&] { stream.read(1); }), failure) << "and again, with nothing to finish";
                EXPECT_EQ(stream->Close(), 1);
            }
        };
    }
};

TEST_F(SideFileTest, NeverUndoesAFinishedRowAndNeverLosesAnOldOne) {
    const Bytes old = joined(fOldBlocks), oldAndMore = old + fMore[0];
    const Blocks shorter = blocksOf({300}, 7), longer = blocksOf({70'000}, 7);
    // Files of such blocks differ only in their rows.
    const Blocks noise = blocksOf({kNoise, kNoise}, 10), noise2 = blocksOf({kNoise, kNoise}, 20);
    const std::string other = path("other"), kept = path("kept");
    const bool isRoot = ::geteuid() == 0;
    const auto killed = [&](Blocks added = {}, std::int64_t rows = 800) -> Deed {
        return [=, this] { lay(afterKill(appending(fFile, added, rows))); };
    };
    const auto appended = [&](std::string name, Blocks added, std::int64_t rows = 800) -> Deed {
        return [=] { EXPECT_EQ(appending(name, added, rows)->Close(), 1); };
    };
    const auto created = [](auto name, auto blocks) { return [=] { makeFile(name, blocks); }; };
    const auto moved = [](auto from, auto to) { return [=] { fs::rename(from, to); }; };
    const auto overwritten = [&](auto at, auto bytes) { return [=, this] { overwriteBytes(fFile, at, bytes); }; };
    const auto owned = [=](auto name, uid_t user, gid_t group) {
        return [=] { EXPECT_TRUE(!isRoot || ::chown(name.c_str(), user, group) == 0); };
    };
    const char* const stranger = "no append has made it";
    const Deed liveBesideARenamedOne = [&] {
        const Reader first = appending(fFile, fMore);
        fs::rename(fFile, other);
        fs::rename(fSide, other + ".orva-undo");
        makeFile(fFile, fOldBlocks);
        const Reader live = appending(fFile, fMore);
        EXPECT_EQ(first->Close(), 1);
        lay(afterKill(live));
    };
    const Deed appendedByWhoMay = [&] {
        ::chmod(fFile.c_str(), 0664);
        const Reader stream = appending(fFile, fMore);
        platform::fileAccess data{}, side{};
        EXPECT_TRUE(platform::accessOf(fFile.c_str(), data) && platform::accessOf(fSide.c_str(), side));
        EXPECT_EQ(std::tuple(side.mode, side.user, side.group), std::tuple(data.mode, data.user, data.group));
        lay(afterKill(stream));
        ::chmod(fFile.c_str(), 0664);
    };
    const Deed madeByTheOtherOrder = [&] {
        Bytes side = slice(readBytes(fSide), 0, fs::file_size(fSide) - 8);
        for (const int number : {0, 8, 16, 24, 32}) std::reverse(&side[0] + number, &side[0] + number + 8);
        const std::uint64_t sum = crc32_z(0, side.data(), side.size());
        writeBytes(fSide, side + bytesOf(orva::swapBytes(sum)));
    };
    const Deed newPart = [&] {
        zcmpsFilestr stream(ORVA_FileStream(fFile.c_str(), "r+b"));
        beginRows(stream);
        support::write(stream, Bytes(10));
        EXPECT_TRUE(fs::exists(fSide));
        stream.Flush();
        EXPECT_FALSE(fs::exists(fSide));
    };
    const auto expect = [&](const char* name, const char* end, const Bytes& held, const std::vector<Deed>& deeds) {
        SCOPED_TRACE(name);
        for (const auto& entry : fs::directory_iterator(fDirectory)) fs::remove(entry.path());
        makeFile(fFile, fOldBlocks);
        for (const Deed& deed : deeds) deed();
        const Bytes before = bytes();
        const char* const ends[] = {"nothing", "undone", "kept", "completed"};
        std::string ended;
        const std::string refusal = failureOf([&] { ended = ends[static_cast<int>(orva::rollBack(fFile))]; });
        EXPECT_THAT(refusal + ended, testing::HasSubstr(end));
        EXPECT_EQ(fs::symlink_status(fSide).type() != fs::file_type::not_found, !refusal.empty());
        EXPECT_TRUE(refusal.empty() || bytes() == before);
        EXPECT_TRUE(held.empty() || sameBytes(rowsOf(fFile), held));
    };
    expect("1 another file moved over it", "kept", longer[0], {killed(), created(other, longer), moved(other, fFile)});
    expect("1 a file that is shorter than the side file", "kept", shorter[0],
           {created(fFile, noise), killed(fMore, 2 * kNoise), created(other, shorter), moved(other, fFile)});
    expect("2 a backup restored, appended to and renamed over", "kept", oldAndMore,
           {created(other, fOldBlocks), killed(fMore), appended(other, fMore), moved(other, fFile)});
    expect("3 an append by another hard link", "kept", oldAndMore,
           {killed(), [&] { fs::create_hard_link(fFile, other); }, appended(other, fMore)});
    expect("4 rewritten in place by plain calls", "kept", shorter[0],
           {killed(), created(other, shorter), [&] { overwritten(0, readBytes(other))(); }});
    expect("5 a host changes its dictionary part", "undone", old, {killed(fMore), overwritten(0, Bytes(kRow0, 0x11))});
    expect("6 a writer whose file was renamed ends beside a live append", "undone", old, {liveBesideARenamedOne});
    expect("7 moved away, a new part under its name, moved back", "undone", old,
           {killed(fMore), moved(fFile, other), created(fFile, shorter), moved(other, fFile)});
    expect("8 a text file", stranger, old, {foreign([&] { writeBytes(fSide, Bytes(60, 'a')); })});
    expect("8 a pipe", stranger, old, {foreign([&] { ASSERT_EQ(::mkfifo(fSide.c_str(), 0600), 0); })});
    expect("8 a link that leads nowhere", stranger, old, {foreign([&] { fs::create_symlink(other, fSide); })});
    expect("8 a directory", stranger, old, {foreign([&] { fs::create_directory(fSide); })});
    expect("11 another file with the same heading and index", "kept", joined(noise2),
           {created(fFile, noise), killed(fMore, 2 * kNoise), created(other, noise2), moved(other, fFile)});
    expect("12 a cut and as many new rows, finished", "kept", noise[0] + noise2[1],
           {created(fFile, noise), killed({noise2[1]}, kNoise), moved(fSide, kept), created(fFile, noise),
            appended(fFile, {noise2[1]}, kNoise), moved(kept, fSide)});
    expect("12 a cut and as many new rows, interrupted", "undone", joined(noise),
           {created(fFile, noise), killed({noise2[1]}, kNoise)});
    expect("13 planted by another user", isRoot ? "FileError 1003 errno 1 " : "undone", isRoot ? Bytes() : old,
           {killed(fMore), owned(fSide, 4711, 4711)});
    expect("14 of another user who may write the data", "undone", old,
           {owned(fFile, 4711, 4712), appendedByWhoMay, owned(fFile, 4711, 4712), owned(fSide, 4713, 4712)});
    expect("Bytes that no heading has are none that was torn", "neither intact nor as the append left it", {},
           {killed(fMore), moved(fSide, kept), created(fFile, fOldBlocks), appended(fFile, fMore),
            overwritten(kRow0, Bytes(kHeadingSize, 0x77)), moved(kept, fSide)});
    expect("Bytes that the append has not written", "neither intact nor as the append found it", {},
           {killed(fMore), overwritten(kRow0 + 30, Bytes{1})});
    expect("With a longer side file than any append makes", "neither is the side file", {},
           {killed(fMore), [&] { writeBytes(fSide, readBytes(fSide) + Bytes(1 << 20)); }});
    expect("On a machine of the other byte order", "undone", old, {killed(fMore), madeByTheOtherOrder});
    expect("A new part takes the place of the rows that it brings back", "nothing", {}, {killed(), newPart});
    expect("Another file has begun anew", "kept", shorter[0], {killed(), created(fFile, shorter)});
    expect("The append had not begun", "kept", old,
           {[&] { writeBytes(fSide, slice(bytesOf(orva::sideFileHead().mark), 0, 3)); }});
    const auto heading = [&](const Blocks& blocks) { return slice(finished(blocks), kRow0, kHeadingSize); };
    EXPECT_EQ(heading(noise), heading(noise2)) << "else row 11 shows nothing";
}

TEST(SideFile, IsBelievedOnlyWhereNobodyElseCanHaveMadeIt) {
    constexpr std::uint32_t owner = 1, caller = 2, member = 3;
    const struct {
        const char* name;
        bool believed;
        std::uint32_t user, group, mode;
        std::uint32_t dataMode = 0664, directoryMode = 0775;
        std::uint64_t links = 1;
        bool regular = true;
    } rows[] = {
        {"root's own", true, 0, 0, 0600},
        {"the caller's", true, caller, 99, 0600},
        {"the data owner's", true, owner, 99, 0600},
        {"a group member's", true, member, 10, 0664},
        {"of another group", false, member, 99, 0644},
        {"writable by all", false, owner, 10, 0666},
        {"writable by all, like the data", true, owner, 10, 0666, 0666},
        {"writable by another group", false, owner, 99, 0660},
        {"a group member's, where the group may not write", false, member, 10, 0644, 0644},
        {"where the directory gives the group", false, member, 10, 0664, 0664, 02775},
        {"where all may put files", false, member, 10, 0664, 0664, 01777},
        {"where names are not counted", true, owner, 10, 0664, 0664, 0775, 0},
        {"with a second name", false, owner, 10, 0664, 0664, 0775, 2},
        {"no regular file", false, owner, 10, 0664, 0664, 0775, 1, false},
    };
    for (const auto& row : rows) {
        const platform::fileAccess side{1, 1, row.links, row.user, row.group, row.mode, row.regular};
        const platform::fileAccess data{1, 2, 1, owner, 10, row.dataMode, true};
        const platform::fileAccess directory{1, 3, 2, owner, 10, row.directoryMode, false};
        EXPECT_EQ(orva::canBeTrusted(side, data, directory, caller), row.believed) << row.name;
    }
}
