#include "stream/modelStream.h"
#include "support/fileCalls.h"

#include <orva/blockSize.h>
#include <orva/errtext.h>

#include <gtest/gtest.h>

#include <functional>

namespace {

using support::Bytes;
using support::FileCalls;
using support::ModelStream;
using Call = FileCalls::Call;

constexpr std::size_t kBlock = kBlockSize;
constexpr std::size_t kLarge = 15'000'000;

// Steps of a script.
using Step = std::function<void(ModelStream&)>;
Step at(std::int64_t position) {
    return [=](ModelStream& s) { s.seek(position); };
}
Step end(std::int64_t offset) {
    return [=](ModelStream& s) { s.seek(offset, ORVA_StrBaseIO::SeekFromEnd); };
}
Step rd(std::size_t size) {
    return [=](ModelStream& s) { s.read(size); };
}
Step wr(std::size_t size) {
    return [=](ModelStream& s) { s.write(Bytes(size, static_cast<unsigned char>('A' + s.position() % 23))); };
}
Step flush() {
    return [](ModelStream& s) { EXPECT_EQ(s.stream().Flush(), 1); };
}
Step direct() {
    return [](ModelStream& s) { s.stream().DisablePreReading(); };
}
Step buffered() {
    return [](ModelStream& s) { s.stream().EnablePreReading(); };
}

struct Script {
    const char* name;
    std::size_t fileSize;
    std::vector<Step> steps;
    const char* transfers;  // of the steps, without what the destructor writes
    std::int64_t tell;
    int endOfFile;
};
const Script kScripts[] = {
    {"SmallReadsShareOneFileCall", 1'000, {rd(100), rd(500), rd(400)}, "R 0+4190208", 1'000, 0},
    {"BlockStartsOnASector", kLarge, {at(1'000), rd(10)}, "R 512+4190208", 1'010, 0},
    {"LargeReadIsDirectUpToASectorThenRefills",
     kLarge,
     {rd(10'000'000), rd(4'190'080)},
     "R 0+9999872, R 9999872+4190208",
     14'190'080,
     0},
    {"ReadOfOneBlockIsDirectAndLeavesTheBufferEmpty",
     kLarge,
     {rd(kBlock), at(0), rd(1)},
     "R 0+4190208, R 0+4190208",
     1,
     0},
    {"ReadOfOneByteLessRefills", kLarge, {rd(kBlock - 1), rd(1)}, "R 0+4190208", kBlock, 0},
    {"DirectReadFromAnOddPosition",
     kLarge,
     {at(7), rd(kBlock + 505), rd(1)},
     "R 7+4190713, R 4190720+4190208",
     kBlock + 513,
     0},
    {"ReadAcrossTheBlocksEnd", kLarge, {rd(1), at(4'190'200), rd(100)}, "R 0+4190208, R 4190208+4190208", 4'190'300, 0},
    {"DirectReadLeavesTheBufferedRange",
     kLarge,
     {rd(1), at(5'000'000), rd(5'000'384), at(5), rd(9)},
     "R 0+4190208, R 5000000+5000384",
     14,
     0},
    {"EndOffASector", 1'000, {rd(2'000), rd(1)}, "R 0+4190208, R 512+4190208", 1'000, 0},
    {"EndOnASector", 1'024, {rd(2'000), rd(1)}, "R 0+4190208, R 1024+4190208", 1'024, 1},
    {"EmptyFile", 0, {rd(1)}, "R 0+4190208", 0, 1},
    {"FarPastTheEnd", 1'000, {at(5'000), rd(1)}, "R 4608+4190208", 5'000, 1},
    {"SeekClearsEndOfFile", 1'000, {at(5'000), rd(1), at(5'000)}, "R 4608+4190208", 5'000, 0},
    {"WriteAndBufferedReadLeaveEndOfFile",
     1'024,
     {rd(1'024), rd(1), wr(9), flush()},
     "R 0+4190208, R 1024+4190208, W 1024+9",
     1'033,
     1},
    {"DirectReadPastTheEnd", 1'000, {at(1'000), rd(kBlock)}, "R 1000+4189720, R 512+4190208", 1'000, 0},
    {"SizeZeroDoesNothing", 1'000, {rd(0), wr(0)}, "", 0, 0},

    {"ReadsItsOwnBytesFromTheBuffer", 0, {wr(100), at(0), rd(100)}, "", 100, 0},
    {"RefillFlushesFirst", kLarge, {at(1'000'000), wr(100), at(0), rd(10)}, "W 1000000+100, R 0+4190208", 10, 0},
    {"DirectReadFlushesFirst",
     kLarge,
     {at(1'000'000), wr(100), at(0), rd(5'000'000)},
     "W 1000000+100, R 0+4999680, R 4999680+4190208",
     5'000'000,
     0},
    {"UnbufferedReadIsExact",
     kLarge,
     {rd(3), direct(), at(7), rd(10), buffered(), at(900), rd(10)},
     "R 0+4190208, R 7+10",
     910,
     0},
    {"UnbufferedReadFlushesFirst",
     1'000,
     {direct(), wr(10), at(4), rd(10), at(1'000), rd(1)},
     "W 0+10, R 4+10, R 1000+1",
     1'000,
     1},

    {"WriteAmongTheValidBytesOverlaysAndGrows",
     0,
     {wr(100), at(50), wr(100), at(0), rd(150), flush()},
     "W 0+150",
     150,
     0},
    {"WriteAtTheValidEndGoesOn", 0, {wr(100), wr(50), flush(), flush()}, "W 0+150", 150, 0},
    {"WriteOneBeyondTheValidEndStartsAnew", 0, {wr(100), at(101), wr(9), flush()}, "W 0+100, W 101+9", 110, 0},
    {"WriteBeforeTheBufferStartsAnew",
     1'000,
     {at(500), wr(10), at(499), wr(1), at(500), rd(5)},
     "W 500+10, W 499+1, R 0+4190208",
     505,
     0},
    {"WriteIntoAReadBlockWritesAllOfIt", 1'000, {rd(10), wr(5), flush()}, "R 0+4190208, W 0+1000", 15, 0},
    {"WriteBehindAReadBlockGrowsIt", 1'000, {rd(1'000), wr(5), flush()}, "R 0+4190208, W 0+1005", 1'005, 0},
    {"WriteOfOneBlockPassesAnEmptyBuffer", 0, {wr(kBlock), at(0), rd(1)}, "W 0+4190208, R 0+4190208", 1, 0},
    {"WriteOfOneByteLessWaits", 0, {wr(kBlock - 1)}, "", kBlock - 1, 0},
    {"FillingTheBufferFlushesAtOnceAndKeepsIt", 0, {wr(kBlock - 1), wr(1), at(5), rd(9)}, "W 0+4190208", 14, 0},
    {"WriteBehindAFullBufferStartsAnew",
     0,
     {wr(kBlock - 1), wr(1), wr(7), flush()},
     "W 0+4190208, W 4190208+7",
     kBlock + 7,
     0},
    {"WritePastTheBuffersEndFillsItAndStartsAnew",
     0,
     {wr(100), wr(kBlock), flush()},
     "W 0+4190208, W 4190208+100",
     kBlock + 100,
     0},
    {"WritePastTheBuffersEndSendsALargeRestDirect",
     0,
     {wr(100), wr(2 * kBlock), at(50), rd(9)},
     "W 0+4190208, W 4190208+4190308",
     59,
     0},
    {"LargeWriteElsewhereFlushesAndKeepsTheBuffer",
     kLarge,
     {wr(100), at(9'000'000), wr(kBlock), at(50), rd(9)},
     "W 0+100, W 9000000+4190208",
     59,
     0},
    {"DirectWriteOverTheBufferDropsIt",
     kLarge,
     {at(1'000), wr(100), at(0), wr(kBlock), at(1'000), rd(100)},
     "W 1000+100, W 0+4190208, R 512+4190208",
     1'100,
     0},
    {"DirectWriteUpToTheBufferKeepsIt",
     kLarge,
     {at(kBlock), wr(100), at(0), wr(kBlock), at(kBlock), rd(100)},
     "W 4190208+100, W 0+4190208",
     kBlock + 100,
     0},
    {"DirectWriteOverItsFirstByteDropsIt",
     kLarge,
     {at(kBlock), wr(100), at(1), wr(kBlock), at(kBlock), wr(1), at(kBlock), rd(3)},
     "W 4190208+100, W 1+4190208, W 4190208+1, R 4190208+4190208",
     kBlock + 3,
     0},
    {"WriteFarPastTheEndLeavesZeros", 10, {at(3'000), wr(5), at(0), rd(9'000)}, "W 3000+5, R 0+4190208", 3'005, 0},

    {"EndCountsPendingBytes", 100, {at(100), wr(100), end(0)}, "", 200, 0},
    {"EndBehindACleanBuffer", 1'000, {rd(1), end(-10)}, "R 0+4190208", 990, 0},
    {"EndAboveThePendingBytes", kLarge, {wr(100), end(-1), rd(2)}, "W 0+100, R 14999552+4190208", kLarge, 0},
};

class StreamBuffer : public support::TempDir, public testing::WithParamInterface<Script> {};

TEST_P(StreamBuffer, BytesFileCallsPositionAndEnd) {
    const Script& script = GetParam();
    support::RandomBytes random(script.fileSize + 17);
    Bytes content = random.noise(script.fileSize);
    const std::string file = made("data", content);
    FileCalls calls;
    {
        ModelStream s(file, "r+b", content);
        for (const Step& step : script.steps) step(s);
        EXPECT_EQ(calls.transfers(), script.transfers);
        EXPECT_EQ(s.stream().Tell(), script.tell);
        EXPECT_EQ(s.stream().EndOfFile(), script.endOfFile);
    }
    EXPECT_TRUE(support::sameBytes(support::readBytes(file), content));
}
INSTANTIATE_TEST_SUITE_P(Scripts, StreamBuffer, testing::ValuesIn(kScripts),
                         [](const auto& row) { return row.param.name; });

class StreamBufferFailure : public support::TempDir {
protected:
    StreamBufferFailure() : fFile(made("data", fContent)) {}
    Bytes fContent = support::RandomBytes(5).noise(kLarge);
    std::string fFile;
    FileCalls fCalls;
};

TEST_F(StreamBufferFailure, FailedFlushKeepsTheBytesPending) {
    ModelStream s(fFile, "r+b", fContent);
    s.write(Bytes(100, 'x'));
    fCalls.fail(Call::Write, ENOSPC, 1, 3);
    EXPECT_THROW(s.stream().Flush(), FileError);
    EXPECT_EQ(s.stream().Good(), 0);
    s.seek(5'000'000);
    EXPECT_THROW(s.stream().Write("y", 1), FileError) << "has to make room in the buffer";
    EXPECT_THROW(s.read(1), FileError);
    EXPECT_EQ(s.stream().Tell(), 5'000'000);
    fCalls.transfers();
    s.read(1);
    EXPECT_EQ(fCalls.transfers(), "W 0+100, R 4999680+4190208");
    EXPECT_EQ(s.stream().Good(), 0);
    s.stream().Clear();
    EXPECT_EQ(s.stream().Good(), 1);
}

TEST_F(StreamBufferFailure, FailedRefillLeavesNoBytesOfTwoPlaces) {
    ModelStream s(fFile, "r+b", fContent);
    s.read(10);
    s.seek(4'190'200);
    Bytes bytes(100);
    fCalls.fail(Call::Read, EIO);
    EXPECT_THROW(s.stream().Read(bytes.data(), 100), FileError);
    EXPECT_EQ(s.stream().Tell(), 4'190'208) << "bytes from the buffer stay moved";
    s.seek(0);
    s.read(100);
    s.seek(4'190'200);
    s.read(100);
}

TEST_F(StreamBufferFailure, FailedDirectWriteServesNoOldBytes) {
    ModelStream s(fFile, "r+b", fContent);
    s.seek(1'000);
    s.write(Bytes(100, 'x'));
    s.stream().Flush();
    s.seek(0);
    fCalls.fail(Call::Write, EIO);
    EXPECT_THROW(s.stream().Write(fContent.data(), kBlockSize), FileError);
    fCalls.transfers();
    s.seek(1'000);
    s.read(100);
    EXPECT_EQ(fCalls.transfers(), "R 512+4190208");
}

TEST_F(StreamBufferFailure, ClearAndResetDropsPendingBytesForGood) {
    {
        ModelStream s(fFile, "r+b", fContent);
        s.stream().Write("dropped", 7);
        s.stream().ClearAndReset();
        s.read(100);
        EXPECT_EQ(s.stream().EndOfFile(), 0);
    }
    EXPECT_EQ(fCalls.transfers(), "R 0+4190208") << "nothing is written, not even what was read since";
}

}  // namespace
