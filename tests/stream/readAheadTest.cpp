// The hand-over of readAheadSlot.h, rule by rule, and what a stream makes of it.
#include "multiThreadForFilestr.h"
#include "readAheadSlot.h"
#include "stream/modelStream.h"
#include "support/fileCalls.h"

#include <orva/blockSize.h>
#include <orva/errtext.h>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cerrno>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>

namespace {

using orva::readAheadSlot;
using support::Bytes;
using support::FileCalls;
using support::ModelStream;
using Call = FileCalls::Call;

constexpr std::int64_t kBlock = kBlockSize;

// Both sides on one thread, which no rule forbids: each turn has ended before the other begins.
struct Slot : readAheadSlot {
    support::Watchdog watchdog;

    void ask(std::int64_t next) { request(*this).readAhead(next); }
    std::int32_t readsAhead(std::uint32_t count) {
        return step([count](std::int64_t) { return count; });
    }
    bool hit(std::int64_t position) { return request(*this).hits(position); }
};

TEST(ReadAheadSlot, R2_EachTurnEndsInItsPostAlsoWhenItThrows) {
    Slot slot;
    for (int i = 0; i < 3; ++i) {
        slot.ask(100);
        EXPECT_EQ(slot.step([](std::int64_t) -> std::uint32_t { throw std::runtime_error("read"); }), 0);
        EXPECT_THROW(
            {
                const readAheadSlot::request turn(slot);
                throw std::runtime_error("miss");
            },
            std::runtime_error);
    }
    slot.ask(100);
    slot.readsAhead(9);
    EXPECT_TRUE(slot.hit(100));
}

TEST(ReadAheadSlot, R3_RequestWithoutReadAheadForgetsTheBlock) {
    Slot slot;
    EXPECT_FALSE(slot.hit(0)) << "nothing read ahead at first";
    slot.ask(100);
    slot.readsAhead(9);
    EXPECT_TRUE(slot.hit(100));
    EXPECT_FALSE(slot.hit(100));
    EXPECT_EQ(slot.stCurSize, 0U);
}

TEST(ReadAheadSlot, R4_FailedReadAheadIsNone) {
    Slot slot;
    slot.ask(100);
    slot.step([](std::int64_t) -> std::uint32_t { throw std::runtime_error("read"); });
    EXPECT_FALSE(slot.hit(100));
}

TEST(ReadAheadSlot, R5_StopIsSeenAtTheNextWaitEvenBeforeABlock) {
    Slot slot;
    slot.ask(100);
    slot.requestStop();
    EXPECT_EQ(slot.step([](std::int64_t) -> std::uint32_t { throw std::logic_error("reads"); }), 1);
}

struct WrittenCase {
    const char* name;
    std::int64_t begin, end;
    std::uint32_t count;  // bytes that were read ahead at 1,000, of blocks of 100
    bool hit;
};
constexpr WrittenCase kWritten[] = {
    {"UpToTheBlock", 900, 1'000, 100, true},
    {"ItsFirstByte", 900, 1'001, 100, false},
    {"InTheMiddle", 1'050, 1'051, 100, false},
    {"ItsLastByte", 1'099, 1'200, 100, false},
    {"BehindTheBlock", 1'100, 1'200, 100, true},
    {"AllOfIt", 0, 9'000, 100, false},
    {"BehindTheEndOfAShortBlock", 5'000, 5'001, 30, false},
    {"BehindAnEmptyBlock", 5'000, 5'001, 0, false},
    {"BeforeAShortBlock", 900, 1'000, 30, true},
};

TEST(ReadAheadSlot, R6_BlockWrittenOverSinceIsNoHit) {
    for (const WrittenCase& c : kWritten) {
        for (const bool whileRead : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (whileRead ? ", while it is read" : ", afterwards"));
            Slot slot;
            slot.ask(1'000);
            slot.step([&](std::int64_t) {
                if (whileRead) slot.noteWritten(c.begin, c.end, 100);
                return c.count;
            });
            if (!whileRead) slot.noteWritten(c.begin, c.end, 100);
            {
                readAheadSlot::request turn(slot);
                EXPECT_EQ(turn.hits(1'000, 100), c.hit);
                turn.readAhead(1'000);
            }
            slot.readsAhead(c.count);
            EXPECT_TRUE(readAheadSlot::request(slot).hits(1'000, 100)) << "what was read since is good again";
        }
    }
}

class ReadAhead : public support::TempDir {
protected:
    Bytes noise(std::int64_t size) { return support::RandomBytes(11).noise(static_cast<std::size_t>(size)); }
    support::Watchdog fWatchdog;
    FileCalls fCalls;
};

struct SequenceCase {
    const char* name;
    std::int64_t fileSize;
    std::size_t readSize;
    int readAheads;  // that the last request has set off
    const char* transfers;
    int endOfFile;
};
const SequenceCase kSequences[] = {
    {"EveryBlockButTheFirstIsAHit", 3 * kBlock + 1'000, 1'000'000, 5,
     "R 0+4190208, r 4190208+4190208, r 8380416+4190208, r 12570624+4190208, r 16760832+4190208, R "
     "12571136+4190208, r 16761344+4190208",
     0},
    {"LargeReadsPassTheBufferToo", 2 * kBlock + 512, 10'000'000, 4,
     "R 0+4190208, r 4190208+4190208, r 8380416+4190208, r 12570624+4190208, R 8380928+4190208, r 12571136+4190208", 1},
    {"ShortFile", 1'000, 2'000, 2, "R 0+4190208, r 4190208+4190208, R 512+4190208, r 4190720+4190208", 0},
    {"EndOnASector", 1'024, 2'000, 2, "R 0+4190208, r 4190208+4190208, R 1024+4190208, r 4191232+4190208", 1},
};

class ReadAheadSequence : public ReadAhead, public testing::WithParamInterface<SequenceCase> {};

TEST_P(ReadAheadSequence, ToTheEndOfTheFile) {
    const SequenceCase& c = GetParam();
    Bytes content = noise(c.fileSize);
    ModelStream s(made("data", content), "r", content);
    s.stream().EnableMultiThreadReading();
    s.stream().EnableMultiThreadReading();
    while (s.position() < c.fileSize) s.read(c.readSize);
    fCalls.awaitReads(c.readAheads);
    EXPECT_EQ(fCalls.transfers(), c.transfers);
    EXPECT_EQ(s.stream().EndOfFile(), c.endOfFile);
}
INSTANTIATE_TEST_SUITE_P(Files, ReadAheadSequence, testing::ValuesIn(kSequences),
                         [](const auto& row) { return row.param.name; });

// Two streams, each on a thread of its own, at different places: what one reads ahead never reaches the other's buffer
// half-done or at the wrong place.
TEST_F(ReadAhead, R1_StreamsOnTwoThreadsShareOneWorkerByTurns) {
    Bytes content = noise(3 * kBlock);
    ModelStream first(made("data", content), "r", content);
    first.stream().EnableMultiThreadReading();
    ModelStream second(first);
    second.stream().EnableMultiThreadReading();
    const auto readAll = [](ModelStream& s, std::size_t size) {
        for (int round = 0; round < 3; ++round) {
            for (s.seek(0); s.position() < 3 * kBlock;) s.read(size);
        }
    };
    std::thread other(readAll, std::ref(second), 777'777);
    readAll(first, 1'000'000);
    other.join();
}

TEST_F(ReadAhead, R3_FailedMissGivesTheTurnBackAndForgetsTheBlock) {
    Bytes content = noise(3 * kBlock);
    ModelStream s(made("data", content), "r", content);
    s.stream().EnableMultiThreadReading();
    s.read(1);
    fCalls.awaitReads(1);
    s.seek(2 * kBlock);
    fCalls.fail(Call::Read, EIO);
    EXPECT_THROW(s.read(1), FileError);
    EXPECT_EQ(s.position(), s.stream().Tell());
    fCalls.transfers();
    s.seek(kBlock);
    s.read(10);
    fCalls.awaitReads(2);
    EXPECT_EQ(fCalls.transfers(), "R 4190208+4190208, r 8380416+4190208");
}

TEST_F(ReadAhead, R4_FailedReadAheadIsMetByTheCallersOwnRead) {
    for (const bool stillFails : {false, true}) {
        SCOPED_TRACE(stillFails);
        FileCalls calls;
        Bytes content = noise(3 * kBlock);
        ModelStream s(made("data", content), "r", content);
        s.stream().EnableMultiThreadReading();
        calls.fail(Call::Read, EIO, 1, 1, FileCalls::Side::Other);
        s.read(10);
        calls.awaitReads(1);
        s.seek(kBlock);
        calls.transfers();
        if (stillFails) {
            calls.fail(Call::Read, ENXIO);
            try {
                s.stream().Read(content.data(), 1);
                ADD_FAILURE() << "nothing thrown";
            } catch (const FileError& error) {
                EXPECT_EQ(error.messageCode(), 1003);
                EXPECT_EQ(error.code().value(), ENXIO);
            }
            calls.transfers();
        }
        s.read(10);
        calls.awaitReads(2);
        EXPECT_EQ(calls.transfers(), "R 4190208+4190208, r 8380416+4190208");
    }
}

TEST_F(ReadAhead, R5_WorkerEndsInEveryState) {
    const std::string name = made("data", noise(3 * kBlock));
    ExtNameStr file;
    file.SetGeneric(name);
    ORVA_File opened;
    ASSERT_TRUE(opened.Open(file, "r"));
    Bytes block(kBlockSize);
    using Worker = multiThreadForFilestr;
    const auto started = [](Worker& w) {
        w.initThreads(true);
        w.startThreads();
    };
    const std::pair<const char*, std::function<void(Worker&, FileCalls&)>> states[] = {
        {"constructed", [](Worker&, FileCalls&) {}},
        {"initialised", [](Worker& w, FileCalls&) { w.initThreads(true); }},
        {"idle", [&](Worker& w, FileCalls&) { started(w); }},
        {"block read ahead",
         [&](Worker& w, FileCalls& calls) {
             started(w);
             w.getBlock(block.data(), kBlockSize, 0);
             calls.awaitReads(1);
         }},
        {"block asked for",
         [&](Worker& w, FileCalls&) {
             started(w);
             w.getBlock(block.data(), kBlockSize, 0);
         }},
        {"read-ahead failed",
         [&](Worker& w, FileCalls& calls) {
             started(w);
             calls.fail(Call::Read, EIO, 1, 1, FileCalls::Side::Other);
             w.getBlock(block.data(), kBlockSize, 0);
             calls.awaitReads(1);
         }},
        {"miss failed",
         [&](Worker& w, FileCalls& calls) {
             started(w);
             calls.fail(Call::Read, EIO);
             EXPECT_THROW(w.getBlock(block.data(), kBlockSize, 0), FileError);
         }},
        {"ended before",
         [&](Worker& w, FileCalls&) {
             started(w);
             EXPECT_EQ(w.getBlock(nullptr, 0, 0), 0U);
         }},
    };
    for (const auto& [state, reach] : states) {
        SCOPED_TRACE(state);
        FileCalls calls;
        auto worker = std::make_unique<Worker>(&opened, kBlockSize, true);
        reach(*worker, calls);
        worker.reset();
        EXPECT_TRUE(opened.IsOpen());
    }
}

TEST_F(ReadAhead, R5_StreamEndsAfterTheReadUnderWayAndThenItsFile) {
    Bytes content = noise(2 * kBlock);
    std::optional<ModelStream> s(std::in_place, made("data", content), "r", content);
    s->stream().EnableMultiThreadReading();
    fCalls.holdReads();
    s->read(1);
    fCalls.awaitHeld();
    std::thread ender([&] { s.reset(); });
    EXPECT_EQ(fCalls.count(Call::Close), 0);
    fCalls.release();
    ender.join();
    EXPECT_EQ(fCalls.transfers(), "R 0+4190208, r 4190208+4190208");
    EXPECT_GT(fCalls.count(Call::Close), 0);
}

struct OverwriteCase {
    const char* name;
    std::int64_t position;
    std::size_t size;
    bool flushes;  // else the bytes are still pending at the next read
    bool hit;
};
const OverwriteCase kOverwrites[] = {
    {"PendingBytesInTheBlock", kBlock + 100, 10, false, false},
    {"FlushedBytesInTheBlock", kBlock + 100, 10, true, false},
    {"FlushThatReachesItsFirstByte", kBlock - 5, 6, false, false},
    {"FlushUpToIt", kBlock - 5, 5, false, true},
    {"DirectWriteFromBefore", 100, kBlockSize + 10, true, false},
    {"DirectWriteBehindIt", 2 * kBlock, kBlockSize, true, true},
};

TEST_F(ReadAhead, R6_StreamNeverReadsBackWhatItWroteOver) {
    for (const OverwriteCase& c : kOverwrites) {
        SCOPED_TRACE(c.name);
        FileCalls calls;
        Bytes content = noise(3 * kBlock);
        ModelStream s(made("data", content), "r+", content);
        s.stream().EnableMultiThreadReading();
        s.seek(512);
        s.read(1);
        s.seek(0);
        s.read(1);
        calls.awaitReads(2);
        s.seek(c.position);
        s.write(Bytes(c.size, 'X'));
        if (c.flushes) s.stream().Flush();
        s.seek(kBlock);
        s.read(kBlockSize);
        calls.awaitReads(3);
        const std::string transfers = calls.transfers();
        EXPECT_EQ(transfers.find("R 4190208+4190208") == std::string::npos, c.hit) << transfers;
    }
}

TEST_F(ReadAhead, R6_FileThatGrewBehindItsEndIsReadAgain) {
    Bytes content = noise(1'000);
    ModelStream s(made("data", content), "r+", content);
    s.stream().EnableMultiThreadReading();
    s.read(1);
    fCalls.awaitReads(1);
    s.seek(3 * kBlock);
    s.write(Bytes(10, 'X'));
    s.seek(kBlock);
    s.read(100);
}

TEST_F(ReadAhead, JumpIsAMissAndGoesOnFromThere) {
    Bytes content = noise(4 * kBlock);
    ModelStream s(made("data", content), "r", content);
    s.stream().EnableMultiThreadReading();
    s.read(1);
    s.seek(2 * kBlock + 700);
    s.read(1);
    s.seek(kBlock + 2 * kBlock + 600);
    s.read(1);
    fCalls.awaitReads(3);
    EXPECT_EQ(fCalls.transfers(),
              "R 0+4190208, r 4190208+4190208, R 8380928+4190208, r 12571136+4190208, r 16761344+4190208");
}

TEST_F(ReadAhead, SwitchedOffItStaysIdleAndGoesOnWhenSwitchedOn) {
    Bytes content = noise(3 * kBlock);
    ModelStream s(made("data", content), "r", content);
    s.stream().EnableMultiThreadReading();
    s.read(1);
    fCalls.awaitReads(1);
    fCalls.transfers();
    s.stream().DisableMultiThreadReading();
    s.seek(2 * kBlock);
    s.read(1);
    s.stream().DisablePreReading();
    s.stream().EnableMultiThreadReading();
    s.read(2);
    EXPECT_EQ(fCalls.transfers(), "R 8380416+4190208, R 8380417+2");
    s.stream().EnablePreReading();
    s.seek(kBlock);
    s.read(1);
    fCalls.awaitReads(2);
    EXPECT_EQ(fCalls.transfers(), "r 8380416+4190208");
}

TEST_F(ReadAhead, CopyKeepsTheWorkerOfItsSource) {
    Bytes content = noise(3 * kBlock);
    std::optional<ModelStream> source(std::in_place, made("data", content), "r", content);
    source->stream().EnableMultiThreadReading();
    source->read(1);
    fCalls.awaitReads(1);
    ModelStream copy(*source);
    source.reset();
    copy.stream().EnableMultiThreadReading();
    copy.seek(kBlock);
    copy.read(1);
    fCalls.awaitReads(2);
    EXPECT_EQ(fCalls.transfers(), "R 0+4190208, r 4190208+4190208, r 8380416+4190208") << "a hit for the copy";
}

TEST_F(ReadAhead, FollowsTheStreamToItsNextFile) {
    Bytes content = noise(2 * kBlock);
    const std::string name = made("data", content);
    ORVA_FileStream stream(made("first", Bytes(10, 'f')).c_str(), "r");
    stream.EnableMultiThreadReading();
    Bytes bytes(2 * kBlockSize);
    EXPECT_EQ(stream.Read(bytes.data(), 20), 10U);
    ASSERT_EQ(stream.Open(name.c_str(), "r"), 1);
    fCalls.transfers();
    EXPECT_EQ(stream.Read(bytes.data(), 2 * kBlockSize), 2 * kBlockSize);
    EXPECT_TRUE(support::sameBytes(bytes, content));
    // What it reads ahead after that may be under way.
    EXPECT_EQ(fCalls.transfers().substr(0, 30), "R 0+4190208, r 4190208+4190208") << "on a thread again";
}

// A file in memory reaches as far out as there are positions.
TEST_F(ReadAhead, SurvivesTheLastPositions) {
    const int memory = memfd_create("orva", 0);
    ASSERT_GE(memory, 0);
    ORVA_FileStream stream(("/proc/self/fd/" + std::to_string(memory)).c_str(), "r+");
    stream.EnableMultiThreadReading();
    char byte = 0;
    EXPECT_EQ(stream.Seek(std::numeric_limits<std::int64_t>::max() - 3 * kBlock / 2, ORVA_StrBaseIO::SeekFromStart), 0);
    EXPECT_EQ(stream.Read(&byte, 1), 0U);
    EXPECT_EQ(stream.EndOfFile(), 1);
    stream.ClearAndReset();
    EXPECT_EQ(stream.Write("x", 1), 1U);
    EXPECT_EQ(stream.Close(), 1);
    ::close(memory);
}

TEST_F(ReadAhead, WritingIsRefused) {
    ORVA_File file;
    multiThreadForFilestr worker(&file, kBlockSize, false);
    EXPECT_DEATH(worker.putBlock("x", 1, 0), ": 0\n");
    EXPECT_DEATH(worker.writeLoopStep(), ": 0\n");
    EXPECT_TRUE(worker.noOperation());
}

}  // namespace
