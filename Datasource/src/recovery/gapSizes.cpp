#include "format/blockTransfer.h"
#include "recovery/partSurvey.h"

#include <algorithm>
#include <span>
#include <utility>

namespace orva {

namespace {

constexpr std::size_t kWitnesses = 4;  // the most records after a gap that are asked

struct gapSizes {
    using iterator = surveySegments::const_iterator;

    void take(const surveySegment& segment) {
        sized.push_back(segment);
        pos += segment.size;
    }

    // Each witness tells an end of the gap. The first end that two of them tell is exact; without one, the first end is
    // taken as a guess.
    void takeGap(iterator gap) {
        const std::span<const filePosRecord> records = recordsOf(gap);
        std::int64_t byRecords = pos;
        for (const filePosRecord& record : records) byRecords += record.orginalSize;
        const std::vector<std::int64_t> ends = possibleEnds(gap, byRecords);
        const auto agreed = std::ranges::find_if(ends, [&](auto end) { return std::ranges::count(ends, end) > 1; });
        const bool exact = agreed != ends.end();
        if (exact && *agreed == byRecords) return takeLostBlocks(*gap, records);
        surveySegment lost = *gap;
        lost.estimated = !exact;
        if (!ends.empty()) lost.size = (exact ? *agreed : ends.front()) - pos;
        take(lost);
    }

    void takeLostBlocks(surveySegment lost, std::span<const filePosRecord> records) {
        lost.estimated = false;
        for (const filePosRecord& record : records) {
            if (&record != &records.front()) lost.place = record.translatePos;
            lost.size = record.orginalSize;
            take(lost);
        }
    }

    std::vector<std::int64_t> possibleEnds(iterator gap, std::int64_t byRecords) const {
        std::vector<std::int64_t> ends{byRecords};
        askAfter(gap, ends);
        std::erase_if(ends, [&](std::int64_t end) { return end <= pos || end - pos > gap->most; });
        return ends;
    }

    // The records of the lost blocks; none if they are unknown, one is impossible, or the gap has no room for so many.
    std::span<const filePosRecord> recordsOf(iterator gap) const {
        const bool isLast = gap + 1 == segments.end();
        const std::size_t begin = gap->number.value_or(index.size());
        const std::size_t end = isLast ? index.size() : (gap + 1)->number.value_or(0);
        if (begin >= end) return {};
        const auto records = std::span(index).subspan(begin, end - begin);
        if (std::ssize(records) > mostBlocksIn(gap->most / kBestRatio)) return {};
        return std::ranges::all_of(records, isBlockSize, &filePosRecord::orginalSize) ? records : records.first(0);
    }

    // Asks the positions in the records after the gap, less the rows found in between, and then the end of all rows.
    // That end comes from the last record, so it is left out if that record was asked already.
    void askAfter(iterator gap, std::vector<std::int64_t>& ends) const {
        std::int64_t rows = 0;
        auto next = gap + 1;
        for (; next != segments.end() && ends.size() <= kWitnesses; rows += (next++)->size) {
            if (next->number) ends.push_back(index[*next->number].orginalPos - rows);
            if (next->isLost()) return;
        }
        const bool asked = gap + 1 != segments.end() && segments.back().number == index.size() - 1;
        if (next != segments.end() || index.empty() || asked) return;
        ends.push_back(rowsEnd(index.back()) - rows);
    }

    const surveySegments& segments;
    const std::vector<filePosRecord>& index;
    std::int64_t pos;  // logical position after `sized`
    surveySegments sized{};
};

}  // namespace

surveySegments withSizes(const surveySegments& segments, const std::vector<filePosRecord>& index,
                         std::int64_t row0Pos) {
    gapSizes sizes{segments, index, row0Pos};
    for (auto at = segments.begin(); at != segments.end(); ++at) at->isLost() ? sizes.takeGap(at) : sizes.take(*at);
    return std::move(sizes.sized);
}

}  // namespace orva
