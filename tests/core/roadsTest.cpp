// One script runs over all roads, which have to agree in files, bytes, positions and failures.
#include "workerHarness.h"

#include <gmock/gmock.h>

#include <cstdlib>

namespace core {
namespace {

using testing::HasSubstr;

constexpr int kTri = 100;  // a road that no stream takes: PreIOThread_Tri_Reader, driven directly

// Rows by position over the worker that no stream makes, with the block cache of a stream.
class TriRows {
public:
    explicit TriRows(const std::string& name) : fPart(name), fWorker(true, &fPart.file, &fPart.index, kBlock) {}
    std::int64_t tell() const { return fPos; }
    Bytes readAt(std::int64_t pos, std::size_t size) {
        fPos = pos;
        Bytes bytes;
        while (bytes.size() < size && load()) {
            const Bytes more = support::slice(fRows, static_cast<std::size_t>(fPos - fRowsPos), size - bytes.size());
            bytes.insert(bytes.end(), more.begin(), more.end());
            fPos += static_cast<std::int64_t>(more.size());
        }
        return bytes;
    }

private:
    bool load() {
        if (fPos >= fRowsPos && fPos - fRowsPos < static_cast<std::int64_t>(fRows.size())) return true;
        fRows.clear();
        const filePosRecord record = fPart.index.findRecord(fPos);
        if (record.orginalPos == kNoRecord) return false;
        fRows = fPart.request(*fWorker, fPart.index.numberOf(record.orginalPos));
        fRowsPos = record.orginalPos;
        return true;
    }

