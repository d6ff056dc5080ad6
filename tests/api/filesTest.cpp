// The functions on whole files, past what the tests of the tool hold: what they tell a program, and what becomes of a
// file that changes meanwhile.
#include "api/apiTest.h"

using namespace api;

namespace {

class Files : public FaceTest {
protected:
    // The last that a `progress` was told, which never goes back, and of how much.
    std::pair<i64, i64> fLast;
    std::function<void(i64, i64)> told() {
        fLast = {0, 0};
        return [this](i64 done, i64 total) {
            EXPECT_GE(done, fLast.first);
            fLast = {done, total};
        };
    }
};

TEST_F(Files, NameEveryBadBlockAndSaveTheOthers) {
    const Bytes rows = RandomBytes(21).rows(3 * kBlock + 10);
    const std::string name = written("rows", rows);
    const orva::FileInfo info = orva::info(name);
    EXPECT_EQ(info.stored, info.index.offset - 512 - 24);
    ASSERT_EQ(info.blocks.size(), 4U);
    for (const std::size_t bad : {1U, 3U}) {
        overwriteBytes(name, info.blocks[bad].file_offset + 4, Bytes(3, 0xff));
    }
    const orva::VerifyReport report = orva::verify(name, {.threads = 3, .progress = told()});
    EXPECT_EQ(fLast.first, std::ssize(rows));
    ASSERT_EQ(report.bad.size(), 2U);
    EXPECT_EQ(report.bad[0].rows, info.blocks[1].rows);
    EXPECT_EQ(report.bad[1].block, 3);
    EXPECT_EQ(orva::verify(name, {.first_block = 2}).bad.size(), 1U);
    const orva::Reader reader(name, {.threads = 2});
    const std::string damage = "DamagedFileError of block 1 at " + std::to_string(kBlock);
    EXPECT_EQ(thrownBy([&] { allRows(reader); }), damage);
    const Bytes sound = slice(rows, 2 * kBlock, kBlock);
    EXPECT_TRUE(sameBytes(rowsAt(reader, 2 * kBlock, kBlock), sound));
    auto row = orva::Rows<std::array<char, 2>>(reader).begin();
    EXPECT_EQ(thrownBy([&] { std::ranges::advance(row, std::default_sentinel); }), damage);
    EXPECT_TRUE(row == std::default_sentinel);
    EXPECT_EQ(orva::recover(name, path("saved"), {.progress = told()}).lost.at(0).rows, info.blocks[1].rows);
    EXPECT_EQ(fLast.first, fLast.second);
}

TEST_F(Files, EndWhereTheirProgressThrows) {
    const orva::Path parts[] = {written("a", Bytes(kBlock + 5, 'a')), behind(Bytes(20, 'd'), "b", Bytes(100, 'b'))};
    const orva::JoinReport report = orva::join(parts, path("all"), {.progress = told()});
    EXPECT_EQ(report.size, i64{kBlock + 105});
    EXPECT_EQ(fLast.first, orva::info(path("all")).stored + 512);
    EXPECT_TRUE(sameBytes(rowsOf("all"), Bytes(kBlock + 5, 'a') + Bytes(100, 'b')));
    const auto stop = [](i64, i64) { throw std::domain_error("enough"); };
    EXPECT_THROW(orva::verify(path("all"), {.progress = stop}), std::domain_error);
    EXPECT_THROW(orva::recover(path("all"), path("none"), {.progress = stop}), std::domain_error);
    EXPECT_THROW(orva::join(parts, path("none"), {.progress = stop}), std::domain_error);
    // Its last block is another one than that which was copied.
    const auto grow = [&](i64, i64) {
        orva::Writer more = orva::Writer::append(path("a"));
        more.write(spanOf(Bytes(10)));
        more.finish();
    };
    EXPECT_EQ(thrownBy([&] { orva::join(parts, path("none"), {.progress = grow}); }), "FileChangedError");
    EXPECT_EQ(names(), "a all b");
}

}  // namespace
