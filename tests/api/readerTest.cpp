// orva::Reader and Rows: every row from any thread.
#include "api/apiTest.h"

#include <array>
#include <functional>
#include <thread>
#include <utility>

using namespace api;

namespace {

class Reader : public FaceTest {};

TEST_F(Reader, GivesTheRowsOfAnyRangesInAnyOrder) {
    RandomBytes random(1);
    const Bytes rows = random.rows(3 * kBlock + 1'000);
    const std::string name = written("rows", rows);
    for (const int threads : {1, 3}) {
        const orva::Reader reader(name, {.threads = threads});
        EXPECT_EQ(reader.row0(), 512);
        EXPECT_TRUE(sameBytes(allRows(reader), rows));
        EXPECT_EQ(rowsAt(reader, std::ssize(rows) - 5, 10).size(), 5U);
        for (const i64 behind : {i64{std::ssize(rows)}, i64{INT64_MAX}})
            EXPECT_EQ(rowsAt(reader, behind, 10).size(), 0U);
        std::vector<Bytes> memory;
        std::vector<orva::ReadRequest> requests;
        for (int i = 0; i < 50; ++i) memory.emplace_back(random.below(i % 20 == 7 ? 2 * kBlock : 300'000));
        for (Bytes& to : memory) {
            requests.push_back({random.between(0, std::ssize(rows)), std::as_writable_bytes(std::span(to)), 0});
        }
        reader.read_ranges(requests);
        for (const orva::ReadRequest& request : requests) {
            const Bytes expected = slice(rows, request.offset, request.to.size());
            EXPECT_TRUE(std::ranges::equal(request.to.first(request.got), spanOf(expected)));
            EXPECT_TRUE(sameBytes(rowsAt(reader, request.offset, request.to.size()), expected));
        }
    }
}

TEST_F(Reader, ReadsASourceInThreeReadsAtMostAndPassesWhatItThrows) {
    const Bytes rows = RandomBytes(3).rows(2 * kBlock);
    const auto near = std::make_shared<source>(readBytes(written("rows", rows)));
    const std::string other = written("other", rows, {.dictionary = Dictionary(10'000)});
    const auto far = std::make_shared<source>(readBytes(other));
    EXPECT_EQ(thrownBy([&] { orva::Reader{far}; }), "DamagedFileError");
    far->reads = 0;
    for (const auto& [from, row0] :
         {std::pair(near, std::optional<i64>()), std::pair(far, std::optional<i64>(10'000))}) {
        const orva::Reader reader(from, {.row0 = row0});
        EXPECT_LE(from->reads, 3);
        EXPECT_TRUE(from == near || reader.dictionary() == Dictionary(10'000));
        EXPECT_TRUE(sameBytes(allRows(reader), rows));
    }
    EXPECT_TRUE(sameBytes(rowsOf("other"), rows));  // by a search
    near->fails = 0;
    EXPECT_EQ(thrownBy([&] { orva::Reader{near}; }), "domain_error");
}

TEST_F(Reader, IsUsableAfterAForkWhileOthersRead) {
    const Bytes rows = RandomBytes(6).rows(2'000'777);
    orva::Reader reader(written("rows", rows, {.block = 65'536}), {.threads = kSanitized ? 1 : 2});
    const auto reads = [&](int seed, int count) {
        SeededBytes places(
            static_cast<std::uint64_t>(seed));  // no lock of the framework, which a child would find taken
        for (int i = 0; i < count; ++i) {
            const std::size_t at = places.below(rows.size());
            EXPECT_TRUE(sameBytes(rowsAt(reader, static_cast<i64>(at), 500), slice(rows, at, 500)));
        }
        EXPECT_TRUE(sameBytes(allRows(reader), rows));
    };
    std::vector<std::jthread> others;
    for (const int other : {0, 1, 2}) {
        others.emplace_back([&, other](const std::stop_token& end) {
            while (!end.stop_requested()) other == 0 ? reader.refresh() : reads(other, 1);
        });
    }
    for (int i = 0; i < 6; ++i) expectInChild([&] { reads(i, 300); });
    reads(7, 300);
}

// As on two threads: the later one begins when the earlier one has seen the file, and ends before that one does.
TEST_F(Reader, ShowsWhatTheLaterOfTwoRefreshesHasSeen) {
    struct : platform::faults::Hook {
        Verdict before(const Step&) override { return Verdict::goOn(); }
        void after(const Step& step) override {
            if (step.call == Call::Read && ++reads == last) meanwhile();
        }
        int reads = 0, last = 0;
        std::function<void()> meanwhile;
    } hook;
    const platform::faults::Installed installed(hook);
    orva::Reader reader(written("rows", Bytes(1'000))), other = reader;
    hook.reads = 0;
    reader.refresh();
    hook.last = std::exchange(hook.reads, 0);
    hook.meanwhile = [&] {
        orva::Writer writer = orva::Writer::append(path("rows"));
        writer.write(spanOf(Bytes(500)));
        writer.finish();
        other.refresh();
        EXPECT_EQ(reader.size(), 1'500);
    };
    reader.refresh();
    EXPECT_EQ(reader.size(), 1'500);
}

struct Row {
    i64 key;
    std::array<char, 5> rest;
    bool operator==(const Row&) const = default;
};

TEST_F(Reader, GivesRowsAsValues) {
    std::vector<Row> rows(kBlock / sizeof(Row) * 2 + 100);
    for (std::size_t i = 0; i < rows.size(); ++i) rows[i] = {static_cast<i64>(2 * i), {'a'}};
    orva::Writer writer(path("rows"));
    writer.write_rows(rows);
    writer.finish();
    const orva::Rows<Row> found{orva::Reader(path("rows"))};
    const i64 count = std::ssize(rows);
    ASSERT_EQ(found.size(), count);
    EXPECT_EQ(found[count - 1], rows.back());
    EXPECT_TRUE(std::ranges::equal(found, rows));
    for (const auto& [key, at] : {std::pair<i64, i64>(1'001, 501), {-1, 0}, {2 * count, count}}) {
        EXPECT_EQ(found.lower_bound(key, &Row::key), at);
    }
    std::vector<Row> some(10);
    EXPECT_EQ(found.read(count - 3, some), 3);
    EXPECT_EQ(some[2], rows.back());
    EXPECT_EQ(found.read(count, some), 0);
    found.take(std::vector<i64>{count - 1, 0, 7, 0}, std::span(some).first(4));
    EXPECT_TRUE(std::ranges::equal(std::span(some).first(4), std::vector{rows.back(), rows[0], rows[7], rows[0]}));
}

}  // namespace
