// Writing: choices, cuts, the texts of breaches, and how a writer stands after its end. Reading: what needs no file,
// and how a damaged file or block is refused. Which blocks and rows writes make is modelTest.cpp's; lies of heading and
// index are told in recovery/damageTest.cpp.
#include "coreTest.h"

#include <chrono>
#include <thread>

namespace core {
namespace {

using testing::HasSubstr;

class CompressedWrite : public support::TempDir, public testing::WithParamInterface<int> {
protected:
    std::unique_ptr<zcmpsFilestr> started() const { return startedWriter(fName, GetParam()); }
    const std::string fName = path("rows.orva");
};
INSTANTIATE_TEST_SUITE_P(Roads, CompressedWrite, testing::Values(0, 1, kSeveral), testing::PrintToStringParamName());

TEST_P(CompressedWrite, AChoiceOutOfRangeOrTooLateIsRefusedAndChangesNothing) {
    const std::int32_t best = zcmpsFilestr::bestCompressionLevel();
    const auto stream = freshStream(fName, GetParam());
    const auto refused = [&](std::int64_t length, std::int32_t level, const std::string& why) {
        EXPECT_EQ(failureOf([&] { stream->setBlockLength(length); }),
                  "other the length of a block is 65536 to 4190208, " +
                      (why.empty() ? "not " + std::to_string(length) : why));
        EXPECT_EQ(failureOf([&] { stream->setCompressionLevel(level); }),
                  "other a compression level is 1 to " + std::to_string(best) + ", " +
                      (why.empty() ? "not " + std::to_string(level) : why));
    };
    stream->setBlockLength(70'000);
    refused(65'535, 0, "");
    refused(kBlock + 1, best + 1, "");
    refused(INT64_MAX, -1, "");
    beginRows(*stream);
    refused(kBlock, 2, "and is chosen before the stream writes");
    write(*stream, Bytes(100'000, 'x'));
    refused(0, 0, "and is chosen before the stream writes");
    EXPECT_EQ(stream->Close(), 1);
    expectFinished(support::readBytes(fName), Bytes(100'000, 'x'), {70'000, 30'000});
}

TEST_P(CompressedWrite, CutsABlockThatDeflateCannotFitAtAnyLevel) {
    support::RandomBytes random(22);
    const Bytes rows = joined({random.noise(kBlock), random.rows(5'000)});
    for (const int level : {1, 2, zcmpsFilestr::bestCompressionLevel()}) {
        const auto stream = freshStream(fName, GetParam());
        stream->setCompressionLevel(level);
        beginRows(*stream);
        write(*stream, rows);
        EXPECT_EQ(stream->Close(), 1);
        expectFinished(support::readBytes(fName), rows, {kBlock / 2, kBlock / 2, 5'000});
    }
    EXPECT_TRUE(support::sameBytes(Reader(fName, 2, kRow0).read(rows.size()), rows));
}

// A breach of the caller's, by what it says.
TEST_P(CompressedWrite, BreachesEndInAssertions) {
    EXPECT_ASSERTION(freshStream(fName, 0)->Write("x", 1), "bIsWriting == true");
    const auto stream = started();
    write(*stream, Bytes(10, 'x'));
    EXPECT_ASSERTION(stream->Read(nullptr, 1), "bIsWriting == false");
    EXPECT_ASSERTION(stream->Seek(0, ORVA_StrBaseIO::SeekFromEnd), "seek from end with zcmpsFilestr::Seek");
    EXPECT_ASSERTION((stream->Seek(1, ORVA_StrBaseIO::SeekFromStart), stream->Write("x", 1)),
                     "(req._pos == fpos + sizeof(fBuffer) - availBuffSize) && "
                     "\"Jumped write in zcmpsFilestr::Data::Write\"");
    if (GetParam() == 1) EXPECT_ASSERTION(stream->setMultiThread(0), "fData->fpIOThread == 0");
    EXPECT_EQ(stream->Close(), 1);
    EXPECT_ASSERTION(stream->Write("x", 1), "fData->bClosed == false");
    EXPECT_ASSERTION(stream->setRow0Pos(kRow0), "fData->bClosed == false");
    EXPECT_ASSERTION(stream->readFilePosInfo(kRow0, false), "fData->bClosed == false");
    for (const int withoutWorker : {2, -1}) {
        const auto wrong = startedWriter(path("other"), withoutWorker);
        write(*wrong, Bytes(10, 'x'));
        EXPECT_ASSERTION(wrong->Flush(), "fpIOThread != 0");
        wrong->abandon();
    }
}

// How a writer's life can end, what the calls after it give, and whether a heading stands in the file.
TEST_P(CompressedWrite, StatesAfterTheEnd) {
    const std::string lost =
        "SystemFileException 1201 ORVA_FileStream::Open(GetNameStr(), password, \"rb\") errno 2 " + fName;
    const struct {
        const char* name;
        std::function<void(zcmpsFilestr&)> end;
        std::string ends, flush, close;
        bool finished;
    } cases[] = {
        {"Closed", [](zcmpsFilestr& s) { s.Close(); }, "", "1", "1", true},
        {"Abandoned", [](zcmpsFilestr& s) { s.abandon(); }, "", "1", "0", false},
        {"NotReopened", [&](zcmpsFilestr& s) { std::filesystem::remove(fName), s.Close(); }, lost, lost, "1", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto stream = started();
        write(*stream, Bytes(10, 'x'));
        std::filesystem::remove(path("kept"));
        std::filesystem::create_hard_link(fName, path("kept"));
        EXPECT_EQ(failureOf([&] { c.end(*stream); }), c.ends);
        std::string flushed;
        const std::string thrown = failureOf([&] { flushed = std::to_string(stream->Flush()); });
        EXPECT_EQ(thrown + flushed, c.flush);
        EXPECT_EQ(std::to_string(stream->Close()), c.close);
        EXPECT_NO_THROW(stream.reset());
        const Bytes file = support::readBytes(path("kept"));
        if (c.finished) expectFinished(file, Bytes(10, 'x'), {10});
        EXPECT_EQ(support::slice(file, kRow0, 8) == bytesOf(kRow0), c.finished);
    }
}

// The thread that writes the first block is held there until the stream is being abandoned.
TEST_P(CompressedWrite, AbandonGivesUpTheBlocksThatWait) {
    const auto stream = started();
    std::atomic<bool> abandoning{false};
    std::atomic<int> writes{0};
    const CallHook hook([&](const Step& step, std::uint64_t) {
        if (step.call == Call::Write && ++writes == 1 && GetParam() != 0) {
            while (!abandoning) std::this_thread::yield();
        }
        return Verdict::goOn();
    });
    write(*stream, Bytes(GetParam() == kSeveral ? 4 * kBlock : kBlock, 'x'));
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        abandoning = true;
    });
    stream->abandon();
    release.join();
    EXPECT_LE(writes, 1);
}

TEST_P(CompressedWrite, ABeginningWithoutRoomForABlockIsRefused) {
    const auto stream = freshStream(fName, GetParam());
    for (const std::int64_t pos : {kLastRow0Pos + 1, INT64_MAX}) {
        EXPECT_EQ(failureOf([&] { beginRows(*stream, pos); }), fileError(1002, EFBIG, fName));
        EXPECT_THAT(failureOf([&] { stream->readFilePosInfo(pos, false); }), HasSubstr("cannot begin at offset"));
    }
    EXPECT_EQ(support::readBytes(fName), Bytes(kRow0, 0xD5));
}

TEST_P(CompressedWrite, CannotBeginWithoutTheFileAndMayTryAgain) {
    const auto stream = freshStream(fName, GetParam());
    std::filesystem::remove(fName);
    const std::string failure = failureOf([&] { beginRows(*stream); });
    EXPECT_EQ(failure, "SystemFileException 1201 fData->pRealFile.Open(GetNameStr(), \"r+b\") errno 2 " + fName);
    char byte = 0;
    EXPECT_EQ(failureOf([&] { stream->Read(&byte, 1); }), failure);
    EXPECT_EQ(stream->Close(), 1);
    support::writeBytes(fName, Bytes(kRow0, 0xD5));
    beginRows(*stream);
    write(*stream, Bytes(10, 'x'));
    EXPECT_EQ(stream->Close(), 1);
    expectFinished(support::readBytes(fName), Bytes(10, 'x'), {10});
}

TEST_P(CompressedWrite, DestructorThrowsOnlyWhatNobodyHeard) {
    const auto fails = [&](const char* thrownBefore) {
        const CallHook disk(badPlace(Call::Write, EIO));
        auto stream = started();
        write(*stream, Bytes(10, 'x'));
        if (thrownBefore != nullptr) throw std::runtime_error(thrownBefore);
        delete stream.release();
    };
    EXPECT_EQ(failureOf([&] { fails(nullptr); }), fileError(1002, EIO, fName));
    EXPECT_EQ(failureOf([&] { fails("first"); }), "other first") << "silent while another exception is in flight";
}

class CompressedRead : public ShortBlocks, public testing::WithParamInterface<int> {
protected:
    Reader opened() const { return Reader(fName, GetParam(), kRow0); }
    std::int64_t row(std::size_t block) const { return fLayout.records[block].orginalPos; }
    const Layout fLayout{fFile};
};
INSTANTIATE_TEST_SUITE_P(Roads, CompressedRead, testing::Values(0, 2, kSeveral), testing::PrintToStringParamName());

TEST_P(CompressedRead, StaysInsideTheLoadedBlockWithoutTheFile) {
    const Reader reader = opened();
    reader.readAt(row(5) + 20, 60);  // the last block, behind which nothing is read ahead
    const CallHook broken(badPlace(Call::Read, EIO));
    reader->Seek(-10, ORVA_StrBaseIO::SeekFromCurrent);
    EXPECT_EQ(reader.read(20), support::slice(fBlocks[5], 70, 20));
    EXPECT_EQ(reader.readAt(row(5), 5), support::slice(fBlocks[5], 0, 5));
    EXPECT_EQ(reader.readAt(row(0), 0), Bytes());
    for (const std::int64_t offset : {INT64_MAX, INT64_MAX}) reader->Seek(offset, ORVA_StrBaseIO::SeekFromCurrent);
    EXPECT_EQ(reader->Tell(), INT64_MAX);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(reader->Seek(INT64_MIN, ORVA_StrBaseIO::SeekFromCurrent), 0);
    EXPECT_EQ(reader->Tell(), INT64_MIN);
}

TEST_P(CompressedRead, AFileThatCannotBeOpenedSaysWhyAgainAndCanBeTriedAgain) {
    const Reader reader(fName, GetParam());
    for (const auto& [length, check] : {std::pair(std::size_t{kRow0 + 23}, "ret == sizeof(compressionHeading)"),
                                        std::pair(fFile.size() - 1, "ret == chInfo._size")}) {
        support::writeBytes(fName, support::slice(fFile, 0, length));
        const std::string failure = failureOf([&] { reader->readFilePosInfo(kRow0, false); });
        EXPECT_THAT(failure, testing::AllOf(HasSubstr(check), HasSubstr(fName)));
        EXPECT_EQ(failureOf([&] { reader.read(1); }), failure);
    }
    support::writeBytes(fName, fFile);
    reader->readFilePosInfo(kRow0, false);
    EXPECT_EQ(reader.read(40'000), joined(fBlocks));
}

TEST_P(CompressedRead, DamagedBlockIsRefusedAndTheOthersStayReadable) {
    const std::int64_t length = fLayout.heading._indexPos + 3 * kRecordSize + 20;
    support::writeBytes(fName, support::with(fFile, length, bytesOf(fLayout.records[2].translateSize - 1)));
    const Reader reader = opened();
    EXPECT_THAT(failureOf([&] { reader.readAt(row(0) + 500, 9'000); }),
                testing::AllOf(testing::StartsWith("DamagedFileError"), HasSubstr(fName + "\" is damaged"),
                               HasSubstr("block 2 (logical positions 4001 to 24001, "),
                               HasSubstr("[0: Z_STREAM_END at the last byte]")));
    EXPECT_EQ(reader->Tell(), row(2)) << "behind the last byte delivered";
    EXPECT_EQ(reader.readAt(row(3), 5'700), joined({fBlocks[3], fBlocks[4]}));
    EXPECT_EQ(reader.readAt(row(0), 3'001), joined({fBlocks[0], fBlocks[1]}));
}

TEST_P(CompressedRead, AnAppendBesideTheReaderIsNoDamage) {
    const Reader reader = opened();
    EXPECT_EQ(reader.readAt(row(0), 3'000), fBlocks[0]);
    const Bytes added(50'000, 'y');
    const std::int64_t end = row(5) + 100;
    Reader other(fName, 0, kRow0);
    resume(*other, end);
    write(*other, added);
    for (const bool finished : {false, true}) {
        finished ? other->Close() : other->Flush();
        EXPECT_THAT(failureOf([&] { reader.readAt(row(5), 100); }),
                    testing::AllOf(testing::StartsWith("DamagedFileError"),
                                   HasSubstr("has changed since it was opened"), HasSubstr("block 5 ")));
        EXPECT_EQ(reader.readAt(row(1), 1), fBlocks[1]);
    }
    reader->Close();
    reader->readFilePosInfo(kRow0, false);
    EXPECT_TRUE(support::sameBytes(reader.read(100'000), joined(fBlocks) + added));
}

// Far behind the row-0 position the guess of a look-up cannot be right, so nothing but the gap answers.
TEST_P(CompressedRead, APositionThatNoBlockHoldsIsDamageNotTheEnd) {
    constexpr std::int64_t row0 = 9'000'000;
    makeFile(fName, fBlocks, row0);
    const auto index = static_cast<std::uint64_t>(Layout(support::readBytes(fName), row0).heading._indexPos);
    support::overwriteBytes(fName, index + 5 * kRecordSize + 16, bytesOf(1'500));
    const Reader reader(fName, GetParam(), row0);
    EXPECT_THAT(failureOf([&] { reader.readAt(row0 + 26'000, 1); }), HasSubstr("bInfo.orginalPos != -200"));
    EXPECT_EQ(reader.readAt(row0 + 23'001, 700), fBlocks[3]);
    const std::int64_t last = INT64_MAX - 100;
    support::overwriteBytes(fName, index + 6 * kRecordSize, bytesOf(last));
    EXPECT_EQ(Reader(fName, GetParam(), row0).readAt(last, 1'000), fBlocks[5]);
    std::filesystem::resize_file(fName, row0 + 30);
    EXPECT_THAT(failureOf([&] { reader.readAt(row0 + 10, 1); }), HasSubstr("ret == bInfo.translateSize"));
}

using BlockCache = ShortBlocks;
TEST_F(BlockCache, ABlockThatTheCacheHoldsCostsNoFileCall) {
    const std::vector<filePosRecord> records = Layout(fFile).records;
    const Reader rows(fName, 0, kRow0);
    rows->setBlockCache(2);
    const CallHook hook;
    const auto loads = [&](std::size_t number) {
        const std::uint64_t before = hook.count;
        EXPECT_EQ(rows.readAt(records[number].orginalPos, fBlocks[number].size()), fBlocks[number]);
        return hook.count != before;
    };
    std::vector<bool> loaded;
    for (const std::size_t number : {0u, 2u, 0u, 2u, 0u, 4u, 0u, 2u}) loaded.push_back(loads(number));
    EXPECT_EQ(loaded, (std::vector<bool>{1, 1, 0, 0, 0, 1, 0, 1})) << "the least recently used block goes first";
    rows->readFilePosInfo(kRow0, false);
    EXPECT_TRUE(loads(0)) << "a file that is opened anew";
}

}  // namespace
}  // namespace core
