// orva::Reader and Rows: every row from any thread.
#include "api/apiTest.h"

using namespace support;

class Reader : public FaceTest {};

TEST_F(Reader, IsUsableAfterAForkWhileOthersRead) {
    const Bytes rows = RandomBytes(6).rows(2'000'777);
    orva::Reader reader(written("rows", rows, {.block = 65'536}), {.threads = kSanitized ? 1 : 2});
    const auto reads = [&](int seed, int count) {
        SeededBytes places{std::uint64_t(seed)};  // without a lock of the framework, which a child would find held
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

// As on two threads: other rows replace those that a refresh is about to show, or a read to keep, at any of their calls
// or after them.
TEST_F(Reader, ShowsWhatTheLatestRefreshHasSeen) {
    for (int place = 0, left = -1; left < 0; ++place) {
        orva::Reader reader(written("rows", Bytes(1'000, 1), {.replace = true})), other = reader;
        const auto change = [&] { written("rows", Bytes(1'500, 2), {.replace = true}), other.refresh(); };
        left = place;
        auto meanwhile = std::make_unique<CallHook>([&](const Step&) { left-- == 0 ? change() : void(); });
        reader.refresh();
        EXPECT_THAT(rowsAt(reader, 0, 10), testing::AnyOf(Bytes(10, 1), Bytes(10, 2)));
        meanwhile.reset();
        if (left >= 0) change();
        EXPECT_EQ(reader.size(), 1'500) << place;
        EXPECT_EQ(rowsAt(reader, 0, 10), Bytes(10, 2)) << place;
    }
}

// Asks whether an append is at work just before one begins.
TEST_F(Reader, TellsOfAnAppendThatBeginsBetweenTwoLooks) {
    const orva::Path name = written("rows", Bytes(100));
    orva::Writer writer = orva::Writer::append(name);
    writer.write(spanOf(Bytes(10)));
    CallHook before;
    before.fail(Call::Lock, ENOLCK);
    EXPECT_THAT(orva::append_state(name), testing::HasSubstr("is at work"));
    before.fail(Call::Lock, ENOLCK);
    EXPECT_THAT(failureOf([&] { orva::Reader{name}; }), testing::HasSubstr("is at work"));
}

struct Row {
    i64 key;
    std::array<char, 5> rest;
    bool operator==(const Row&) const = default;
};

TEST_F(Reader, GivesRowsAsValues) {
    std::vector<Row> rows(kBlock / sizeof(Row) * 2 + 100);
    for (std::size_t i = 0; i < rows.size(); ++i) rows[i] = {static_cast<i64>(2 * i), {'a'}};
    const orva::Rows<Row> found{orva::Reader(written("rows", rows))};
    const i64 count = std::ssize(rows);
    ASSERT_EQ(found.size(), count);
    EXPECT_TRUE(std::ranges::equal(found, rows));
    for (const auto& [key, at] : {std::pair<i64, i64>(1'001, 501), {-1, 0}, {2 * count, count}})
        EXPECT_EQ(found.lower_bound(key, &Row::key), at);
    std::vector<Row> some(10);
    EXPECT_EQ(found.read(count - 3, some), 3);
    EXPECT_EQ(some[2], rows.back());
    EXPECT_EQ(found.read(count, some), 0);
}
