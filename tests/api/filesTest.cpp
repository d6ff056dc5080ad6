// The functions on whole files: info, verify, recover, roll_back and join.
#include "api/apiTest.h"

using namespace api;
using support::RandomBytes;
using support::sameBytes;

namespace {

class Files : public FaceTest {};

TEST_F(Files, TellWhatAFileHolds) {
    const orva::FileInfo info = orva::info(written("rows", Bytes(2 * kBlock + 10)));
    EXPECT_EQ(info.found_by, orva::FileInfo::FoundBy::dictionary);
    EXPECT_EQ(info.row0, 512);
    EXPECT_TRUE(info.text.has_value());
    EXPECT_EQ(info.size, i64{2 * kBlock + 10});
    ASSERT_EQ(info.blocks.size(), 3U);
    EXPECT_EQ(info.blocks[2].rows, (orva::Range{2 * kBlock, 10}));
    EXPECT_EQ(info.index.offset + info.index.length, info.file_size);
    EXPECT_EQ(info.stored, info.index.offset - 512 - 24);
    EXPECT_EQ(thrownBy([&] { orva::info(path("none")); }), "SystemError ENOENT");
}

TEST_F(Files, NameEveryBadBlockAndSaveTheOthers) {
    const Bytes rows = RandomBytes(21).rows(4 * kBlock);
    const std::string name = written("rows", rows);
    EXPECT_TRUE(orva::verify(name, {.threads = 2}).sound());
    const std::vector<orva::Block> blocks = orva::Reader(name).blocks();
    for (const int bad : {1, 3}) {
        support::overwriteBytes(
            name, static_cast<std::uint64_t>(blocks[static_cast<std::size_t>(bad)].file_offset) + 99, Bytes(8, 0xff));
    }
    i64 last = 0;
    const orva::VerifyReport report =
        orva::verify(name, {.threads = 3, .progress = [&](i64 done, i64) { last = done; }});
    ASSERT_EQ(report.bad.size(), 2U);
    EXPECT_EQ(report.bad[0].rows, blocks[1].rows);
    EXPECT_EQ(report.bad[1].block, 3);
    EXPECT_EQ(orva::verify(name, {.first_block = 2}).bad.size(), 1U);
    EXPECT_EQ(last, std::ssize(rows));
    const auto stop = [](i64, i64) { throw std::domain_error("enough"); };
    EXPECT_THROW(orva::verify(name, {.progress = stop}), std::domain_error);
    const orva::Reader reader(name, {.threads = 2});
    try {
        all(reader);
        FAIL() << "the damage went unnoticed";
    } catch (const orva::DamagedFileError& e) {
        EXPECT_EQ(std::pair(e.block(), e.offset()), std::pair(std::optional<i64>(1), std::optional<i64>(kBlock)));
        EXPECT_NE(std::string(e.what()).find("orva recover"), std::string::npos) << e.what();
    }
    EXPECT_TRUE(sameBytes(read(reader, 2 * kBlock, kBlock), support::slice(rows, 2 * kBlock, kBlock)));

    std::filesystem::permissions(name, std::filesystem::perms{0600});
    EXPECT_THROW(orva::recover(name, path("none"), {.progress = stop}), std::domain_error);
    std::vector<i64> told;
    const orva::RecoverReport saved = orva::recover(name, path("saved"), {.progress = [&](i64 done, i64 total) {
                                                        told.push_back(done);
                                                        last = total;
                                                    }});
    EXPECT_TRUE(std::ranges::is_sorted(told));
    EXPECT_EQ(told.back(), last);
    EXPECT_EQ(std::filesystem::status(path("saved")).permissions(), std::filesystem::perms{0600});
    EXPECT_EQ(saved.blocks, 2);
    ASSERT_FALSE(saved.lost.empty());
    EXPECT_EQ(saved.lost[0].rows, blocks[1].rows);
    EXPECT_TRUE(
        sameBytes(read(orva::Reader(path("saved")), 2 * kBlock, kBlock), support::slice(rows, 2 * kBlock, kBlock)));
    EXPECT_EQ(thrownBy([&] { orva::recover(name, path("saved")); }), "SystemError EEXIST");
    EXPECT_EQ(thrownBy([&] { orva::recover(name, name, {.replace = true}); }), "UsageError");
    made("noise", Bytes(10'000, 1));
    EXPECT_EQ(thrownBy([&] { orva::recover(path("noise"), path("none")); }), "DamagedFileError");
    try {
        orva::recover(path("noise"), path("none"));
    } catch (const orva::Error& e) {
        EXPECT_EQ(e.path(), path("noise")) << e.what();
    }
    EXPECT_EQ(names(), (std::vector<std::string>{"noise", "rows", "saved"}));
}

TEST_F(Files, JoinRows) {
    RandomBytes random(22);
    const Bytes a = random.rows(kBlock + 5);
    const Bytes b = random.rows(100);
    const orva::Path parts[] = {written("a", a), behind(Bytes(20, 'd'), "b", b)};
    i64 last = 0;
    const orva::JoinReport report = orva::join(parts, path("all"), {.progress = [&](i64 done, i64) { last = done; }});
    EXPECT_EQ(report.size, std::ssize(a) + 100);
    EXPECT_EQ(last, orva::info(path("all")).stored + 512);
    EXPECT_TRUE(sameBytes(all(orva::Reader(path("all"))), Bytes(a) + b));
    const std::vector<std::byte> dictionary(777, std::byte{1});
    orva::join(parts, path("all"), {.dictionary = dictionary, .replace = true});
    EXPECT_EQ(orva::Reader(path("all"), {.row0 = 777}).dictionary(), dictionary);

    const auto before = names();
    const auto stop = [](i64, i64) { throw std::domain_error("enough"); };
    EXPECT_THROW(orva::join(parts, path("none"), {.progress = stop}), std::domain_error);
    EXPECT_EQ(thrownBy([&] { orva::join({}, path("none")); }), "UsageError");
    EXPECT_EQ(thrownBy([&] { orva::join(parts, path("a"), {.replace = true}); }), "UsageError");
    EXPECT_EQ(thrownBy([&] { orva::join(parts, path("all")); }), "SystemError EEXIST");
    const orva::Path missing[] = {parts[0], path("missing")};
    EXPECT_EQ(thrownBy([&] { orva::join(missing, path("none")); }), "SystemError ENOENT");
    EXPECT_EQ(names(), before);
}

}  // namespace
