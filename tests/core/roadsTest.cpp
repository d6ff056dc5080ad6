// One script runs over all roads, which have to agree in files, bytes, positions and failures. Then every system call
// of a writing and of a reading script fails once, in each of several ways, on every road: the right failure or the
// right bytes; no hang; a Close that gave 1 told the truth; a file whose heading did not get written reads as
// unfinished.
#include "coreTest.h"

#include <gmock/gmock.h>

namespace core {
namespace {

using platform::faults::Step;
using testing::HasSubstr;

class Roads : public ShortBlocks {
protected:
    const Bytes fRows = joined(fBlocks);
    const std::vector<filePosRecord> fRecords = Layout(fFile).records;
};

struct ReadStep {
    std::int64_t pos;
    std::size_t size;
};
using Transcript = std::vector<std::string>;

std::string described(const Bytes& bytes, std::int64_t tell) {
    return std::to_string(bytes.size()) + " bytes, sum " +
           std::to_string(crc32(0, bytes.data(), static_cast<uInt>(bytes.size()))) + ", then at " +
           std::to_string(tell);
}

Transcript readBy(int road, const std::string& name, const std::vector<ReadStep>& script, int cache = 0) {
    Watchdog::feed();
    const Reader rows(name, road, kRow0);
    rows->setBlockCache(cache);
    Transcript all;
    for (const ReadStep& step : script) {
        Bytes bytes;
        const std::string failure = failureOf([&] { bytes = rows.readAt(step.pos, step.size); });
        all.push_back(failure + described(bytes, rows->Tell()));
    }
    return all;
}

void expectAllAgree(const std::string& name, const std::vector<ReadStep>& script, const Transcript& expected) {
    for (const int road : {0, 1, 2, 5, kSeveral}) {
        for (const int cache : {0, 2}) {
            EXPECT_EQ(readBy(road, name, script, cache), expected) << "road " << road << ", cache " << cache;
        }
    }
}

TEST_F(Roads, ReadingRoadsAgree) {
    const auto end = kRow0 + static_cast<std::int64_t>(fRows.size());
    support::RandomBytes random(42);
    std::vector<ReadStep> script;
    Transcript sound;
    for (std::int64_t at = kRow0; script.size() < 220;) {
        if (!random.oneIn(3) && script.size() < 150) at = random.between(kRow0 - 2, end + 2);
        if (script.size() == 150) at = kRow0;
        script.push_back({at, random.below(random.oneIn(3) ? 30'000 : 900)});
        const bool inside = at >= kRow0 && at < end;
        const auto offset = static_cast<std::size_t>(at - kRow0);
        const Bytes part = inside ? support::slice(fRows, offset, script.back().size) : Bytes();
        at += static_cast<std::int64_t>(part.size());
        sound.push_back(described(part, at));
    }
    expectAllAgree(fName, script, sound);

    for (const std::size_t number : {3u, 5u}) {
        support::flipBit(fName, static_cast<std::uint64_t>(fRecords[number].translatePos - 1), 3);
    }
    const BadPlace badSpot(Call::Read, EIO, fRecords[3].translatePos, fRecords[5].translatePos);
    const Transcript broken = readBy(0, fName, script);
    EXPECT_THAT(broken, testing::Contains(HasSubstr("block 2 (logical positions")));
    EXPECT_THAT(broken, testing::Contains(HasSubstr(fileError(1003, EIO, fName))));
    expectAllAgree(fName, script, broken);
}

TEST_F(Roads, ABlockThatTheCacheHoldsCostsNoFileCall) {
    const Reader rows(fName, 0, kRow0);
    rows->setBlockCache(2);
    CallHook hook([](Call, std::uint64_t) { return Verdict::goOn(); });
    const platform::faults::Installed installed(hook);
    const auto loads = [&](std::size_t number) {
        const std::uint64_t before = hook.count();
        EXPECT_EQ(rows.readAt(fRecords[number].orginalPos, fBlocks[number].size()), fBlocks[number]);
        return hook.count() != before;
    };
    std::vector<bool> loaded;
    for (const std::size_t number : {0, 2, 0, 2, 0, 4, 0, 2}) loaded.push_back(loads(number));
    EXPECT_EQ(loaded, (std::vector<bool>{1, 1, 0, 0, 0, 1, 0, 1})) << "the least recently used block goes first";
    rows->readFilePosInfo(kRow0, false);
    EXPECT_TRUE(loads(0)) << "a file that is opened anew";
}

// Blocks, flushes and Close by script; the file's bytes and how it ended. On a disk that is full behind `room`.
std::pair<Bytes, std::string> writtenBy(int road, const std::string& name, std::int64_t room) {
    Watchdog::feed();
    support::RandomBytes random(44);
    auto stream = startedWriter(name, road);
    const BadPlace full(Call::Write, ENOSPC, room);
    const std::string failure = failureOf([&] {
        for (int i = 0; i < 12; ++i) {
            write(*stream, random.oneIn(2) ? random.noise(1 + random.below(3'000)) : Bytes(random.below(9'000), 'r'));
            if (random.oneIn(2)) stream->Flush();
        }
    });
    const std::string atEnd = failureOf([&] { stream->Close(); });
    EXPECT_TRUE(failure.empty() || failure == atEnd);
    stream.reset();
    return {support::readBytes(name), atEnd};
}

TEST_F(Roads, WritingRoadsAgree) {
    const auto [whole, success] = writtenBy(0, fName, INT64_MAX);
    EXPECT_EQ(success, "");
    for (std::int64_t room = kRow0; room <= static_cast<std::int64_t>(whole.size()) + 500; room += 500) {
        const auto inlineRoad = writtenBy(0, fName, room);
        EXPECT_EQ(inlineRoad.second.empty(), room > Layout(whole).heading._indexPos) << "room " << room;
        for (const int road : {1, kSeveral}) {
            EXPECT_EQ(writtenBy(road, fName, room), inlineRoad) << "room " << room << ", road " << road;
        }
    }
}

struct Fault {
    const char* name;
    int error;        // 0: the call is only cut short
    bool fromThenOn;  // else once
    bool afterAPart;  // a transfer first moves some bytes, and the next call fails
};
constexpr Fault kFaults[] = {
    {"EioOnce", EIO, false, false},         {"FullFromThenOn", ENOSPC, true, false},
    {"FullAfterAPart", ENOSPC, true, true}, {"InterruptedOnce", EINTR, false, false},
    {"ShortFromThenOn", 0, true, true},
};

// Makes the k-th call fail.
struct Faults : platform::faults::Hook {
    Faults(const Fault& fault, std::uint64_t k) : fFault(fault), fK(k) {}
    Verdict before(Call, int, std::uint64_t) override {
        const std::uint64_t number = ++fCount;
        if (number == fK && fFault.afterAPart) return Verdict::atMost(7);
        const std::uint64_t failing = fK + (fFault.afterAPart ? 1 : 0);
        if (number != failing && !(fFault.fromThenOn && number > failing)) return Verdict::goOn();
        if (fFault.error == 0) return Verdict::atMost(7);
        bFailed = true;
        return Verdict::fail(fFault.error);
    }
    void after(const Step& step) override {
        if (step.call == Call::Write && step.result > 0 && step.offset == kRow0) bHeadingBegun = true;
    }

    const Fault& fFault;
    const std::uint64_t fK;
    std::atomic<std::uint64_t> fCount{0};
    std::atomic<bool> bFailed{false};
    std::atomic<bool> bHeadingBegun{false};
};

class RoadFaults : public Roads {
protected:
    // FileError of this file, with the errno that was injected, or that the file could not be opened.
    void expectRight(const std::string& failure, const Faults& faults) const {
        if (failure.empty()) return;
        const int error = faults.fFault.error;
        EXPECT_TRUE(faults.bFailed) << failure << " out of nothing";
        // The side file of an earlier append that is to go has the file's name with an ending.
        EXPECT_THAT(failure, testing::AnyOf(fileError(1002, error, fName), fileError(1003, error, fName),
                                            fileError(1002, error, fName + ".orva-undo"),
                                            testing::StartsWith("SystemFileException 1201 ")));
    }
    template <class Body>
    void forEachFault(const std::vector<int>& roads, Body body) const {
        for (const int road : roads) {
            for (const Fault& fault : kFaults) {
                std::uint64_t k = 1;
                for (bool happened = true; happened && k < 500; ++k) {
                    SCOPED_TRACE(std::string(fault.name) + ", call " + std::to_string(k) + ", road " +
                                 std::to_string(road));
                    Watchdog::feed();
                    Faults faults(fault, k);
                    body(road, faults);
                    happened = faults.fCount >= k;
                }
                EXPECT_TRUE(k > 8 && k < 500) << k;
            }
        }
    }
};

TEST_F(RoadFaults, AWriterFailsRightOrWritesRight) {
    forEachFault({0, 1, kSeveral}, [&](int road, Faults& faults) {
        std::int32_t closed = 0;
        auto stream = freshStream(fName, road);
        {
            const platform::faults::Installed installed(faults);
            std::string heard = failureOf([&] {
                beginRows(*stream);
                for (const Bytes& block : fBlocks) write(*stream, block), stream->Flush();
            });
            const std::string atClose = failureOf([&] { closed = stream->Close(); });
            const bool wasWriter = stream->Tell() != 0;
            // The first failure is final; a stream that never was a writer has nothing to finish.
            EXPECT_TRUE(heard.empty() || atClose == (wasWriter ? heard : "")) << atClose << " after " << heard;
            if (heard.empty()) heard = atClose;
            expectRight(heard, faults);
            closed = wasWriter ? closed : 0;
            EXPECT_EQ(closed, heard.empty() ? 1 : 0);
        }
        stream.reset();
        Bytes rows;
        const std::string back = failureOf([&] { rows = Reader(fName, 0, kRow0).read(fRows.size() + 1); });
        EXPECT_TRUE(back.empty() ? rows == fRows : back.starts_with("DamagedFileError")) << back;
        EXPECT_TRUE(closed != 1 || back.empty()) << "Close gave 1: " << back;
        EXPECT_TRUE(faults.bHeadingBegun || !back.empty()) << "finished without a heading";
    });
}

TEST_F(RoadFaults, AReaderFailsRightOrReadsRight) {
    forEachFault({0, 1, 2, kSeveral}, [&](int road, Faults& faults) {
        const Reader reader(fName, road);
        {
            const platform::faults::Installed installed(faults);
            bool open = false;
            expectRight(failureOf([&] { reader->readFilePosInfo(kRow0, false), open = true; }), faults);
            for (const std::size_t pos : {0u, 2'900u, 28'000u, 100u, 23'600u}) {
                if (!open) break;
                Bytes bytes;
                const std::string failure =
                    failureOf([&] { bytes = reader.readAt(kRow0 + static_cast<std::int64_t>(pos), 700); });
                expectRight(failure, faults);
                EXPECT_TRUE(!failure.empty() || bytes == support::slice(fRows, pos, 700)) << "at " << pos;
            }
            EXPECT_EQ(failureOf([&] { reader->Close(); }), "");
        }
        // All is well again: so is the stream.
        if (failureOf([&] { reader.readAt(kRow0, 1); }) != "") reader->readFilePosInfo(kRow0, false);
        EXPECT_EQ(reader.readAt(kRow0, 40'000), fRows);
    });
}

}  // namespace
}  // namespace core
