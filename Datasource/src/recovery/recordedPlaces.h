// recordedPlaces: where the blocks of a damaged part begin, by the records of an index. Any record can be false: a
// place is only one to try, and a block there gets the number that most evidence speaks for.
#pragma once

#include "recovery/partSurvey.h"

#include <orva/compressedLayout.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

namespace orva {

class recordedPlaces {
public:
    recordedPlaces() = default;
    // Block `next` is expected at file offset `place`. `shift`: bytes that were inserted into the file before the index
    // (negative: lost from it), so that blocks may be this far after the places in the records.
    recordedPlaces(std::vector<filePosRecord> records, std::int64_t shift, std::int64_t fileSize, std::size_t next,
                   std::int64_t place)
        : fRecords(std::move(records)), fShift(shift), fExpected{place, next} {
        for (std::size_t i = 0; i < fRecords.size(); ++i) {
            const std::int64_t begin = fRecords[i].translatePos;
            if (begin < 0 || begin > fileSize) continue;
            fStarts.push_back({begin, i});
            if (shift != 0) fStarts.push_back({begin + shift, i});
            fStarts.push_back({begin + fRecords[i].translateSize, i + 1});
        }
        std::sort(fStarts.begin(), fStarts.end());
    }

    const std::vector<filePosRecord>& records() const { return fRecords; }

    // Block `number` is at `place`: the next one is expected where it ends by its recorded length.
    void expectAfter(std::size_t number, std::int64_t place) {
        fExpected = {place + fRecords[number].translateSize, number + 1};
    }
    // The number of the block that is expected next; none if the index has no more.
    std::optional<std::size_t> expected() const {
        return fExpected.number < fRecords.size() ? std::optional(fExpected.number) : std::nullopt;
    }

    // The first recorded place after `place`.
    std::optional<std::int64_t> after(std::int64_t place) const {
        const auto next = std::ranges::upper_bound(fStarts, place, {}, &start::place);
        return next != fStarts.end() ? std::optional(next->place) : std::nullopt;
    }

    // The number of the block that is, or should be, at block.place. If the records, or the recorded length of the
    // block before, give several for that place, the one that most of them and of the block's own sizes confirm.
    std::optional<std::size_t> numberOf(const surveySegment& block) const {
        std::optional<std::size_t> best;
        std::ptrdiff_t most = 0;
        const auto offer = [&](const start& at) {
            if (at.number >= fRecords.size()) return;
            const std::ptrdiff_t votes = votesFor(at, block);
            if (votes <= most) return;
            most = votes;
            best = at.number;
        };
        if (fExpected.place == block.place) offer(fExpected);
        auto at = std::ranges::lower_bound(fStarts, block.place, {}, &start::place);
        for (; at != fStarts.end() && at->place == block.place; ++at) offer(*at);
        return best;
    }

    // True if the records from `number` to before `end`, of which the first is of a block at `place`, follow each other
    // without gaps. If the places are shifted, this is known of a single record only.
    bool areContiguous(std::size_t number, std::size_t end, std::int64_t place) const {
        for (std::size_t i = number; i < end; ++i) {
            if (i != number && (fShift != 0 || fRecords[i].translatePos != place)) return false;
            place += fRecords[i].translateSize;
        }
        return number < end;
    }

private:
    // By some record, block `number` begins at `place`.
    struct start {
        std::int64_t place;
        std::size_t number;

        bool operator==(const start&) const = default;
        bool operator<(const start& that) const { return std::tie(place, number) < std::tie(that.place, that.number); }
    };

    std::ptrdiff_t votesFor(const start& at, const surveySegment& block) const {
        const auto [first, last] = std::equal_range(fStarts.begin(), fStarts.end(), at);
        const filePosRecord& record = fRecords[at.number];
        return last - first + (at == fExpected ? 1 : 0) + (record.orginalSize == block.size ? 1 : 0) +
               (record.translateSize == std::int64_t{block.length} ? 1 : 0);
    }

    std::vector<filePosRecord> fRecords;
    std::int64_t fShift = 0;
    start fExpected{};           // of the next block
    std::vector<start> fStarts;  // ascending
};

}  // namespace orva
