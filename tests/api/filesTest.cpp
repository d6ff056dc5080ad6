// The functions on whole files, beyond what the tests of the tool cover: their reports to a program, and files that
// change meanwhile.
#include "api/apiTest.h"

using namespace support;

struct Files : FaceTest {
    // The last call of the progress function, which never goes back, and its total.
    std::pair<i64, i64> fLast;
    std::function<void(i64, i64)> progress() {
        fLast = {0, 0};
        return [this](i64 done, i64 total) {
            EXPECT_GE(done, fLast.first);
            fLast = {done, total};
        };
    }
};

TEST_F(Files, SayWhichBlockIsBad) {
    const std::string name = written("rows", RandomBytes(21).rows(3 * kBlock + 10));
    const orva::Block bad = orva::info(name).blocks.at(1);
    overwriteBytes(name, bad.file_offset + 4, Bytes(3, 0xff));
    const orva::VerifyReport report = orva::verify(name, {.threads = 3, .progress = progress()});
    EXPECT_EQ(fLast.first, i64{3 * kBlock + 10});
    ASSERT_EQ(report.bad.size(), 1U);
    EXPECT_EQ(report.bad[0].rows, bad.rows);
    EXPECT_TRUE(orva::verify(name, {.first_block = 2}).bad.empty());
    const orva::Reader reader(name, {.threads = 2, .cached_blocks = INT_MAX});  // costs nothing yet
    const std::string damage = "DamagedFileError of block 1 at " + std::to_string(kBlock);
    EXPECT_EQ(thrownBy([&] { allRows(reader); }), damage);
    auto row = orva::Rows<std::array<char, 2>>(reader).begin();
    EXPECT_EQ(thrownBy([&] { std::ranges::advance(row, std::default_sentinel); }), damage);
    EXPECT_TRUE(row == std::default_sentinel);
    EXPECT_EQ(orva::recover(name, path("saved"), {.progress = progress()}).lost.at(0).rows, bad.rows);
    EXPECT_EQ(fLast.first, fLast.second);
    std::filesystem::rename(path("saved"), name);
    EXPECT_EQ(orva::verify(reader).bad.size(), 1U) << "it tells of the file that was opened";
    overwriteBytes(name, 29, Bytes(1, '7'));  // in the first line, which then states another place
    EXPECT_EQ(orva::recover(name, path("saved")).row0, 512);
}

TEST_F(Files, EndWhereTheirProgressThrows) {
    const orva::Path parts[] = {written("a", Bytes(kBlock + 5, 'a')),
                                written("b", Bytes(100, 'b'), {.dictionary = Dictionary(20)})};
    orva::join(parts, path("all"), {.progress = progress()});
    EXPECT_EQ(fLast.first, orva::info(path("all")).stored + 512);
    // Here while a heading is looked for; the tests of Python throw during the work that follows.
    const auto stop = [](i64, i64) { throw std::domain_error("enough"); };
    const orva::Path foreign[] = {made("foreign", Bytes(100, 'x'))};
    EXPECT_THROW(orva::Reader(foreign[0], {.progress = stop}), std::domain_error);
    EXPECT_THROW(orva::Writer::append(foreign[0], {.progress = stop}), std::domain_error);
    EXPECT_THROW(orva::verify(foreign[0], {.progress = stop}), std::domain_error);
    EXPECT_THROW(orva::recover(foreign[0], path("none"), {.progress = stop}), std::domain_error);
    EXPECT_THROW(orva::join(foreign, path("none"), {.progress = stop}), std::domain_error);
    // Its last block is no longer the one that was copied.
    const auto grow = [&](i64, i64) { writeAll(orva::Writer::append(path("a")), Bytes(10)); };
    EXPECT_EQ(thrownBy([&] { orva::join(parts, path("none"), {.progress = grow}); }), "FileChangedError");
    // What `join` throws if look number `look` at a heading, from 0, gets `answer`.
    const auto joinWhere = [&](int look, std::span<const orva::Path> inputs, const std::function<Verdict()>& answer) {
        const CallHook disk([&](const Step& step, std::uint64_t) {
            const bool heading = step.call == Call::Read && step.offset == 512 && step.size == 24;
            return heading && look-- == 0 ? answer() : Verdict::goOn();
        });
        return thrownBy([&] { orva::join(inputs, path("none"), {.replace = true}); });
    };
    // It must be certain whether an input has changed: each look that fails ends the join.
    bool failed = true;
    for (int look = 0; std::exchange(failed, false); ++look) {
        const std::string thrown = joinWhere(look, parts, [&] { return failed = true, Verdict::fail(EIO); });
        EXPECT_EQ(thrown, failed ? "SystemError EIO" : "") << look;
    }
    // A file without rows that takes the name between two looks is not taken for the old one.
    for (int look = 0; look < 4; ++look) {
        const orva::Path again[] = {written("again", Bytes(100, 'b'), {.replace = true})};
        written("empty", Bytes(), {.replace = true});
        const std::string thrown = joinWhere(look, again, [&] {
            std::filesystem::rename(path("empty"), again[0]);
            return Verdict::goOn();
        });
        EXPECT_THAT(thrown.empty() ? rowsOf("none") : Bytes(), testing::AnyOf(Bytes(), Bytes(100, 'b')));
        EXPECT_TRUE(thrown.empty() || thrown == "FileChangedError") << thrown;
    }
    EXPECT_EQ(names(), (Names{"a", "again", "all", "b", "foreign", "none"}));
}
