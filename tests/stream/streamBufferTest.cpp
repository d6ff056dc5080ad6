// The buffer between a stream and its file: what each step asks of the file, and that no byte is lost or stale.
#include "stream/streamScript.h"

namespace {

constexpr std::size_t kLarge = 15'000'000;

const support::Script kScripts[] = {
    {"SmallReadsShareOneFileCall", 1'000, "r100 r500 r400 r0", "R 0"},
    {"ReadOfOneBlockLeavesTheBufferEmpty", kLarge, "r4190208 s0 r1", "R 0, R@0"},
    {"DirectReadFromAnOddPosition", kLarge, "s7 r4190713 r1", "R@7+4190713, R 4190720"},
    {"DirectReadKeepsTheBuffer", kLarge, "r1 s5000000 r5000384 s5 r9", "R 0, R@5000000+5000384"},
    {"EndOffASector", 1'000, "r2000 r1", "R 0, R@512"},
    {"EndOnASector", 1'024, "r2000 r1", "R 0, R 1024, end"},
    {"EndBeforeACleanBuffer", 1'000, "s5000 r1 e-10", "R@4608"},
    {"WriteLeavesTheEnd", 1'024, "r1024 r1 w9 f", "R 0, R 1024, W 1024+9, end"},
    {"ExactReads", 1'000, "r3 w2 p0 r10 p1 s900 r10 p0 s1000 r1", "R 0, W@0+1000, R@5+10, R@1000+1, end"},
    {"OwnBytesComeFromTheBuffer", 0, "w0 w100 s0 r100", ""},
    {"DirectReadFlushesFirst", kLarge, "s1000000 w100 s0 r4190208", "W@1000000+100, R@0"},
    {"WriteAmongTheValidBytes", 0, "w100 s50 w100 s0 r150 f f", "W 0+150"},
    {"WriteBeyondTheValidEnd", 0, "w100 s101 w9 f", "W 0+100, W@101+9"},
    {"WriteIntoAReadBlockWritesAllOfIt", 1'000, "r10 w5 f", "R 0, W@0+1000"},
    {"WriteOfOneBlockIsDirect", 0, "w4190208 s0 r1", "W 0, R@0"},
    {"FullBufferIsFlushedAtOnce", 0, "w4190207 w1 s5 r9 s4190208 w7 f", "W 0, W 4190208+7"},
    {"LargeRestIsDirect", 0, "w100 w8380416 s50 r9", "W 0, W 4190208+4190308"},
    {"DirectWriteElsewhere", kLarge, "w100 s9000000 w4190208 s50 r9", "W 0+100, W@9000000"},
    {"DirectWriteUpToTheBuffer", kLarge, "s4190208 w9 s0 w4190208 s4190208 r9", "W@4190208+9, W@0"},
    {"DirectWriteOverItsFirstByte", kLarge, "s4190208 w9 s1 w4190208 s4190208 r9", "W@4190208+9, W@1, R@4190208"},
    {"EndCountsPendingBytes", 100, "s100 w100 e0 e-200", ""},
    {"EndAboveThePendingBytes", kLarge, "w100 e-1 r2", "W@0+100, R@14999552"},
    {"PositionsEndWhereTheSystemsDo", 100,
     "s30 s-1 m-31 e-101 s9223372036854775807 m1 m-9223372036854775807 s9223372036854775805 W w3", ""},
    {"OpenUnderItsOwnNameStartsAnew", 1'000, "r9 w3 o r9", "R 0, W@0+1000, R 0"},
    {"CopyReadsAsItsSourceDid", 1'000, "p0 w3 k r9", "W 0+3, R@0+9"},
    {"ResetDropsPendingBytesForGood", 1'000, "r5 d7 r9 f", "R 0, R@0"},
    {"FailedOpenOrCopyKeepsTheStream", 9, "w3 W o W k f", "W 0+3, W@0+3, W@0+3"},
    {"SeeksOnlyIfItMust", 9, "p0 r2 r2 r0 e0 s4 r2 s2 R r3 r3 s1 S r3 s5 r1 s9 w2 f s0 w2 S f f",
     "R 0+2, R 2+2, R@4+2, R@2+3, R@2+3, R@@5+1, W@9+2, W@@0+2"},
    {"FailedFlushKeepsTheBytes", kLarge, "w9 W f s5000000 W w1 W r1 r1", "W 0+9, W@0+9, W@0+9, W@0+9, R@4999680"},
    {"FailedRefillLeavesNoBytes", kLarge, "r10 s5000000 R r9 s0 r9", "R 0, R@4999680, R@0"},
    {"FailedDirectWriteDropsTheBuffer", kLarge, "s1000 w9 f s0 W w4190208 s1000 r9", "W@1000+9, W@0, R@512"},
};

using StreamBuffer = support::ScriptTest;

TEST_F(StreamBuffer, BytesFileCallsAndEnd) {
    for (const support::Script& script : kScripts) check(script);
}

}  // namespace
