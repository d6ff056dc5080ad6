// The functions on whole files: info, verify, recover, roll_back and join.
#include "api/apiTest.h"

using namespace api;

namespace {

class Files : public FaceTest {
protected:
    // The last that a `progress` was told, which may not go back, of how much.
    std::pair<i64, i64> fLast{0, 0};
    std::function<void(i64, i64)> told() {
        return [this](i64 done, i64 total) {
            EXPECT_GE(done, fLast.first);
            fLast = {done, total};
        };
    }
};

void stop(i64, i64) {
    throw std::domain_error("enough");
}

TEST_F(Files, NameEveryBadBlockAndSaveTheOthers) {
    const Bytes rows = RandomBytes(21).rows(3 * kBlock + 10);
    const std::string name = written("rows", rows);
    const orva::FileInfo info = orva::info(name);
    EXPECT_EQ(info.found_by, orva::FileInfo::FoundBy::dictionary);
    EXPECT_TRUE(info.text.has_value());
    EXPECT_EQ(info.size, std::ssize(rows));
    ASSERT_EQ(info.blocks.size(), 4U);
    EXPECT_EQ(info.blocks[3].rows, (orva::Range{3 * kBlock, 10}));
    EXPECT_EQ(info.index.offset + info.index.length, info.file_size);
    EXPECT_EQ(info.stored, info.index.offset - 512 - 24);
    EXPECT_TRUE(orva::verify(name, {.threads = 2}).sound());
    for (const std::size_t bad : {1U, 3U}) {
        support::overwriteBytes(name, info.blocks[bad].file_offset + 4, Bytes(3, 0xff));
    }
    const orva::VerifyReport report = orva::verify(name, {.threads = 3, .progress = told()});
    EXPECT_EQ(fLast.first, std::ssize(rows));
    ASSERT_EQ(report.bad.size(), 2U);
    EXPECT_EQ(report.bad[0].rows, info.blocks[1].rows);
    EXPECT_EQ(report.bad[1].block, 3);
    EXPECT_EQ(orva::verify(name, {.first_block = 2}).bad.size(), 1U);
    EXPECT_THROW(orva::verify(name, {.progress = stop}), std::domain_error);
    const orva::Reader reader(name, {.threads = 2});
    try {
        all(reader);
        FAIL() << "the damage went unnoticed";
    } catch (const orva::DamagedFileError& e) {
        EXPECT_EQ(std::pair(e.block(), e.offset()), std::pair(std::optional<i64>(1), std::optional<i64>(kBlock)));
        EXPECT_NE(std::string(e.what()).find("orva recover"), std::string::npos) << e.what();
    }
    const Bytes sound = support::slice(rows, 2 * kBlock, kBlock);
    EXPECT_TRUE(sameBytes(read(reader, 2 * kBlock, kBlock), sound));

    std::filesystem::permissions(name, std::filesystem::perms{0600});
    EXPECT_THROW(orva::recover(name, path("none"), {.progress = stop}), std::domain_error);
    fLast = {};
    const orva::RecoverReport saved = orva::recover(name, path("saved"), {.progress = told()});
    EXPECT_EQ(fLast.first, fLast.second);
    EXPECT_EQ(std::filesystem::status(path("saved")).permissions(), std::filesystem::perms{0600});
    EXPECT_EQ(saved.blocks, 2);
    ASSERT_FALSE(saved.lost.empty());
    EXPECT_EQ(saved.lost[0].rows, info.blocks[1].rows);
    EXPECT_TRUE(sameBytes(read(orva::Reader(path("saved")), 2 * kBlock, kBlock), sound));
    EXPECT_EQ(names(), "rows saved");
}

TEST_F(Files, JoinRows) {
    RandomBytes random(22);
    const Bytes a = random.rows(kBlock + 5), b = random.rows(100);
    const orva::Path parts[] = {written("a", a), behind(Bytes(20, 'd'), "b", b)};
    const orva::JoinReport report = orva::join(parts, path("all"), {.progress = told()});
    EXPECT_EQ(report.size, std::ssize(a) + 100);
    EXPECT_EQ(fLast.first, orva::info(path("all")).stored + 512);
    EXPECT_TRUE(sameBytes(rowsOf("all"), a + b));
    const std::vector<std::byte> dictionary(777, std::byte{1});
    orva::join(parts, path("all"), {.dictionary = dictionary, .replace = true});
    EXPECT_EQ(orva::Reader(path("all"), {.row0 = 777}).dictionary(), dictionary);
    EXPECT_THROW(orva::join(parts, path("none"), {.progress = stop}), std::domain_error);
    EXPECT_EQ(names(), "a all b");
}

}  // namespace
