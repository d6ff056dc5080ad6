// orva::Writer and the standard streams: every row that finish() has seen, and nothing of what it has not.
#include "api/apiTest.h"

#include <sys/mman.h>
#include <sys/stat.h>

using namespace api;
using support::RandomBytes;
using support::sameBytes;

namespace {

class Writer : public FaceTest {
protected:
    Bytes rowsOf(const std::string& name) const { return all(orva::Reader(path(name))); }
};

TEST_F(Writer, TakesRowsInAnySizesAndWaysIntoANewFileAndBehindItsRows) {
    RandomBytes random(11);
    const Bytes rows = random.rows(3 * kBlock + 12'345);
    for (const int threads : {1, 3}) {
        for (const i64 old : {i64{0}, std::ssize(rows)}) {
            const orva::WriterOptions fresh{.threads = threads, .replace = true, .level = 2, .block = 1'000'000};
            orva::Writer writer =
                old == 0 ? orva::Writer(path("rows"), fresh) : orva::Writer::append(path("rows"), {.threads = threads});
            for (std::size_t at = 0; at < rows.size();) {
                ASSERT_EQ(writer.size(), old + static_cast<i64>(at));
                const std::size_t sizes[] = {0, random.below(20), random.below(100'000), random.below(2 * kBlock)};
                const Bytes piece = support::slice(rows, at, sizes[random.below(4)]);
                if (random.oneIn(3)) {
                    const orva::Bytes room = writer.room();
                    const Bytes fits = support::slice(piece, 0, room.size());
                    std::ranges::copy(bytesOf(fits), room.begin());
                    writer.wrote(fits.size());
                    at += fits.size();
                } else {
                    random.oneIn(2) ? writer.write(bytesOf(piece)) : writer.write_rows(piece);
                    at += piece.size();
                }
            }
            EXPECT_TRUE(old == 0 || thrownBy([&] { orva::Reader(path("rows")); }) == "UnfinishedFileError");
            writer.finish();
            writer.finish();
            EXPECT_EQ(writer.size(), old + std::ssize(rows));
            EXPECT_EQ(thrownBy([&] { writer.write(bytesOf(rows)); }), "UsageError");
            EXPECT_TRUE(sameBytes(rowsOf("rows"), old == 0 ? rows : Bytes(rows) + rows));
            EXPECT_EQ(orva::Reader(path("rows")).blocks()[old == 0 ? 0 : 20].rows.length, 1'000'000) << "as it was";
        }
    }
    EXPECT_EQ(names(), std::vector<std::string>{"rows"});
}

TEST_F(Writer, TakesTheRowsOfASource) {
    struct source final : orva::ByteSource {
        i64 size() const override { return std::ssize(rows); }
        std::size_t read_at(i64 offset, orva::Bytes to) const override {
            if (offset >= fails) throw std::domain_error("mine");
            const Bytes found = support::slice(rows, static_cast<std::size_t>(offset), to.size());
            std::ranges::copy(bytesOf(found), to.begin());
            return offset >= ends ? 0 : found.size();
        }
        Bytes rows;
        i64 fails = INT64_MAX, ends = INT64_MAX;
    };
    source from;
    from.rows = RandomBytes(18).rows(3 * kBlock);
    for (const int threads : {1, 3}) {
        orva::Writer writer(path("rows"), {.threads = threads, .replace = true});
        writer.write(bytesOf(Bytes(10)));
        writer.write_from(from);
        writer.write_from(source());
        writer.finish();
        EXPECT_TRUE(sameBytes(rowsOf("rows"), Bytes(10) + from.rows));
        source failing = from, ending = from;
        failing.fails = ending.ends = 2 * kBlock;
        EXPECT_THROW(orva::Writer(path("none"), {.threads = threads}).write_from(failing), std::domain_error);
        EXPECT_EQ(thrownBy([&] { orva::Writer::append(path("rows"), {.threads = threads}).write_from(ending); }),
                  "FileChangedError");
        EXPECT_TRUE(sameBytes(rowsOf("rows"), Bytes(10) + from.rows));
    }
    EXPECT_EQ(names(), std::vector<std::string>{"rows"});
}

TEST_F(Writer, TakesMoreThanFourGiBAtOnce) {
    if (support::kSanitized) GTEST_SKIP() << "takes a minute";
    const std::size_t size = (std::size_t{1} << 32) + 100;
    void* zeros = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(zeros, MAP_FAILED);
    orva::Writer writer(path("rows"), {.threads = 0, .durable = false});
    writer.write({static_cast<const std::byte*>(zeros), size});
    writer.finish();
    munmap(zeros, size);
    const orva::Reader reader(path("rows"));
    EXPECT_EQ(reader.size(), static_cast<i64>(size));
    EXPECT_EQ(read(reader, static_cast<i64>(size) - 10, 20), Bytes(10));
}

TEST_F(Writer, LeavesNothingOfWhatIsNotFinished) {
    written("old", Bytes(100));
    const auto before = names();
    const auto whole = support::readBytes(path("old"));
    EXPECT_THROW(
        {
            orva::Writer fresh(path("fresh"));
            fresh.write(bytesOf(Bytes(2 * kBlock)));
            orva::Writer instead(path("old"), {.replace = true});
            orva::ostream stream(path("stream"));
            stream << "rows";
            throw std::runtime_error("the caller's own");
        },
        std::runtime_error);
    EXPECT_THROW(
        {
            orva::Writer more = orva::Writer::append(path("old"), {.threads = 2});
            more.write(bytesOf(Bytes(3 * kBlock, 'x')));
            throw std::runtime_error("the caller's own");
        },
        std::runtime_error);
    EXPECT_EQ(names(), before);
    EXPECT_EQ(support::readBytes(path("old")), whole);
}

TEST_F(Writer, RefusesWhatCannotBeMeant) {
    const std::string old = written("old", Bytes(100));
    std::filesystem::create_directory(path("directory"));
    const std::string dictionary = orva::makeDictionaryText();
    made("unfinished", Bytes(dictionary.begin(), dictionary.end()));
    made("foreign", Bytes(5'000));
    std::filesystem::create_symlink("/dev/full", path("device"));
    const auto before = names();
    struct Case {
        const char* name;
        std::string file;
        orva::WriterOptions options;
        const char* thrown;
    };
    const Case cases[] = {
        {"Taken", "old", {}, "SystemError EEXIST"},
        {"Directory", "directory", {.replace = true}, "SystemError EISDIR"},
        {"Device", "device", {.replace = true}, "SystemError EINVAL"},
        {"NoSuchDirectory", "none/file", {}, "SystemError ENOENT"},
        {"ThreadsBelowZero", "new", {.threads = -1}, "UsageError"},
        {"LevelZero", "new", {.level = 0}, "UsageError"},
        {"ShortBlock", "new", {.block = 65'535}, "UsageError"},
        {"LongBlock", "new", {.block = i64{kBlock} + 1}, "UsageError"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(thrownBy([&] { orva::Writer(path(c.file), c.options); }), c.thrown) << c.name;
    }
    const std::pair<const char*, const char*> appends[] = {{"none", "SystemError ENOENT"},
                                                           {"directory", "SystemError EISDIR"},
                                                           {"unfinished", "UnfinishedFileError"},
                                                           {"foreign", "DamagedFileError"}};
    for (const auto& [file, thrown] : appends) {
        EXPECT_EQ(thrownBy([&, name = path(file)] { orva::Writer::append(name); }), thrown) << file;
    }
    orva::Writer writer(path("new"));
    EXPECT_EQ(thrownBy([&] { writer.wrote(1); }), "UsageError");
    const std::size_t room = writer.room().size();
    EXPECT_EQ(thrownBy([&] { writer.wrote(room + 1); }), "UsageError");
    orva::Writer other(std::move(writer));
    EXPECT_EQ(thrownBy([&] { writer.finish(); }), "UsageError");  // NOLINT(bugprone-use-after-move): the promise
    EXPECT_EQ(thrownBy([&] { writer.write(bytesOf(Bytes(1))); }), "UsageError");
    {
        orva::Writer more = orva::Writer::append(old);
        EXPECT_EQ(thrownBy([&] { orva::Writer::append(old); }), "SystemError EAGAIN");
        EXPECT_EQ(thrownBy([&] { orva::Writer(old, {.replace = true}); }), "SystemError EAGAIN");
    }
    orva::Writer third(path("third"));
    written("third", Bytes(7));
    EXPECT_EQ(thrownBy([&] { third.finish(); }), "SystemError EEXIST");
    std::filesystem::remove(path("third"));
    std::make_unique<orva::Writer>(std::move(other)).reset();
    EXPECT_EQ(names(), before);
}

TEST_F(Writer, KeepsTheModeOfWhatItReplacesAndTheDictionary) {
    const std::string name = written("rows", Bytes(100));
    struct stat status {};
    ASSERT_EQ(stat(name.c_str(), &status), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(status.st_mode & 0777, 0666 & ~mask);
    ASSERT_EQ(chmod(name.c_str(), 0440), 0);
    written("secret", {}, {.permissions = std::filesystem::perms{0400}});
    EXPECT_EQ(std::filesystem::status(path("secret")).permissions(), std::filesystem::perms{0400});
    std::filesystem::create_symlink("rows", path("link"));
    const std::vector<std::byte> dictionary(1'234, std::byte{7});
    written("link", Bytes(200), {.dictionary = dictionary, .replace = true});
    ASSERT_EQ(stat(name.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0440U);
    const orva::Reader reader(name, {.row0 = 1'234});
    EXPECT_EQ(reader.dictionary(), dictionary);
    EXPECT_EQ(reader.size(), 200);
}

TEST_F(Writer, AppendsToTheOtherByteOrder) {
    const std::string name = written("rows", Bytes(100'000, 'a'));
    support::writeBytes(name, support::swapped(support::readBytes(name), 512));
    EXPECT_EQ(thrownBy([&] { orva::Writer::append(name); }), "UsageError");
    orva::Writer writer = orva::Writer::append(name, {.any_order = true});
    EXPECT_EQ(thrownBy([&] { writer.write_rows(std::vector<int>(1)); }), "UsageError");
    writer.write(bytesOf(Bytes(kBlock, 'b')));
    writer.flush_rows();
    EXPECT_EQ(thrownBy([&] { writer.write_rows(std::vector<int>(1)); }), "UsageError");
    writer.write(bytesOf(Bytes(10, 'c')));
    writer.finish();
    EXPECT_TRUE(sameBytes(rowsOf("rows"), Bytes(100'000, 'a') + Bytes(kBlock, 'b') + Bytes(10, 'c')));
}

TEST_F(Writer, SaysThatAnotherFileTookTheName) {
    orva::Writer writer = orva::Writer::append(written("rows", Bytes(10)));
    std::filesystem::rename(written("other", Bytes(10)), path("rows"));
    writer.write(bytesOf(Bytes(10)));
    EXPECT_EQ(thrownBy([&] { writer.finish(); }), "SystemError ESTALE");
}

// As a handler of signals does.
TEST_F(Writer, WhatIsUnfinishedCanBeRemovedAtAnyInstant) {
    orva::Writer writer(path("mine"));
    support::expectInChild([&] {
        const orva::Writer one(path("one")), two(path("two"));
        orva::remove_unfinished();
        _exit(0);  // without destructors
    });
    EXPECT_EQ(names().size(), 1U);
    writer.finish();
    orva::remove_unfinished();
    EXPECT_EQ(names(), std::vector<std::string>{"mine"});
}

TEST_F(Writer, FlushedRowsStay) {
    RandomBytes random(13);
    const Bytes first = random.rows(100'000);
    const Bytes second = random.rows(2 * kBlock);
    for (const bool durable : {true, false}) {
        {
            orva::Writer writer(path("rows"), {.threads = 2, .durable = durable, .replace = true});
            writer.flush_rows();
            writer.write(bytesOf(first));
            writer.flush_rows();
            EXPECT_TRUE(sameBytes(rowsOf("rows"), first));
            writer.flush_rows();
            writer.write(bytesOf(second));
            writer.flush_rows();
            EXPECT_TRUE(sameBytes(rowsOf("rows"), Bytes(first) + second));
            EXPECT_EQ(thrownBy([&] { orva::Writer::append(path("rows")); }), "SystemError EAGAIN");
            writer.write(bytesOf(Bytes(3 * kBlock, 'x')));
        }
        EXPECT_EQ(orva::Reader(path("rows")).size(), std::ssize(first) + std::ssize(second));
        EXPECT_TRUE(sameBytes(rowsOf("rows"), Bytes(first) + second));
        EXPECT_EQ(names(), std::vector<std::string>{"rows"});
    }
}

TEST_F(Writer, RollsAnInterruptedAppendBackWhenAsked) {
    const Bytes rows = RandomBytes(14).rows(100'000);
    const std::string name = written("rows", rows);
    EXPECT_EQ(orva::roll_back(name), orva::RollBack::nothing);
    EXPECT_EQ(thrownBy([&] { orva::roll_back(path("none")); }), "SystemError ENOENT");
    support::expectInChild([&] {
        orva::Writer writer = orva::Writer::append(name);
        writer.write(bytesOf(Bytes(2 * kBlock, 'x')));
        _exit(0);  // without destructors, as a crash
    });
    EXPECT_EQ(thrownBy([&] { orva::Reader{orva::Path(name)}; }), "UnfinishedFileError");
    try {
        orva::Writer::append(name);
        FAIL();
    } catch (const orva::UnfinishedFileError& e) {
        EXPECT_NE(std::string(e.what()).find("orva recover --roll-back"), std::string::npos);
    }
    orva::Writer writer = orva::Writer::append(name, {.roll_back = true});
    writer.write(bytesOf(rows));
    writer.finish();
    EXPECT_TRUE(sameBytes(rowsOf("rows"), Bytes(rows) + rows));
}

TEST_F(Writer, AnAppendLeavesTheRowsOfALiveReader) {
    RandomBytes random(15);
    const Bytes rows = random.rows(kBlock + 700'000);
    const Bytes more = random.rows(3 * kBlock);
    const std::string name = written("rows", rows);
    const orva::Reader reader(name);
    {
        orva::Writer writer = orva::Writer::append(name);
        writer.write(bytesOf(more));
        EXPECT_TRUE(sameBytes(all(reader), rows));  // by the side file
        std::filesystem::rename(name + ".orva-undo", name + ".hidden");
        EXPECT_EQ(thrownBy([&] { all(reader); }), "FileChangedError");
        EXPECT_TRUE(sameBytes(read(reader, 0, kBlock), support::slice(rows, 0, kBlock)));
        std::filesystem::rename(name + ".hidden", name + ".orva-undo");
        orva::Reader again(reader);
        EXPECT_EQ(thrownBy([&] { again.refresh(); }), "UnfinishedFileError");
        EXPECT_TRUE(sameBytes(all(reader), rows));
        writer.finish();
    }
    EXPECT_EQ(reader.size(), std::ssize(rows));
    EXPECT_EQ(thrownBy([&] { all(reader); }), "FileChangedError");
    orva::Reader copy(reader);
    copy.refresh();
    EXPECT_TRUE(sameBytes(all(reader), Bytes(rows) + more));
    written("rows", rows, {.replace = true});
    EXPECT_TRUE(sameBytes(all(reader), Bytes(rows) + more));  // of the file that had the name
    copy.refresh();
    EXPECT_TRUE(sameBytes(all(reader), rows));
}

TEST_F(Writer, AForkedChildWritesAndRemovesNothing) {
    const std::string old = written("old", Bytes(100'000, 'a'));
    auto fresh = std::make_unique<orva::Writer>(path("fresh"), orva::WriterOptions{.threads = 2});
    auto more = std::make_unique<orva::Writer>(orva::Writer::append(old));
    fresh->write(bytesOf(Bytes(3 * kBlock, 'b')));
    more->write(bytesOf(Bytes(3 * kBlock, 'b')));
    support::expectInChild([&] {
        EXPECT_EQ(thrownBy([&] { fresh->write(bytesOf(Bytes(100'000))); }), "UsageError");
        EXPECT_EQ(thrownBy([&] { fresh->finish(); }), "UsageError");
        EXPECT_EQ(thrownBy([&] { more->flush_rows(); }), "UsageError");
        fresh.reset();
        more.reset();
    });
    fresh->finish();
    more->finish();
    EXPECT_EQ(rowsOf("fresh").size(), 3 * kBlock);
    EXPECT_EQ(rowsOf("old").size(), 3 * kBlock + 100'000);
}

TEST_F(Writer, ServesStandardStreams) {
    const Bytes rows = RandomBytes(17).rows(kBlock + 100'000);
    {
        orva::ostream out(path("rows"));
        out.write(reinterpret_cast<const char*>(rows.data()), 10).put(static_cast<char>(rows[10]));
        EXPECT_EQ(out.tellp(), 11);
        out.write(reinterpret_cast<const char*>(rows.data()) + 11, std::ssize(rows) - 11);
        out.close();
        EXPECT_EQ(out.tellp(), std::ssize(rows));
    }
    orva::istream in(path("rows"));
    Bytes found(rows.size());
    auto* to = reinterpret_cast<char*>(found.data());
    in.read(to, 5).read(to + 5, 200'000).read(to + 200'005, std::ssize(rows) - 200'005);
    EXPECT_TRUE(sameBytes(found, rows));
    EXPECT_EQ(in.get(), EOF);
    in.clear();
    for (const i64 at : {0, 70'000, 69'999, static_cast<int>(kBlock), 3}) {
        in.seekg(at);
        EXPECT_EQ(in.tellg(), at);
        EXPECT_EQ(in.get(), rows[static_cast<std::size_t>(at)]) << at;
    }
    in.seekg(-1, std::ios::end);
    EXPECT_EQ(in.get(), rows.back());
    support::overwriteBytes(path("rows"), 2'000, Bytes(8, 0xff));
    orva::istream damaged(path("rows"));
    EXPECT_EQ(thrownBy([&] { damaged.get(); }), "DamagedFileError");
}

}  // namespace
