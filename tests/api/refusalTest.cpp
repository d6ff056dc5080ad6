// What the face refuses, each failure as the class that says what to do.
#include "api/apiTest.h"

using namespace api;

namespace {

class Refusals : public FaceTest {};

TEST_F(Refusals, TellWhatToDoAndChangeNothing) {
    RandomBytes random(4);
    const Bytes whole = support::readBytes(written("whole", random.rows(100'000)));
    const std::string text = orva::makeDictionaryText();
    const Bytes line(text.begin(), text.end());
    behind(whole, "two", random.rows(10'000));
    made("empty", {});
    made("kind", random.noise(9'000));
    made("line", line);
    made("zeros", line + Bytes(5'000));
    made("cut", support::slice(whole, 0, whole.size() - 10));
    made("far", support::with(whole, 520, Bytes(16, 0x7F)));
    made("swapped", support::swapped(whole, 512));
    std::filesystem::create_directory(path("dir"));
    std::filesystem::create_symlink("/dev/full", path("device"));
    const std::string before = names();

    using Call = std::function<void()>;
    const auto opens = [&](const char* file, const orva::ReaderOptions& options = {}) -> Call {
        return [=, this] { orva::Reader(path(file), options); };
    };
    const auto makes = [&](const char* file, const orva::WriterOptions& options = {}) -> Call {
        return [=, this] { orva::Writer(path(file), options); };
    };
    const auto appends = [&](const char* file) -> Call { return [=, this] { orva::Writer::append(path(file)); }; };
    const auto joins = [&](std::vector<const char*> files, const char* to, bool replace = false) -> Call {
        return [=, this] {
            std::vector<orva::Path> parts;
            for (const char* file : files) parts.emplace_back(path(file));
            orva::join(parts, path(to), {.replace = replace});
        };
    };
    const auto recovers = [&](const char* file, const char* to, bool replace = false) -> Call {
        return [=, this] { orva::recover(path(file), path(to), {.replace = replace}); };
    };
    const orva::Reader reader(path("whole"));
    const orva::Rows<char> values(reader);
    std::array<std::byte, 10> to{};
    orva::ReadRequest request{-1, to, 0};
    std::array<char, 2> two{};
    orva::Writer writer(path("new"));
    std::optional<orva::Writer> more(orva::Writer::append(path("whole")));
    orva::Writer fresh(path("late")), other(std::move(fresh));
    written("late", Bytes(7));
    const struct {
        const char* name;
        Call call;
        const char* thrown;
    } rows[] = {
        {"Missing", opens("none"), "SystemError ENOENT"},
        {"Directory", opens("dir"), "SystemError EISDIR"},
        {"BehindAFile", opens("whole/x"), "SystemError ENOTDIR"},
        {"Empty", opens("empty"), "DamagedFileError"},
        {"OfAnotherKind", opens("kind"), "DamagedFileError"},
        {"FirstLineAlone", opens("line"), "UnfinishedFileError"},
        {"FirstLineAndZeros", opens("zeros"), "UnfinishedFileError"},
        {"FirstLineAndItsPlace", opens("line", {.row0 = 512}), "UnfinishedFileError"},
        {"IndexCutOff", opens("cut"), "DamagedFileError"},
        {"IndexFarAway", opens("far"), "DamagedFileError"},
        {"AnotherPlace", opens("two", {.row0 = 513}), "DamagedFileError"},
        {"PlaceBelowOne", opens("two", {.row0 = 0}), "UsageError"},
        {"ReadingThreadsBelowZero", opens("two", {.threads = -1}), "UsageError"},
        {"CacheBelowZero", opens("two", {.cached_blocks = -1}), "UsageError"},
        {"TwoParts", opens("two"), "UsageError"},
        {"AtWork", opens("whole"), "UnfinishedFileError"},
        {"NoSource", [] { orva::Reader(std::shared_ptr<const orva::ByteSource>()); }, "UsageError"},

        {"RowsBelowZero", [&] { reader.read_at(-1, to); }, "UsageError"},
        {"RangesBelowZero",
         [&] {
             reader.read_ranges({&request, 1});
         },
         "UsageError"},
        {"NoSplits", [&] { (void)reader.splits(0); }, "UsageError"},
        {"RecordsOfNoBytes", [&] { (void)reader.splits(1, 0); }, "UsageError"},
        {"RecordsThatDoNotDivideTheRows", [&] { (void)reader.splits(1, 3); }, "UsageError"},
        {"ValuesThatDoNot", [&] { orva::Rows<std::array<char, 3>>{reader}; }, "UsageError"},
        {"ValueBelowZero", [&] { (void)values[-1]; }, "UsageError"},
        {"ValueAtTheEnd", [&] { (void)values[100'000]; }, "UsageError"},
        {"ValuesBelowZero", [&] { (void)values.read(-1, two); }, "UsageError"},
        {"MoreValuesThanNumbers", [&] { values.take(std::vector<i64>(1), two); }, "UsageError"},
        {"TakenAtTheEnd",
         [&] {
             values.take(std::vector<i64>{0, 100'000}, two);
         },
         "UsageError"},

        {"Taken", makes("whole"), "SystemError EEXIST"},
        {"ReplacedDirectory", makes("dir", {.replace = true}), "SystemError EISDIR"},
        {"ReplacedDevice", makes("device", {.replace = true}), "SystemError EINVAL"},
        {"ReplacedBesideItsWriter", makes("whole", {.replace = true}), "SystemError EAGAIN"},
        {"NoSuchDirectory", makes("none/file"), "SystemError ENOENT"},
        {"ThreadsBelowZero", makes("none", {.threads = -1}), "UsageError"},
        {"LevelZero", makes("none", {.level = 0}), "UsageError"},
        {"ShortBlock", makes("none", {.block = 65'535}), "UsageError"},
        {"LongBlock", makes("none", {.block = i64{kBlock} + 1}), "UsageError"},
        {"AppendToNone", appends("none"), "SystemError ENOENT"},
        {"AppendToADirectory", appends("dir"), "SystemError EISDIR"},
        {"AppendToAnUnfinishedFile", appends("line"), "UnfinishedFileError"},
        {"AppendToAnotherKind", appends("kind"), "DamagedFileError"},
        {"AppendBesideAnother", appends("whole"), "SystemError EAGAIN"},
        {"AppendToTheOtherByteOrder", appends("swapped"), "UsageError"},

        {"WroteMoreThanThereWasRoom", [&] { writer.wrote(writer.room().size() + 1); }, "UsageError"},
        {"WroteWithoutRoom", [&] { writer.wrote(1); }, "UsageError"},
        {"MovedFrom", [&] { fresh.write(std::span(to)); }, "UsageError"},  // NOLINT(bugprone-use-after-move)
        {"FinishOfAMovedOne", [&] { fresh.finish(); }, "UsageError"},
        {"TheNameTakenMeanwhile", [&] { other.finish(); }, "SystemError EEXIST"},

        {"InfoOfNone", [&] { orva::info(path("none")); }, "SystemError ENOENT"},
        {"RollBackOfNone", [&] { orva::roll_back(path("none")); }, "SystemError ENOENT"},
        {"RecoverTaken", recovers("cut", "whole"), "SystemError EEXIST"},
        {"RecoverInPlace", recovers("cut", "cut", true), "UsageError"},
        {"NothingToRecover", recovers("kind", "none"), "DamagedFileError"},
        {"JoinOfNothing", joins({}, "none"), "UsageError"},
        {"JoinOverAPart", joins({"late"}, "late", true), "UsageError"},
        {"JoinTaken", joins({"late"}, "cut"), "SystemError EEXIST"},
        {"JoinOfNone", joins({"late", "none"}, "to"), "SystemError ENOENT"},
    };
    for (const auto& row : rows) EXPECT_EQ(thrownBy(row.call), row.thrown) << row.name;
    std::filesystem::remove(path("late"));
    more.reset();
    { const orva::Writer gone(std::move(writer)), goneToo(std::move(other)); }
    EXPECT_EQ(names(), before);
    EXPECT_EQ(support::readBytes(path("whole")), whole);

    const auto textOf = [&](const Call& call) {
        try {
            call();
            return std::string();
        } catch (const orva::Error& e) {
            return e.path().filename().string() + ": " + e.what();
        }
    };
    EXPECT_EQ(textOf(opens("none")),
              "none: cannot read \"" + path("none") + "\": No such file or directory; check the name");
    EXPECT_TRUE(textOf(recovers("kind", "none")).starts_with("kind: "));
}

}  // namespace
