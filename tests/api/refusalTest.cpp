// The refusals of the face: each failure has the class that says what to do.
#include "api/apiTest.h"

using namespace support;

class Refusals : public FaceTest {};

TEST_F(Refusals, TellWhatToDoAndChangeNothing) {
    RandomBytes random(4);
    const Bytes whole = readBytes(written("whole", random.rows(100'000))), line = slice(whole, 0, 512);
    made("empty", {});
    made("kind", random.noise(9'000));
    made("line", line);
    made("zeros", line + Bytes(5'000));
    made("cut", slice(whole, 0, whole.size() - 10));
    made("swapped", swapped(whole, 512));
    std::filesystem::create_directory(path("dir"));
    std::filesystem::create_symlink("/dev/full", path("device"));
    const Names before = names();

    const orva::Reader reader(path("whole"));
    const orva::Rows<std::byte> values(reader);
    std::array<std::byte, 2> to{};
    const std::vector<i64> atTheEnd{0, 100'000};
    orva::Writer writer(path("new"));
    orva::Writer fresh(path("late")), other(std::move(fresh));
    const orva::Path late[] = {written("late", Bytes(7))};
    const struct {
        const char* name;
        std::function<void()> call;
        const char* thrown;
    } rows[] = {
        {"Directory", [&] { orva::Reader(path("dir")); }, "SystemError EISDIR"},
        {"Empty", [&] { orva::Reader(path("empty")); }, "DamagedFileError"},
        {"FirstLineAlone", [&] { orva::Reader(path("line")); }, "UnfinishedFileError"},
        {"FirstLineAndZeros", [&] { orva::Reader(path("zeros")); }, "UnfinishedFileError"},
        {"FirstLineAndItsPlace", [&] { orva::Reader(path("line"), {.row0 = 512}); }, "UnfinishedFileError"},
        {"IndexCutOff", [&] { orva::Reader(path("cut")); }, "DamagedFileError"},
        {"AnotherPlace", [&] { orva::Reader(path("whole"), {.row0 = 513}); }, "DamagedFileError"},
        {"CacheBelowZero", [&] { orva::Reader(path("whole"), {.cached_blocks = -1}); }, "UsageError"},
        {"SourceThatThrows", [&] { orva::Reader{std::make_shared<source>(whole, 0)}; }, "domain_error"},
        {"NoSource", [] { orva::Reader(std::shared_ptr<const orva::ByteSource>()); }, "UsageError"},

        {"RowsBelowZero", [&] { reader.read_at(-1, to); }, "UsageError"},
        {"RecordsOfNoBytes", [&] { (void)reader.splits(1, 0); }, "UsageError"},
        {"RecordsThatDoNotDivideTheRows", [&] { (void)reader.splits(1, 3); }, "UsageError"},
        {"ValuesThatDoNot", [&] { orva::Rows<std::array<char, 3>>{reader}; }, "UsageError"},
        {"ValueAtTheEnd", [&] { (void)values[100'000]; }, "UsageError"},
        {"MoreValuesThanNumbers", [&] { values.take(std::vector<i64>(1), to); }, "UsageError"},
        {"TakenAtTheEnd", [&] { values.take(atTheEnd, to); }, "UsageError"},

        {"Taken", [&] { orva::Writer(path("whole")); }, "SystemError EEXIST"},
        {"ReplacedDirectory", [&] { orva::Writer(path("dir"), {.replace = true}); }, "SystemError EISDIR"},
        {"ReplacedDevice", [&] { orva::Writer(path("device"), {.replace = true}); }, "SystemError EINVAL"},
        {"ShortBlock", [&] { orva::Writer(path("none"), {.block = 65'535}); }, "UsageError"},
        {"LongBlock", [&] { orva::Writer(path("none"), {.block = i64{kBlock} + 1}); }, "UsageError"},
        {"LongName", [&] { orva::Writer(path(std::string(256, 'x'))); }, "SystemError ENAMETOOLONG"},
        {"AppendToTheOtherByteOrder", [&] { orva::Writer::append(path("swapped")); }, "UsageError"},
        {"ValuesForTheOtherByteOrder",
         [&] { orva::Writer::append(path("swapped"), {.any_order = true}).write_rows(to); }, "UsageError"},

        {"SourceOfUnknownSize", [&] { orva::Writer(path("none")).write_from(source({}, -1)); }, "UsageError"},
        {"WroteMoreThanThereWasRoom", [&] { writer.wrote(writer.room().size() + 1); }, "UsageError"},
        {"WroteWithoutRoom", [&] { writer.wrote(1); }, "UsageError"},
        {"MovedFrom", [&] { fresh.write(std::span(to)); }, "UsageError"},  // NOLINT(bugprone-use-after-move)
        {"FinishOfAMovedOne", [&] { fresh.finish(); }, "UsageError"},
        {"TheNameTakenMeanwhile", [&] { other.finish(); }, "SystemError EEXIST"},

        {"NoName", [&] { orva::verify(""); }, "SystemError ENOENT"},
        {"RollBackOfNone", [&] { orva::roll_back(path("none")); }, "SystemError ENOENT"},
        {"RecoverTaken", [&] { orva::recover(path("cut"), path("whole")); }, "SystemError EEXIST"},
        {"RecoverInPlace", [&] { orva::recover(path("cut"), path("cut"), {.replace = true}); }, "UsageError"},
        {"NothingToRecover", [&] { orva::recover(path("kind"), path("none")); }, "DamagedFileError"},
        {"JoinOfNothing", [&] { orva::join({}, path("none")); }, "UsageError"},
        {"JoinOverAPart", [&] { orva::join(late, path("late"), {.replace = true}); }, "UsageError"},
    };
    for (const auto& row : rows) EXPECT_EQ(thrownBy(row.call), row.thrown) << row.name;
    std::filesystem::remove(path("late"));
    { const orva::Writer gone(std::move(writer)), goneToo(std::move(other)); }
    EXPECT_EQ(names(), before);
    EXPECT_EQ(readBytes(path("whole")), whole);
}
