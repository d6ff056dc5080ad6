#include "recovery/gapSizes.h"

#include "format/blockTransfer.h"

#include <algorithm>

namespace orva {

namespace {

using segmentList = std::vector<surveySegment>;

constexpr std::size_t kWitnesses = 4;  // more are not asked

class gapSizes {
public:
    gapSizes(const segmentList& segments, const std::vector<filePosRecord>& index, std::int64_t row0Pos)
        : fSegments(segments), fIndex(index), fPos(row0Pos) {}

    segmentList run() {
        for (auto segment = fSegments.begin(); segment != fSegments.end(); ++segment) {
            segment->length == 0 ? takeGap(segment) : take(*segment);
        }
        return std::move(fSized);
    }

private:
    using iterator = segmentList::const_iterator;

    void take(const surveySegment& segment) {
        fSized.push_back(segment);
        fPos += segment.size;
    }

    void takeGap(iterator gap) {
        const std::int64_t byRecords = fPos + sumOfRecords(gap);
        std::vector<std::int64_t> ends = endsTold(gap);
        ends.insert(ends.begin(), byRecords);
        std::erase_if(ends, [&](std::int64_t end) { return end <= fPos || end - fPos > gap->most; });
        for (auto end = ends.begin(); end != ends.end(); ++end) {
            if (std::find(end + 1, ends.end(), *end) == ends.end()) continue;
            if (*end == byRecords) return takeRecords(gap);
            return takeWhole(*gap, *end - fPos, false);
        }
        takeWhole(*gap, ends.empty() ? gap->size : ends.front() - fPos, true);
    }

    void takeWhole(surveySegment gap, std::int64_t size, bool estimated) {
        gap.size = size;
        gap.estimated = estimated;
        take(gap);
    }
    void takeRecords(iterator gap) {
        for (std::size_t i = *gap->number; i < numberBehind(gap); ++i) {
            take({fIndex[i].orginalSize, i == *gap->number ? gap->place : fIndex[i].translatePos, i, 0, false, gap->why,
                  gap->most});
        }
    }

    // Of the record that tells of what comes behind the gap; 0 when none does.
    std::size_t numberBehind(iterator gap) const {
        return gap + 1 == fSegments.end() ? fIndex.size() : (gap + 1)->number.value_or(0);
    }

    // What the records of the lost blocks claim; 0 when they are not known or cannot be true.
    std::int64_t sumOfRecords(iterator gap) const {
        std::int64_t sum = 0;
        for (std::size_t i = gap->number.value_or(fIndex.size()); i < numberBehind(gap); ++i) {
            if (!isBlockSize(fIndex[i].orginalSize)) return 0;
            sum += fIndex[i].orginalSize;
        }
        return sum;
    }

    // Where the gap ends by the records behind it, each less the rows found in between, and by the end of all rows.
    std::vector<std::int64_t> endsTold(iterator gap) const {
        std::vector<std::int64_t> ends;
        std::int64_t rows = 0;
        auto next = gap + 1;
        for (; next != fSegments.end() && ends.size() < kWitnesses; rows += (next++)->size) {
            if (next->number) ends.push_back(fIndex[*next->number].orginalPos - rows);
            if (next->length == 0) return ends;
        }
        if (next == fSegments.end() && !fIndex.empty()) {
            ends.push_back(fIndex.back().orginalPos + fIndex.back().orginalSize - rows);
        }
        return ends;
    }

    const segmentList& fSegments;
    const std::vector<filePosRecord>& fIndex;
    segmentList fSized;
    std::int64_t fPos;  // logical, behind them
};

}  // namespace

segmentList withSizes(const segmentList& segments, const std::vector<filePosRecord>& index, std::int64_t row0Pos) {
    return gapSizes(segments, index, row0Pos).run();
}

}  // namespace orva
