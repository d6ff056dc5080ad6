// orva::Writer and the standard streams: every row before finish() is there, and no row after it.
#include "api/apiTest.h"

#include <sys/xattr.h>

using namespace support;

class Writer : public FaceTest {};

TEST_F(Writer, TakesRowsInAnyWayThatAReaderGivesInAnyWay) {
    for (std::uint64_t seed = 1; seed <= (kSanitized ? 4 : 10); ++seed) {
        RandomBytes random(seed);
        const int threads = seed % 2 == 0 ? 1 : 3;
        const Dictionary dictionary(seed % 3 == 0 ? 10'000 : 0);
        const Bytes rows = random.rows(random.below(3 * kBlock));
        const std::size_t first = random.below(rows.size());
        const orva::WriterOptions options{
            .dictionary = dictionary, .threads = threads, .replace = true, .level = 2, .block = 1'000'000};
        std::size_t at = 0;
        for (const std::size_t end : {first, rows.size()}) {
            orva::Writer writer = end == first ? orva::Writer(path("rows"), options)
                                               : orva::Writer::append(path("rows"), {.threads = threads});
            while (at < end) {
                ASSERT_EQ(writer.size(), static_cast<i64>(at));
                const std::size_t sizes[] = {0, random.below(20), random.below(100'000), random.below(2 * kBlock)};
                Bytes piece = slice(rows, at, std::min(end - at, sizes[random.below(4)]));
                const auto way = random.below(4);
                if (way == 0) {
                    const orva::Bytes room = writer.room();
                    piece.resize(std::min(piece.size(), room.size()));
                    std::ranges::copy(spanOf(piece), room.begin());
                    writer.wrote(piece.size());
                }
                if (way == 1) writer.write(spanOf(piece));
                if (way == 2) writer.write_rows(piece);
                if (way == 3) writer.write_from(source(piece));
                at += piece.size();
            }
            writer.finish();
            writer.finish();
            EXPECT_EQ(thrownBy([&] { writer.write(spanOf(rows)); }), "UsageError");
        }
        const std::optional<i64> row0 = dictionary.empty() ? std::nullopt : std::optional<i64>(10'000);
        const auto from = std::make_shared<source>(readBytes(path("rows")));
        for (const orva::Reader& reader : {orva::Reader(path("rows"), {.threads = threads}),
                                           orva::Reader(from, {.row0 = row0, .threads = threads})}) {
            EXPECT_LE(from->reads, 3);
            EXPECT_TRUE(reader.row0() == row0.value_or(512) && (!row0 || reader.dictionary() == dictionary));
            EXPECT_TRUE(sameBytes(allRows(reader), rows));
            for (const i64 behind : {reader.size(), INT64_MAX}) EXPECT_EQ(rowsAt(reader, behind, 10), Bytes());
            std::vector<Dictionary> memory;
            std::vector<orva::ReadRequest> requests;
            for (int i = 0; i < 20; ++i) {
                memory.emplace_back(random.below(i == 7 ? 2 * kBlock : 300'000));
                requests.push_back({random.between(0, std::ssize(rows)), memory.back(), 0});
            }
            reader.read_ranges(requests);
            for (const orva::ReadRequest& request : requests) {
                const Bytes expected = slice(rows, request.offset, request.to.size());
                EXPECT_TRUE(std::ranges::equal(request.to.first(request.got), spanOf(expected)));
                EXPECT_TRUE(sameBytes(rowsAt(reader, request.offset, request.to.size()), expected));
            }
        }
    }
    EXPECT_EQ(names(), Names{"rows"});
}

TEST_F(Writer, EndsWithTheSourceThatFailsOrEndsEarly) {
    const Bytes rows = RandomBytes(18).rows(3 * kBlock);
    written("rows", rows);
    const source failing(rows, 2 * kBlock), ending(rows, INT64_MAX, 2 * kBlock);
    const auto writes = [](orva::Writer to, const source& from) { return thrownBy([&] { to.write_from(from); }); };
    for (const int threads : {1, 3}) {
        EXPECT_EQ(writes(orva::Writer(path("none"), {.threads = threads}), failing), "domain_error");
        EXPECT_EQ(writes(orva::Writer::append(path("rows"), {.threads = threads}), ending), "FileChangedError");
        EXPECT_TRUE(sameBytes(rowsOf("rows"), rows));
    }
    EXPECT_EQ(names(), Names{"rows"});
    const auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = descriptors();
    orva::Writer failed(path("none")), finished(path("new"));
    EXPECT_EQ(thrownBy([&] { failed.write_from(failing); }), "domain_error");
    finished.finish();
    EXPECT_EQ(descriptors(), before) << "the disk has its room back";
}

TEST_F(Writer, TakesMoreThanFourGiBAtOnce) {
    if (kSanitized || sizeof(std::size_t) == 4) GTEST_SKIP() << "takes a minute, or there is no such memory";
    const auto size = static_cast<std::size_t>((1LL << 32) + 100);
    const std::unique_ptr<void, void (*)(void*)> zeros(std::calloc(size, 1), &std::free);
    const std::span rows(static_cast<const std::byte*>(zeros.get()), size);
    const orva::Reader reader(written("rows", rows, {.threads = 0, .durable = false}));
    EXPECT_EQ(reader.size(), static_cast<i64>(size));
    EXPECT_EQ(rowsAt(reader, static_cast<i64>(size) - 10, 20), Bytes(10));
}

// Behaves as a signal handler that a second signal interrupts.
[[noreturn]] void endAsSignalled() {
    const CallHook second([signals = 1](const Step&) mutable {
        if (signals-- > 0) orva::remove_unfinished(), _exit(0);
    });
    orva::remove_unfinished();
    _exit(0);
}

// A process ends while it writes. It can neither continue nor end what its parent writes.
TEST_F(Writer, WhatIsNotFinishedIsGoneOrCanBeUndone) {
    RandomBytes random(14);
    const Bytes rows = random.rows(100'000), more = random.rows(3 * kBlock);
    const std::string old = written("old", rows), other = written("other", rows);
    const Bytes before = readBytes(old);
    orva::Writer mine(written("mine", rows), {.threads = 2, .replace = true}),
        mineToo(orva::Writer::append(written("mineToo", rows)));
    for (auto* writer : {&mine, &mineToo}) writer->write(spanOf(more));
    const struct {
        const char* name;
        void (*end)();
        std::size_t left;  // files left, with the six above and the flushed one
    } endings[] = {
        {"AnException", [] { throw std::domain_error("the caller's own"); }, 7},
        {"TwoSignals", endAsSignalled, 9},
        {"ACrash", [] { _exit(0); }, 12},
    };
    for (const auto& ending : endings) {
        SCOPED_TRACE(ending.name);
        expectInChild([&] {
            for (auto* writer : {&mine, &mineToo}) {
                EXPECT_EQ(thrownBy([&] { writer->write(spanOf(rows)); }), "UsageError");
                EXPECT_EQ(thrownBy([&] { writer->flush_rows(); }), "UsageError");
                EXPECT_EQ(thrownBy([&] { writer->finish(); }), "UsageError");
                const orva::Writer gone(std::move(*writer));
            }
            const auto write = [&] {
                orva::Writer fresh(path("fresh")), instead(other, {.replace = true});
                orva::Writer behind = orva::Writer::append(old);
                orva::Writer flushed(path("flushed"), {.durable = ending.left != 7, .replace = true});
                orva::ostream stream(path("stream"));
                stream << "rows";
                for (const Bytes& piece : {Bytes(), rows, Bytes(), more}) {
                    flushed.write(spanOf(piece));
                    flushed.flush_rows();
                }
                EXPECT_TRUE(sameBytes(rowsOf("flushed"), rows + more));
                for (auto* writer : {&fresh, &instead, &flushed, &behind}) writer->write(spanOf(more));
                ending.end();
            };
            EXPECT_EQ(thrownBy(write), "domain_error");
        });
        EXPECT_EQ(names().size(), ending.left) << testing::PrintToString(names());
        const char* refused = ending.left == 7 ? "" : "UnfinishedFileError";
        EXPECT_EQ(thrownBy([&] { orva::Writer::append(old); }), refused);
        overwriteBytes(old, 0, before);  // as if the append had changed nothing yet
        EXPECT_EQ(thrownBy([&] { orva::Reader{orva::Path(old)}; }), refused);
        orva::Writer::append(old, {.roll_back = true}).finish();
        orva::roll_back(path("flushed"));
        EXPECT_TRUE(sameBytes(rowsOf("flushed"), rows + more));
        EXPECT_TRUE(rowsOf("old") == rows && rowsOf("other") == rows);
    }
    for (auto* writer : {&mine, &mineToo}) writer->finish();
    orva::remove_unfinished();
    EXPECT_TRUE(rowsOf("mine") == more && rowsOf("mineToo") == rows + more);
}

// Once, at any place, no more files can be opened: beside an interrupted append, and appends at work.
TEST_F(Writer, WhatCannotBeOpenedIsNotTakenForNone) {
    for (const char* name : {"torn", "busy"}) written(name, Bytes(100));
    expectInChild([&] {
        const orva::Writer interrupted = orva::Writer::append(path("torn"));
        _exit(0);
    });
    const orva::Writer atWork = orva::Writer::append(path("busy"));
    for (int place = 0, opened = 0; place <= opened; ++place) {
        std::filesystem::remove(path("late"));
        orva::Writer late(path("late"), {.replace = true});
        const orva::Writer meanwhile = orva::Writer::append(written("late", Bytes(100)));
        const auto expect = [](const char* refused, const std::function<void()>& call) {
            EXPECT_THAT(thrownBy(call), testing::AnyOf(refused, "SystemError EMFILE"));
        };
        opened = 0;
        const CallHook once([&](const Step& step, std::uint64_t) {
            return step.call == Call::Open && opened++ == place ? Verdict::fail(EMFILE) : Verdict::goOn();
        });
        expect("UnfinishedFileError", [&] { orva::Reader{orva::Path(path("torn"))}; });
        expect("SystemError EAGAIN", [&] { orva::Writer(path("busy"), {.replace = true}); });
        expect("SystemError EAGAIN", [&] { late.finish(); });
    }
}

TEST_F(Writer, KeepsOwnerGroupModeAndAccessListOfWhatItReplaces) {
    // One more user may read, and the group may not: the group bits of the mode are the maximum for everybody in the
    // list.
    constexpr std::uint16_t none = 65'535;
    const std::uint16_t list[] = {2, 0,    1,    4,  none, none, 2,    4,  54'321, 0,    4,
                                  0, none, none, 16, 4,    none, none, 32, 0,      none, none};
    const auto give = [&](const std::string& file, const char* kind) {
        return setxattr(file.c_str(), kind, list, sizeof list, 0) == 0;
    };
    const std::string name = written("rows", Bytes(100)), plain = written("plain", Bytes());
    const auto mode = [](const std::string& file) { return std::filesystem::status(file).permissions(); };
    const bool isRoot = chown(name.c_str(), 12'345, 23'456) == 0;
    std::filesystem::permissions(name, std::filesystem::perms{0440});
    const bool hasLists = give(name, "system.posix_acl_access");
    std::filesystem::create_symlink("rows", path("link"));
    written("link", Bytes(200), {.replace = true});
    give(fDirectory, "system.posix_acl_default");  // the default for new files
    written("plain", Bytes(), {.replace = true});
    removexattr(fDirectory.c_str(), "system.posix_acl_default");
    EXPECT_EQ(mode(name), std::filesystem::perms{0440});
    std::uint16_t found[std::size(list)]{};
    const auto length = getxattr(name.c_str(), "system.posix_acl_access", found, sizeof found);
    EXPECT_EQ(length == sizeof found && std::ranges::equal(found, list), hasLists);
    EXPECT_EQ(getxattr(plain.c_str(), "system.posix_acl_access", nullptr, 0), -1);
    struct stat now {};
    EXPECT_TRUE(stat(name.c_str(), &now) == 0 && (!isRoot || (now.st_uid == 12'345 && now.st_gid == 23'456)));
    expectInChild([&] {  // not as root, who may write to any file
        EXPECT_TRUE(!isRoot || (chown(fDirectory.c_str(), 12'345, 23'456) == 0 && seteuid(12'345) == 0));
        umask(0222);
        EXPECT_EQ(mode(written("own", Bytes())), std::filesystem::perms{0444});
    });
}

// Some file systems refuse names that are not UTF-8, and allow names half as long as others.
TEST_F(Writer, HidesAFileUnderANameThatIsCutBetweenCharacters) {
    std::string name = "xy";
    while (name.size() < 200) name += "\u6f22";
    const std::string hidden = orva::pendingFile(path(name)).temporaryName();
    EXPECT_EQ(hidden.substr(0, hidden.size() - (sizeof ".12345678.tmp" - 1)), path('.' + name.substr(0, 98)));
}

// An append runs before any call of a reader that opens or reads the file: the reader meets no damage, and sees the old
// rows or the new ones.
TEST_F(Writer, AnAppendAtAnyCallOfAReaderShowsNoMixtureOfTwo) {
    enum Ends { finished, flushed, undone, working };
    RandomBytes random(20);
    Bytes rows = random.rows(100'000), added = random.noise(200'000),
          before = readBytes(written("rows", rows, {.block = 65'536}));
    const std::string name = path("rows");
    std::optional<orva::Reader> reader;
    const auto expectRead = [&](const std::function<void()>& read, const testing::Matcher<std::string>& refused,
                                Ends ends, bool durable) {
        for (int place = 0, left = -1; left < 0; ++place) {
            writeBytes(name, before);
            reader.emplace(orva::Path(name));
            std::unique_ptr<orva::Writer> writer;  // of an append that has been made; its own calls come here too
            left = place;
            const CallHook meanwhile([&](const Step&) {
                if (ends == undone) writer.reset();
                if (left-- != 0) return;
                orva::Writer appends = orva::Writer::append(name, {.durable = durable, .block = 150'000});
                appends.write(spanOf(added));
                if (ends == finished) appends.finish();
                if (ends == flushed) appends.flush_rows();
                writer = std::make_unique<orva::Writer>(std::move(appends));
            });
            EXPECT_THAT(thrownBy(read), testing::AnyOf("", refused)) << ends << durable << place;
            EXPECT_EQ(rowsAt(*reader, 0, 65'536), slice(rows, 0, 65'536)) << "what no append rewrites";
        }
    };
    const auto open = [&] {
        reader->refresh();
        EXPECT_THAT(reader->size() - std::ssize(rows), testing::AnyOf(0, std::ssize(added)));
    };
    const auto byFace = [&] { EXPECT_TRUE(sameBytes(allRows(*reader), rows)); };
    const auto byJoin = [&] {
        const orva::Path from[] = {name};
        const i64 size = orva::join(from, path("joined"), {.durable = false, .replace = true}).size;
        EXPECT_THAT(size - std::ssize(rows), testing::AnyOf(0, std::ssize(added)));
    };
    for (const bool durable : {false, true}) {
        for (const Ends ends : {finished, flushed, undone, working}) {
            const bool side = ends == working && durable;  // which has the old last block
            const char* unfinished = ends == flushed || ends == working ? "UnfinishedFileError" : "";
            expectRead(open, unfinished, ends, durable);
            expectRead(byJoin, testing::AnyOf(unfinished, "FileChangedError"), ends, durable);
            expectRead(byFace, ends == undone || side ? "" : "FileChangedError", ends, durable);
        }
    }
    // Undoing an append cuts off bytes that were read as the beginning of so short a file.
    rows = random.noise(100);
    before = readBytes(written("rows", rows, {.replace = true}));
    expectRead(open, "", undone, false);
    // A new index can stand so that its records continue the first ones of the old index.
    rows = Bytes(1'100 * std::size_t{65'536});
    before = readBytes(written("rows", rows, {.replace = true, .block = 65'536}));
    for (std::size_t size = 100; size < 124; ++size) {  // one of these sizes shifts it by whole records
        added = random.noise(size);
        expectRead(open, "", finished, true);
        expectRead(open, "UnfinishedFileError", flushed, true);
    }
}

// A copy takes the name of the file between two looks at it.
TEST_F(Writer, AnAppendIsInTheFileThatHasTheNameOrFails) {
    for (int looks = 0; looks < 4; ++looks) {
        for (const char* name : {"rows", "copy"}) written(name, Bytes(100, 'a'), {.replace = true});
        const std::string thrown = thrownBy([&] {
            const CallHook disk([&, left = looks](const Step& step) mutable {
                if (step.call == Call::Open && path("rows") == step.name && left-- == 0)
                    std::filesystem::rename(path("copy"), path("rows"));
            });
            writeAll(orva::Writer::append(path("rows")), Bytes(10, 'b'));
        });
        EXPECT_EQ(thrown, rowsOf("rows").size() == 110 ? "" : "SystemError ESTALE") << looks;
    }
    orva::Writer writer(path("new"));
    writer.flush_rows();
    std::filesystem::rename(path("rows"), path("new"));
    writer.write(spanOf(Bytes(10, 'b')));
    EXPECT_EQ(thrownBy([&] { writer.finish(); }), "SystemError ESTALE");
    orva::Writer beginning(path("begun"));
    beginning.flush_rows();
    writeBytes(path("begun"), readBytes(path("new")));
    EXPECT_EQ(thrownBy([&] { beginning.room(); }), "FileChangedError");
}

TEST_F(Writer, ServesStandardStreams) {
    const Bytes rows = RandomBytes(17).rows(kBlock + 100'000);
    const auto* from = reinterpret_cast<const char*>(rows.data());
    orva::ostream out(path("rows"));
    out.write(from, 10).put(from[10]);
    EXPECT_EQ(out.tellp(), 11);
    out.write(from + 11, std::ssize(rows) - 11);
    out.close();
    EXPECT_EQ(out.tellp(), std::ssize(rows));
    out.close();
    EXPECT_EQ(thrownBy([&] { out.flush().put('x'); }), "UsageError");
    orva::istream in(path("rows"));
    std::string found(rows.size(), '\0');
    in.read(found.data(), 5).read(&found[5], 200'000).read(&found[200'005], std::ssize(rows) - 200'005);
    EXPECT_TRUE(found == std::string(from, rows.size()));
    EXPECT_EQ(in.get(), EOF);
    in.clear();
    for (const i64 at : {0, 70'000, 69'999, static_cast<int>(kBlock), 3}) {
        in.seekg(at + 1).unget();
        EXPECT_EQ(in.tellg(), at);
        EXPECT_EQ(in.get(), rows[static_cast<std::size_t>(at)]) << at;
    }
    EXPECT_EQ(in.seekg(-1, std::ios::end).get(), rows.back());
    overwriteBytes(path("rows"), 2'000, Bytes(8, 0xff));
    EXPECT_EQ(thrownBy([&] { orva::istream(path("rows")).get(); }), "DamagedFileError of block 0 at 0");
}
