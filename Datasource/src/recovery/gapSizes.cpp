#include "recovery/gapSizes.h"

#include "format/blockTransfer.h"

#include <algorithm>
#include <span>
#include <utility>

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
            segment->isLost() ? takeGap(segment) : take(*segment);
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
        const std::span<const filePosRecord> records = recordsOf(gap);
        std::int64_t byRecords = fPos;
        for (const filePosRecord& record : records) byRecords += record.orginalSize;
        std::vector<std::int64_t> ends = endsTold(gap);
        ends.insert(ends.begin(), byRecords);
        std::erase_if(ends, [&](std::int64_t end) { return end <= fPos || end - fPos > gap->most; });
        const auto isToldAgain = [&](std::int64_t end) { return std::ranges::count(ends, end) > 1; };
        const auto sure = std::ranges::find_if(ends, isToldAgain);
        surveySegment lost = *gap;
        lost.estimated = sure == ends.end();
        if (lost.estimated || *sure != byRecords) {
            if (!ends.empty()) lost.size = (lost.estimated ? ends.front() : *sure) - fPos;
            return take(lost);
        }
        for (const filePosRecord& record : records) {
            if (&record != &records.front()) lost.place = record.translatePos;
            lost.size = record.orginalSize;
            take(lost);
            ++*lost.number;
        }
    }

    // Of the lost blocks; none when they are not known or cannot be true.
    std::span<const filePosRecord> recordsOf(iterator gap) const {
        const bool isLast = gap + 1 == fSegments.end();
        const std::size_t begin = gap->number.value_or(fIndex.size());
        const std::size_t end = isLast ? fIndex.size() : (gap + 1)->number.value_or(0);
        if (begin >= end) return {};
        const auto records = std::span(fIndex).subspan(begin, end - begin);
        return std::ranges::all_of(records, isBlockSize, &filePosRecord::orginalSize) ? records : records.first(0);
    }

    // Where the gap ends by the records behind it, each less the rows found in between, and by the end of all rows.
    std::vector<std::int64_t> endsTold(iterator gap) const {
        std::vector<std::int64_t> ends;
        std::int64_t rows = 0;
        auto next = gap + 1;
        for (; next != fSegments.end() && ends.size() < kWitnesses; rows += (next++)->size) {
            if (next->number) ends.push_back(fIndex[*next->number].orginalPos - rows);
            if (next->isLost()) return ends;
        }
        // By the last record, which may have been asked already.
        const bool asked = gap + 1 != fSegments.end() && fSegments.back().number == fIndex.size() - 1;
        if (next == fSegments.end() && !fIndex.empty() && !asked) {
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