    OpenedPart fPart;
    Running<PreIOThread_Tri_Reader> fWorker;
    Bytes fRows;
    std::int64_t fRowsPos = 0;
    std::int64_t fPos = kRow0;
};

struct ReadStep {
    std::int64_t pos;
    std::uint32_t size;
};
using Transcript = std::vector<std::string>;

std::string described(const Bytes& bytes, std::int64_t tell) {
    return std::to_string(bytes.size()) + " bytes, sum " +
           std::to_string(crc32(0, bytes.data(), static_cast<uInt>(bytes.size()))) + ", then at " +
           std::to_string(tell);
}

template <class Rows, class Tell>
Transcript runScript(Rows& rows, Tell tell, const std::vector<ReadStep>& script) {
    Transcript all;
    for (const ReadStep& step : script) {
        const std::string failure = failureOf([&] {
            const Bytes bytes = rows.readAt(step.pos, step.size);
            all.push_back(described(bytes, tell()));
        });
        if (!failure.empty()) all.push_back(failure + ", then at " + std::to_string(tell()));
    }
    return all;
}

Transcript readBy(int road, const std::string& name, const std::vector<ReadStep>& script) {
    if (road == kTri) {
        TriRows rows(name);
        return runScript(
            rows, [&] { return rows.tell(); }, script);
    }
    const Reader rows(name, road, kRow0);
    return runScript(
        rows, [&] { return rows->Tell(); }, script);
}

std::vector<ReadStep> readScript(std::int64_t end) {
    support::RandomBytes random(42);
    std::vector<ReadStep> script;
    for (int i = 0; i < 150; ++i) {
        const std::int64_t pos =
            random.oneIn(3) && i > 0 ? script.back().pos + script.back().size : random.between(kRow0 - 2, end + 2);
        script.push_back({pos, static_cast<std::uint32_t>(random.below(random.oneIn(3) ? 30'000 : 900))});
    }
    for (std::int64_t pos = kRow0; pos < end; pos += 500) script.push_back({pos, 500});
    return script;
}

TEST_F(Workers, ReadingRoadsAgree) {
    const Bytes rows = joined(fBlocks);
    const auto end = kRow0 + static_cast<std::int64_t>(rows.size());
    const std::vector<ReadStep> script = readScript(end);
    const Transcript sound = readBy(0, fName, script);
    for (std::size_t i = 0; i < script.size(); ++i) {
        const bool inside = script[i].pos >= kRow0 && script[i].pos < end;
        const Bytes part =
            inside ? support::slice(rows, static_cast<std::size_t>(script[i].pos - kRow0), script[i].size) : Bytes();
        ASSERT_EQ(sound[i], described(part, script[i].pos + static_cast<std::int64_t>(part.size())));
    }
    for (const int road : {1, 2, 5, kTri, kSeveral}) EXPECT_EQ(readBy(road, fName, script), sound) << "road " << road;

    damage(2);
    damage(5);
    const Transcript damaged = readBy(0, fName, script);
    EXPECT_THAT(damaged, testing::Contains(HasSubstr("block 2 (logical positions")));
    for (const int road : {1, 2, kTri, kSeveral}) EXPECT_EQ(readBy(road, fName, script), damaged) << "road " << road;

    const BadPlace badSpot(Call::Read, placeOfBlock(3), placeOfBlock(5), EIO);
    const Transcript broken = readBy(0, fName, script);
    EXPECT_THAT(broken, testing::Contains(HasSubstr(fileError(1003, EIO, fName))));
    for (const int road : {1, 2, kTri, kSeveral}) EXPECT_EQ(readBy(road, fName, script), broken) << "road " << road;
}

TEST_F(Workers, FullBlocksOnAllReadingRoads) {
    support::RandomBytes random(43);
    makeFile(fName, {joined({random.rows(kBlock + 9), Bytes(kBlock, 0), random.noise(kBlock)})});
    const std::vector<ReadStep> script = {{kRow0, 3 * kBlock + 9}, {kRow0 + 2 * kBlock, 100}, {kRow0 + 5, 2 * kBlock}};
    const Transcript expected = readBy(0, fName, script);
    for (const int road : {2, kTri, kSeveral}) EXPECT_EQ(readBy(road, fName, script), expected) << "road " << road;
}

// Blocks, flushes and Close by script; the file's bytes and how it ended. On a disk that is full behind `room`.
std::pair<Bytes, std::string> writtenBy(int road, const std::string& name, std::int64_t room) {
    std::string failure;
    {
        support::RandomBytes random(44);
        const Dictionary dictionary(name);
        const auto stream = startedWriter(dictionary, road);
        const BadPlace full(Call::Write, room, INT64_MAX, ENOSPC);
        failure = failureOf([&] {
            for (int i = 0; i < 12; ++i) {
                write(*stream,
                      random.oneIn(2) ? random.noise(1 + random.below(3'000)) : Bytes(random.below(9'000), 'r'));
                if (random.oneIn(2)) stream->Flush();
            }
        });
        const std::string atEnd = failureOf([&] { stream->Close(); });
        EXPECT_TRUE(failure.empty() || failure == atEnd);
        failure = atEnd;
    }
    return {support::readBytes(name), failure};
}

TEST_F(Workers, WritingRoadsAgree) {
    const auto [whole, success] = writtenBy(0, fName, INT64_MAX);
    EXPECT_EQ(success, "");
    for (std::int64_t room = kRow0; room <= static_cast<std::int64_t>(whole.size()) + 500; room += 500) {
        const auto inlineRoad = writtenBy(0, fName, room);
        EXPECT_EQ(inlineRoad.second.empty(), room > Layout(whole).heading._indexPos) << "room " << room;
        for (const int road : {1, kSeveral}) {
            SCOPED_TRACE("room " + std::to_string(room) + ", road " + std::to_string(road));
            const auto worker = writtenBy(road, fName, room);
            EXPECT_EQ(worker.second, inlineRoad.second);
            EXPECT_TRUE(support::sameBytes(worker.first, inlineRoad.first));
        }
    }
}

// Open, start, a few requests of which some fail, close. ORVA_WORKER_CYCLES makes it a long run.
TEST_F(Workers, ManyShortLives) {
    damage(1);
    const char* told = std::getenv("ORVA_WORKER_CYCLES");
    const int cycles = told != nullptr ? std::atoi(told) : 300;
    support::RandomBytes random(46);
    for (int i = 0; i < cycles; ++i) {
        const Watchdog watchdog("a short life of a worker hangs\n");
        const int road = random.oneIn(3) ? 2 : random.oneIn(2) ? kTri : kSeveral;
        std::vector<ReadStep> script;
        for (std::uint64_t n = random.below(6); n > 0; --n) {
            script.push_back({random.between(kRow0, kRow0 + 28'900), static_cast<std::uint32_t>(random.below(9'000))});
        }
        ASSERT_EQ(readBy(road, fName, script), readBy(0, fName, script)) << "cycle " << i;
        if (i % 4 == 0) {
            const std::int64_t room = random.between(kRow0, kRow0 + 20'000);
            ASSERT_EQ(writtenBy(random.oneIn(2) ? 1 : kSeveral, path("new.orva"), room),
                      writtenBy(0, path("new.orva"), room))
                << "cycle " << i;
        }
    }
}

}  // namespace
}  // namespace core
