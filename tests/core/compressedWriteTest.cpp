// Writing: the blocks that writes and flushes make, the finished file, the texts of breaches, and a writer's end after
// a failure. Each test runs inline (setting 0) and through the writing worker (1).
#include "coreTest.h"

#include <gmock/gmock.h>

namespace core {
namespace {

using platform::faults::Call;
using testing::HasSubstr;

constexpr auto kFromStart = ORVA_StrBaseIO::SeekFromStart;

class CompressedWrite : public support::TempDir, public testing::WithParamInterface<int> {
protected:
    int setting() const { return GetParam(); }
    const std::string fName = path("rows.orva");
};
INSTANTIATE_TEST_SUITE_P(Roads, CompressedWrite, testing::Values(0, 1),
                         [](const auto& road) { return road.param == 0 ? "Inline" : "Worker"; });

Bytes inflatedBlock(const Bytes& file, const filePosRecord& record) {
    const Bytes packed = support::slice(file, static_cast<std::size_t>(record.translatePos),
                                        static_cast<std::size_t>(record.translateSize));
    Bytes rows(static_cast<std::size_t>(record.orginalSize));
    uLongf size = rows.size();
    EXPECT_EQ(uncompress(rows.data(), &size, packed.data(), packed.size()), Z_OK);
    EXPECT_EQ(size, rows.size());
    return rows;
}

// All rules of a finished file, without the library.
void expectFinished(const Bytes& file, const Bytes& rows, const std::vector<std::int32_t>& sizes) {
    const Layout layout(file);
    EXPECT_EQ(support::slice(file, 0, kRow0), Bytes(kRow0, 0xD5)) << "the dictionary part";
    EXPECT_EQ(layout.sizes(), sizes);
    EXPECT_EQ(bytesOf(layout.first), bytesOf(filePosRecord{-100, 0, kBlock, static_cast<std::int32_t>(sizes.size())}));
    Bytes inflated;
    std::int64_t pos = kRow0;
    std::int64_t place = kRow0 + 24;
    for (const filePosRecord& record : layout.records) {
        EXPECT_EQ(record.orginalPos, pos);
        EXPECT_EQ(record.translatePos, place);
        pos += record.orginalSize;
        place += record.translateSize;
        const Bytes block = inflatedBlock(file, record);
        inflated.insert(inflated.end(), block.begin(), block.end());
    }
    EXPECT_TRUE(support::sameBytes(inflated, rows));
    EXPECT_EQ(layout.heading._caseStartPos, kRow0);
    EXPECT_EQ(layout.heading._indexPos, place);
    EXPECT_EQ(layout.heading._size, 24 * static_cast<std::int64_t>(sizes.size() + 1));
    EXPECT_EQ(file.size(), static_cast<std::size_t>(place + layout.heading._size));
}

constexpr std::int64_t kFlush = -1;
struct ScriptCase {
    const char* name;
    std::vector<std::int64_t> steps;  // sizes of writes, or kFlush
    std::vector<std::int32_t> sizes;  // of the blocks
};
const ScriptCase kScripts[] = {
    {"Nothing", {}, {}},
    {"WriteOfNothing", {0, kFlush}, {}},
    {"OneByte", {1}, {1}},
    {"ExactlyABlock", {kBlock}, {kBlock}},
    {"BlockInTwoWrites", {1'000, kBlock - 1'000, kFlush}, {kBlock}},
    {"ThreeBlocksInOneWrite", {3 * kBlock}, {kBlock, kBlock, kBlock}},
    {"TwoBlocksAndAThird", {5'000'000, 3'480'416}, {kBlock, kBlock, 100'000}},
    {"FlushesInMidWrite", {kFlush, 10, kFlush, kFlush, 20, 5, kFlush, 1}, {10, 25, 1}},
};

TEST_P(CompressedWrite, MakesTheseBlocks) {
    const Bytes all = support::RandomBytes(21).rows(3 * kBlock);
    for (const ScriptCase& c : kScripts) {
        SCOPED_TRACE(c.name);
        const Dictionary dictionary(fName);
        const auto stream = startedWriter(dictionary, setting());
        std::int64_t at = 0;
        for (const std::int64_t step : c.steps) {
            if (step == kFlush) {
                EXPECT_EQ(stream->Flush(), 1);
                continue;
            }
            EXPECT_EQ(stream->Write(all.data() + at, static_cast<std::uint32_t>(step)), step);
            at += step;
            EXPECT_EQ(stream->Tell(), kRow0 + at);
        }
        EXPECT_EQ(stream->Close(), 1);
        expectFinished(support::readBytes(fName), support::slice(all, 0, static_cast<std::size_t>(at)), c.sizes);
        EXPECT_TRUE(support::sameBytes(Reader(fName, 0, kRow0).read(static_cast<std::size_t>(at) + 1),
                                       support::slice(all, 0, static_cast<std::size_t>(at))));
    }
}

TEST_P(CompressedWrite, CutsABlockThatDeflateCannotFit) {
    support::RandomBytes random(22);
    const Bytes rows = joined({random.noise(kBlock), random.rows(5'000)});
    {
        const Dictionary dictionary(fName);
        const auto stream = startedWriter(dictionary, setting());
        write(*stream, rows);
    }
    expectFinished(support::readBytes(fName), rows, {kBlock / 2, kBlock / 2, 5'000});
    EXPECT_TRUE(support::sameBytes(Reader(fName, 2, kRow0).read(rows.size()), rows));
}

// The bytes at the row-0 position stay what they were until index and blocks are in the file.
TEST_P(CompressedWrite, WritesTheHeadingLastOverWhatStoodThere) {
    for (std::uint64_t failing = 1; failing <= 4; ++failing) {
        const Dictionary dictionary(fName, 2'000);
        const auto stream = startedWriter(dictionary, setting());
        write(*stream, Bytes(700, 'r'));
        std::uint64_t writes = 0;
        CallHook hook([&](Call call, std::uint64_t) {
            return call == Call::Write && ++writes == failing ? CallHook::Verdict::fail(EIO)
                                                              : CallHook::Verdict::goOn();
        });
        const platform::faults::Installed installed(hook);
        const bool fails = failing <= 3;  // block, index, heading
        EXPECT_EQ(failureOf([&] { stream->Close(); }), fails ? fileError(1002, EIO, fName) : "");
        EXPECT_EQ(writes, std::min<std::uint64_t>(failing, 3));
        EXPECT_EQ(support::slice(support::readBytes(fName), kRow0, 24) == Bytes(24, 0xD5), fails);
    }
}

TEST_P(CompressedWrite, FinishedStreamIsOpenForOthers) {
    const Dictionary dictionary(fName);
    const auto stream = startedWriter(dictionary, setting());
    write(*stream, Bytes(100, 'x'));
    EXPECT_EQ(stream->Close(), 1);
    EXPECT_EQ(stream->Close(), 1);
    EXPECT_EQ(stream->Flush(), 1);
    EXPECT_EQ(stream->EndOfFile(), 0);
    EXPECT_EQ(stream->Name(), fName);
    const Bytes file = support::readBytes(fName);
    ORVA_FileStream other(fName.c_str(), "r+b");
    EXPECT_EQ(other.Good(), 1) << "the writer's lock is gone";
    EXPECT_EQ(support::readBytes(fName), file);
}

// A breach of the caller's, by what it says.
TEST_P(CompressedWrite, BreachesEndInAssertions) {
    const Dictionary dictionary(fName);
    zcmpsFilestr fresh(dictionary.stream());
    EXPECT_ASSERTION(fresh.Write("x", 1), "bIsWriting == true");
    const auto stream = startedWriter(dictionary, setting());
    write(*stream, Bytes(10, 'x'));
    char byte = 0;
    EXPECT_ASSERTION(stream->Read(&byte, 1), "bIsWriting == false");
    EXPECT_ASSERTION(stream->Seek(0, ORVA_StrBaseIO::SeekFromEnd), "seek from end with zcmpsFilestr::Seek");
    EXPECT_ASSERTION((stream->Seek(1, kFromStart), stream->Write("x", 1)),
                     "(req._pos == fpos + sizeof(fBuffer) - availBuffSize) && "
                     "\"Jumped write in zcmpsFilestr::Data::Write\"");
    if (setting() == 1) EXPECT_ASSERTION(stream->setMultiThread(0), "fData->fpIOThread == 0");
    EXPECT_EQ(stream->Close(), 1);
    EXPECT_ASSERTION(stream->Write("x", 1), "fData->bClosed == false");
    EXPECT_ASSERTION(stream->setRow0Pos(kRow0), "fData->bClosed == false");
    EXPECT_ASSERTION(stream->readFilePosInfo(kRow0, false), "fData->bClosed == false");
}

class WriteSettings : public support::TempDir {};

TEST_F(WriteSettings, AnySettingWithoutItsWorkerIsABreach) {
    for (const int wrong : {2, -1}) {
        const Dictionary dictionary(path(std::to_string(wrong)));
        const auto stream = startedWriter(dictionary, wrong);
        write(*stream, Bytes(10, 'x'));
        EXPECT_ASSERTION(stream->Flush(), "fpIOThread != 0");
        stream->abandon();
    }
}

TEST_P(CompressedWrite, CannotBeginWithoutTheFileAndMayTryAgain) {
    const Dictionary dictionary(fName);
    std::filesystem::remove(fName);
    zcmpsFilestr stream(dictionary.stream());
    stream.setMultiThread(setting());
    try {
        stream.setRow0Pos(kRow0);
        FAIL() << "the file is gone";
    } catch (const SystemFileException& error) {
        EXPECT_EQ(error.fCode, 1201);
        EXPECT_EQ(error.fExpression, "fData->pRealFile.Open(GetNameStr(), \"r+b\")");
        EXPECT_EQ(error.fFileName, "Datasource/src/zcmpsFilestr");
        EXPECT_GT(error.fLine, 0);
        EXPECT_TRUE(error.fFlag);
    }
    char byte = 0;
    EXPECT_THROW(stream.Read(&byte, 1), SystemFileException);
    EXPECT_EQ(stream.Close(), 1);
    support::writeBytes(fName, Bytes(kRow0, 0xD5));
    stream.setRow0Pos(kRow0);
    stream.Seek(kRow0, kFromStart);
    write(stream, Bytes(10, 'x'));
    EXPECT_EQ(stream.Close(), 1);
    expectFinished(support::readBytes(fName), Bytes(10, 'x'), {10});
}

TEST_P(CompressedWrite, FileThatCannotBeReopenedIsCompleteAllTheSame) {
    const Dictionary dictionary(fName);
    const auto stream = startedWriter(dictionary, setting());
    write(*stream, Bytes(10, 'x'));
    const std::string kept = path("kept");
    std::filesystem::create_hard_link(fName, kept);
    std::filesystem::remove(fName);
    const std::string failure = "SystemFileException 1201 ORVA_FileStream::Open(GetNameStr(), password, \"rb\")";
    EXPECT_EQ(failureOf([&] { stream->Close(); }), failure);
    EXPECT_EQ(stream->Close(), 1);
    EXPECT_EQ(failureOf([&] { stream->Flush(); }), failure);
    expectFinished(support::readBytes(kept), Bytes(10, 'x'), {10});
}

TEST_P(CompressedWrite, FirstFailureIsFinal) {
    const Dictionary dictionary(fName);
    auto stream = startedWriter(dictionary, setting());
    const auto failing = std::make_unique<Failing>(Call::Write, ENOSPC);
    write(*stream, Bytes(10, 'x'));
    const std::string full = fileError(1002, ENOSPC, fName);
    // The worker hears of it a block later.
    const std::string first = failureOf([&] { stream->Flush(); });
    EXPECT_EQ(first, setting() == 0 ? full : "");
    EXPECT_EQ(failureOf([&] {
                  const Bytes block(kBlock, 'y');
                  stream->Write(block.data(), kBlock);
              }),
              full);
    EXPECT_EQ(failureOf([&] { stream->Flush(); }), full);
    EXPECT_EQ(failureOf([&] { stream->Write("z", 1); }), full);
    EXPECT_EQ(failureOf([&] { stream->Close(); }), full);
    EXPECT_EQ(stream->Close(), 0);
    EXPECT_EQ(failureOf([&] { stream->Write("z", 1); }), full);
    EXPECT_EQ(failureOf([&] { stream->Flush(); }), full);
    EXPECT_NO_THROW(stream.reset());
    EXPECT_EQ(support::readBytes(fName), Bytes(kRow0, 0xD5)) << "nothing that a reader could take for a heading";
}

TEST_P(CompressedWrite, DestructorThrowsOnlyWhatNobodyHeard) {
    const Dictionary dictionary(fName);
    auto stream = startedWriter(dictionary, setting());
    write(*stream, Bytes(10, 'x'));
    {
        const Failing failing(Call::Write, EIO);
        EXPECT_EQ(failureOf([&] { delete stream.release(); }), fileError(1002, EIO, fName));
    }
    // While another exception is in flight it stays silent.
    EXPECT_EQ(failureOf([&] {
                  const Dictionary second(path("second"));
                  const Failing failing(Call::Write, EIO);
                  const auto other = startedWriter(second, setting());
                  write(*other, Bytes(10, 'x'));
                  throw std::runtime_error("first");
              }),
              "other first");
}

TEST_P(CompressedWrite, AbandonedFileHasNoHeading) {
    const Dictionary dictionary(fName);
    const auto stream = startedWriter(dictionary, setting());
    write(*stream, Bytes(10, 'x'));
    stream->Flush();
    write(*stream, Bytes(10, 'y'));
    stream->abandon();
    const Bytes left = support::readBytes(fName);
    EXPECT_EQ(support::slice(left, kRow0, 24), Bytes(24, 0));
    EXPECT_EQ(stream->Close(), 0);
    EXPECT_EQ(stream->Flush(), 1);
    EXPECT_EQ(support::readBytes(fName), left);
    EXPECT_ASSERTION(stream->Write("x", 1), "fData->bClosed == false");
}

}  // namespace
}  // namespace core
