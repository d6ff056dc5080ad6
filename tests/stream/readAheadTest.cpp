// The hand-over of readAheadSlot.h, rule by rule, and what a stream makes of it.
#include "readAheadSlot.h"
#include "stream/streamScript.h"

#include <orva/blockSize.h>

namespace {

using orva::readAheadSlot;
using support::Bytes;

constexpr std::int64_t kBlock = kBlockSize;

// Both sides on one thread, which no rule forbids: each turn has ended before the other begins.
TEST(ReadAheadSlot, R2_R3_R4_R5_EveryTurnGivesTheTokenBackAndAFailedOneForgetsTheBlock) {
    readAheadSlot slot;
    const auto fails = [](std::int64_t) -> std::uint32_t { throw std::runtime_error("read"); };
    const auto hit = [&] { return readAheadSlot::request(slot).hits(100); };
    EXPECT_FALSE(hit()) << "nothing is read ahead";
    readAheadSlot::request(slot).readAhead(100);
    EXPECT_EQ(slot.step([](std::int64_t) { return 9U; }), 0);
    EXPECT_TRUE(hit());
    EXPECT_FALSE(hit()) << "R3: the request before set off no read-ahead";
    readAheadSlot::request(slot).readAhead(100);
    EXPECT_EQ(slot.step(fails), 0);
    EXPECT_FALSE(hit()) << "R4";
    readAheadSlot::request(slot).readAhead(100);
    slot.requestStop();
    EXPECT_EQ(slot.step(fails), 1) << "R5: before the block that was asked for";
}

struct WrittenCase {
    std::int64_t begin, end;
    std::uint32_t count;  // bytes that were read ahead at 1,000, of blocks of 100
    bool hit;
};
constexpr WrittenCase kWritten[] = {
    {900, 1'000, 100, true}, {900, 1'001, 100, false},  {1'099, 1'200, 100, false}, {1'100, 1'200, 100, true},
    {0, 9'000, 100, false},  {5'000, 5'001, 30, false}, {5'000, 5'001, 0, false},   {900, 1'000, 30, true},
};

TEST(ReadAheadSlot, R6_BlockWrittenOverSinceIsNoHit) {
    readAheadSlot slot;
    for (const WrittenCase& c : kWritten) {
        for (const bool whileRead : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.begin << " to " << c.end << ", of " << c.count << ' ' << whileRead);
            const auto write = [&] { slot.noteWritten(c.begin, c.end, 100); };
            readAheadSlot::request(slot).readAhead(1'000);
            slot.step([&](std::int64_t) { return whileRead ? write(), c.count : c.count; });
            if (!whileRead) write();
            EXPECT_EQ(readAheadSlot::request(slot).hits(1'000, 100), c.hit);
        }
    }
}

const support::Script kScripts[] = {
    {"EveryBlockButTheFirstIsAHit", 2 * kBlock + 512, "t1 t1 r4000000 r10000000 a4",
     "R 0, r 4190208, r 8380416, r@12570624, R@8380928, r@12571136, end"},
    {"JumpIsAMissAndGoesOnFromThere", 4 * kBlock, "t1 r1 s8381116 r1 s12571300 r1 a3",
     "R 0, r 4190208, R@8380928, r 12571136, r@16761344"},
    {"SwitchedOffItStaysIdleAndGoesOnWhenOn", 3 * kBlock, "t1 r1 a1 t0 s8380416 r1 p0 t1 r2 p1 s4190208 r1 a2",
     "R 0, r 4190208, R 8380416, R@8380417+2, r@8380416"},
    {"SecondOpenMakesANewWorker", 2 * kBlock, "t1 r1 a1 o r1 a2", "R 0, r 4190208, R 0, r 4190208"},
    {"CopyKeepsTheWorker", 2 * kBlock, "t1 r1 a1 k s4190208 r1 a2", "R 0, r 4190208, r 8380416"},
    {"R4_FailedReadAheadIsMetByTheCaller", 3 * kBlock, "t1 A r1 a1 g1 s4190208 R r9 g0 G g1 s0 r9 a2",
     "R 0, r 4190208, R@4190208, R@0, r 4190208"},
    {"R5_EndsIdle", 1'000, "t1", ""},
    {"R6_PendingBytesInTheBlock", 3 * kBlock, "t1 r1 a1 s4190308 w9 s4190208 r4190208 a2",
     "R 0, r 4190208, W@4190308+9, R@4190208, r 8380416"},
    {"R6_FileThatGrewBehindItsEnd", 1'000, "t1 r1 a1 s12570624 w9 s4190208 r100 a2",
     "R 0, r@4190208, W@12570624+9, R@4190208, r 8380416"},
};

using ReadAhead = support::ScriptTest;

TEST_F(ReadAhead, BytesAndFileCallsOfBothSides) {
    for (const support::Script& script : kScripts) check(script);
}

// What one reads ahead never reaches the other's buffer half-done or at the wrong place.
TEST_F(ReadAhead, R1_CopiesOnTwoThreadsShareOneWorkerByTurns) {
    open(8 * kBlock);
    run("t1");
    support::ModelStream copy(*model);
    const auto readAll = [](support::ModelStream& stream, std::size_t size) {
        while (stream.position() < 8 * kBlock) stream.read(size);
    };
    const std::jthread other(readAll, std::ref(copy), 777'777);
    readAll(*model, 1'000'000);
}

TEST_F(ReadAhead, ForkedChildLeavesTheFileAlone) {
    open(100);
    const Bytes before = content;
    run("t1 r10 w3");
    EXPECT_EXIT(::alarm(30); const auto closed = s().Close(); model.reset();
                _exit(closed), testing::ExitedWithCode(0), "");
    EXPECT_EQ(support::readBytes(path("data")), before);
    close();
}

}  // namespace
