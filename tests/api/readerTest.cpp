// orva::Reader and Rows: every row from any thread, and each failure as the class that says what to do.
#include "api/apiTest.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <future>
#include <numeric>
#include <random>

using namespace api;
using support::RandomBytes;

namespace {

class Reader : public FaceTest {};

TEST_F(Reader, GivesTheRowsOfAnyRangesInAnyOrder) {
    RandomBytes random(1);
    const Bytes rows = random.rows(3 * kBlock + 1'000);
    const std::string name = written("rows", rows);
    for (const int threads : {1, 3}) {
        const orva::Reader reader(name, {.threads = threads});
        EXPECT_EQ(reader.size(), std::ssize(rows));
        EXPECT_EQ(reader.row0(), 512);
        EXPECT_EQ(reader.dictionary().size(), 512U);
        EXPECT_TRUE(support::sameBytes(all(reader), rows));
        std::vector<Bytes> memory;
        std::vector<orva::ReadRequest> requests;
        for (int i = 0; i < 50; ++i) memory.emplace_back(random.below(i % 20 == 7 ? 2 * kBlock : 300'000));
        for (Bytes& to : memory) {
            requests.push_back({random.between(0, std::ssize(rows)), std::as_writable_bytes(std::span(to)), 0});
        }
        reader.read_ranges(requests);
        for (const orva::ReadRequest& request : requests) {
            const Bytes expected = support::slice(rows, request.offset, request.to.size());
            EXPECT_TRUE(std::ranges::equal(request.to.first(request.got), bytesOf(expected)));
            EXPECT_TRUE(support::sameBytes(read(reader, request.offset, request.to.size()), expected));
        }
    }
}

TEST_F(Reader, ReadsASourceInThreeReadsAtMost) {
    RandomBytes random(3);
    const Bytes rows = random.rows(2 * kBlock);
    const auto source = std::make_shared<memory>(support::readBytes(written("rows", rows)));
    const orva::Reader reader(source);
    EXPECT_LE(source->reads, 3);
    EXPECT_TRUE(support::sameBytes(all(reader), rows));
    const std::string other = behind(Bytes(10'000, 'x'), "other", rows);
    const auto far = std::make_shared<memory>(support::readBytes(other));
    EXPECT_EQ(thrownBy([&] { orva::Reader{far}; }), "DamagedFileError");
    far->reads = 0;
    const orva::Reader told(far, {.row0 = 10'000});
    EXPECT_LE(far->reads, 3);
    EXPECT_TRUE(support::sameBytes(all(told), rows));
    EXPECT_TRUE(support::sameBytes(all(orva::Reader(other)), rows));  // by a search
}

TEST_F(Reader, PassesWhatASourceThrows) {
    struct broken final : orva::ByteSource {
        i64 size() const override { return 10'000; }
        std::size_t read_at(i64, orva::Bytes) const override { throw std::out_of_range("mine"); }
    };
    EXPECT_THROW(orva::Reader(std::make_shared<broken>()), std::out_of_range);
}

TEST_F(Reader, SaysWhatIsWrongWithAFile) {
    RandomBytes random(4);
    const Bytes whole = support::readBytes(written("whole", random.rows(100'000)));
    const std::string text = orva::makeDictionaryText();
    const Bytes dictionary(text.begin(), text.end());
    const std::string two = behind(whole, "two", random.rows(10'000));
    struct Case {
        const char* name;
        std::string file;
        orva::ReaderOptions options;
        const char* thrown;
    };
    const Case cases[] = {
        {"Missing", path("none"), {}, "SystemError ENOENT"},
        {"Directory", fDirectory.string(), {}, "SystemError EISDIR"},
        {"Pipe", "/dev/stdin/x", {}, "SystemError ENOTDIR"},
        {"Empty", made("empty", {}), {}, "DamagedFileError"},
        {"OfAnotherKind", made("kind", random.noise(9'000)), {}, "DamagedFileError"},
        {"FirstLineAlone", made("line", dictionary), {}, "UnfinishedFileError"},
        {"FirstLineAndZeros", made("zeros", dictionary + Bytes(5'000)), {}, "UnfinishedFileError"},
        {"FirstLineAndItsPlace", made("line2", dictionary), {.row0 = 512}, "UnfinishedFileError"},
        {"IndexCutOff", made("cut", support::slice(whole, 0, whole.size() - 10)), {}, "DamagedFileError"},
        {"IndexFarAway", made("far", support::with(whole, 520, Bytes(16, 0x7F))), {}, "DamagedFileError"},
        {"AnotherPlace", path("whole"), {.row0 = 513}, "DamagedFileError"},
        {"PlaceBelowOne", path("whole"), {.row0 = 0}, "UsageError"},
        {"ThreadsBelowZero", path("whole"), {.threads = -1}, "UsageError"},
        {"CacheBelowZero", path("whole"), {.cached_blocks = -1}, "UsageError"},
        {"TwoParts", two, {}, "UsageError"},
        {"Whole", path("whole"), {}, ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(thrownBy([&] { orva::Reader(c.file, c.options); }), c.thrown) << c.name;
    }
    try {
        orva::Reader(path("none"));
    } catch (const orva::Error& e) {
        EXPECT_EQ(e.path(), path("none"));
        EXPECT_EQ(e.what(), "cannot read \"" + path("none") + "\": No such file or directory; check the name");
    }
}

TEST_F(Reader, RefusesCallsThatCannotBeMeant) {
    const orva::Reader reader(written("rows", Bytes(1'000)));
    std::array<std::byte, 10> to{};
    orva::ReadRequest request{-1, to, 0};
    EXPECT_EQ(thrownBy([&] { reader.read_at(-1, to); }), "UsageError");
    EXPECT_EQ(thrownBy([&] { reader.read_ranges({&request, 1}); }), "UsageError");
    EXPECT_EQ(thrownBy([&] { (void)reader.splits(0); }), "UsageError");
    EXPECT_EQ(thrownBy([&] { (void)reader.splits(1, 0); }), "UsageError");
    EXPECT_EQ(thrownBy([&] { (void)reader.splits(1, 3); }), "UsageError");
    EXPECT_EQ(thrownBy([&] { (void)orva::Reader(std::shared_ptr<const orva::ByteSource>()); }), "UsageError");
    EXPECT_EQ(reader.read_at(INT64_MAX, to), 0U);
    EXPECT_EQ(reader.read_at(1'000, to), 0U);
    EXPECT_EQ(reader.read_at(995, to), 5U);
}

TEST_F(Reader, SplitsAtBlocksAndRecords) {
    const orva::Reader reader(written("rows", Bytes(4 * kBlock)));
    for (const i64 record : {1, 24 * 31, static_cast<int>(kBlock)}) {
        i64 next = 0;
        for (const orva::Range& range : reader.splits(3, record)) {
            EXPECT_EQ(range.offset, next);
            EXPECT_EQ(range.length % record, 0);
            next += range.length;
        }
        EXPECT_EQ(next, reader.size());
        EXPECT_EQ(reader.splits(3, record).size(), 3U);
    }
}

TEST_F(Reader, IsUsableAfterAForkWhileOthersRead) {
    RandomBytes random(6);
    const Bytes rows = random.rows(2'000'777);
    orva::Writer writer(path("rows"), {.durable = false, .block = 65'536});
    writer.write(bytesOf(rows));
    writer.finish();
    orva::Reader reader(path("rows"), {.threads = support::kSanitized ? 1 : 2});
    const auto reads = [&](std::uint64_t seed, int count) {
        std::mt19937_64 places(seed);  // no lock of the test's framework, which the child would find taken
        for (int i = 0; i < count; ++i) {
            const std::size_t at = places() % rows.size();
            EXPECT_TRUE(support::sameBytes(read(reader, static_cast<i64>(at), 500), support::slice(rows, at, 500)));
        }
        EXPECT_TRUE(support::sameBytes(all(reader), rows));
    };
    std::atomic<bool> end = false;
    std::vector<std::future<void>> others;
    for (int i = 0; i < 2; ++i) {
        others.push_back(std::async(std::launch::async, [&, i] {
            while (!end) reads(static_cast<std::uint64_t>(i), 1);
        }));
    }
    others.push_back(std::async(std::launch::async, [&] {
        while (!end) reader.refresh();
    }));
    for (std::uint64_t i = 0; i < 6; ++i)
        support::expectInChild([&] { EXPECT_EQ(thrownBy([&] { reads(i, 300); }), ""); });
    reads(7, 300);
    end = true;
}

TEST_F(Reader, CostsNoMemoryBeforeItReads) {
    if (support::kSanitized) GTEST_SKIP() << "counts the allocator's bytes";
    const std::string name = written("rows", Bytes(kBlock));
    const auto inUse = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    std::vector<orva::Reader> readers;
    readers.reserve(100);
    const std::size_t before = inUse();
    for (int i = 0; i < 100; ++i) readers.emplace_back(orva::Path(name));
    EXPECT_LT((inUse() - before) / 100, std::size_t{1} << 20);
}

struct Row {
    i64 key;
    std::array<char, 5> rest;
    bool operator==(const Row&) const = default;
};

TEST_F(Reader, GivesRowsAsValues) {
    std::vector<Row> rows(kBlock / sizeof(Row) * 2 + 100);
    for (std::size_t i = 0; i < rows.size(); ++i) rows[i] = {static_cast<i64>(2 * i), {'a'}};
    Bytes bytes(rows.size() * sizeof(Row));
    std::memcpy(bytes.data(), rows.data(), bytes.size());
    const orva::Rows<Row> found(orva::Reader(written("rows", bytes)));
    const i64 count = std::ssize(rows);
    ASSERT_EQ(found.size(), count);
    EXPECT_EQ(found[count - 1], rows.back());
    EXPECT_TRUE(std::ranges::equal(found, rows));
    EXPECT_EQ(found.lower_bound(1'001, &Row::key), 501);
    EXPECT_EQ(found.lower_bound(-1, &Row::key), 0);
    EXPECT_EQ(found.lower_bound(2 * count, &Row::key), count);

    std::vector<Row> some(10);
    EXPECT_EQ(found.read(count - 3, some), 3);
    EXPECT_EQ(some[2], rows.back());
    EXPECT_EQ(found.read(count, some), 0);
    const std::vector<i64> wanted{count - 1, 0, 7, 0};
    found.take(wanted, std::span(some).first(4));
    EXPECT_EQ(some[0], rows.back());
    EXPECT_EQ(some[3], rows[0]);

    EXPECT_EQ(thrownBy([&] { (void)found[count]; }), "UsageError");
    EXPECT_EQ(thrownBy([&] { (void)found[-1]; }), "UsageError");
    EXPECT_EQ(thrownBy([&] { (void)found.read(-1, some); }), "UsageError");
    EXPECT_EQ(thrownBy([&] { found.take(wanted, some); }), "UsageError");
    EXPECT_EQ(thrownBy([&] { found.take(std::vector<i64>{count}, std::span(some).first(1)); }), "UsageError");
    struct Odd {
        std::array<char, 7> bytes;
    };
    EXPECT_EQ(thrownBy([&] { orva::Rows<Odd>(orva::Reader(path("rows"))); }), "UsageError");
}

}  // namespace
