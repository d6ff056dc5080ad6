#include "format/blockTransfer.h"
#include "recovery/partSurvey.h"

#include <algorithm>
#include <span>
#include <utility>

namespace orva {

namespace {

constexpr std::size_t kWitnesses = 4;  // behind the gap; more are not asked

struct gapSizes {
    using iterator = surveySegments::const_iterator;

    void take(const surveySegment& segment) {
        sized.push_back(segment);
        pos += segment.size;
    }

    // Each witness tells where the gap ends. The first end that two of them tell is sure, else the first one is a
    // guess.
    void takeGap(iterator gap) {
        const std::span<const filePosRecord> records = recordsOf(gap);
        std::int64_t byRecords = pos;
        for (const filePosRecord& record : records) byRecords += record.orginalSize;
        std::vector<std::int64_t> ends{byRecords};
        askBehind(gap, ends);
        std::erase_if(ends, [&](std::int64_t end) { return end <= pos || end - pos > gap->most; });
        const auto sure = std::ranges::find_if(ends, [&](auto end) { return std::ranges::count(ends, end) > 1; });
        surveySegment lost = *gap;
        lost.estimated = sure == ends.end();
        if (!ends.empty()) lost.size = (lost.estimated ? ends.front() : *sure) - pos;
        if (lost.estimated || *sure != byRecords) return take(lost);
        for (const filePosRecord& record : records) {
            if (&record != &records.front()) lost.place = record.translatePos;
            lost.size = record.orginalSize;
            take(lost);
        }
    }

    // Of the lost blocks; none when they are not known or cannot be true.
    std::span<const filePosRecord> recordsOf(iterator gap) const {
        const bool isLast = gap + 1 == segments.end();
        const std::size_t begin = gap->number.value_or(index.size());
        const std::size_t end = isLast ? index.size() : (gap + 1)->number.value_or(0);
        if (begin >= end) return {};
        const auto records = std::span(index).subspan(begin, end - begin);
        return std::ranges::all_of(records, isBlockSize, &filePosRecord::orginalSize) ? records : records.first(0);
    }

    // The records behind it tell, each less the rows found in between, and where all rows end does. That is the last
    // record's to tell, which may have been asked already.
    void askBehind(iterator gap, std::vector<std::int64_t>& ends) const {
        std::int64_t rows = 0;
        auto next = gap + 1;
        for (; next != segments.end() && ends.size() <= kWitnesses; rows += (next++)->size) {
            if (next->number) ends.push_back(index[*next->number].orginalPos - rows);
            if (next->isLost()) return;
        }
        const bool asked = gap + 1 != segments.end() && segments.back().number == index.size() - 1;
        if (next != segments.end() || index.empty() || asked) return;
        ends.push_back(index.back().orginalPos + index.back().orginalSize - rows);
    }

    const surveySegments& segments;
    const std::vector<filePosRecord>& index;
    std::int64_t pos;  // logical, behind `sized`
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
