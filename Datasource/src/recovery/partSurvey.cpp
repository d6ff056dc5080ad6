#include "recovery/partSurvey.h"

#include "format/indexTransfer.h"
#include "recovery/fileWindow.h"
#include "recovery/recordedPlaces.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <span>
#include <utility>

namespace orva {

namespace {

// The work that a trial counts as, beside the bytes that it reads and inflates; and the work that each byte searched,
// and each byte of a block found, allows in addition.
constexpr std::int64_t kTrialWork = 4096;
constexpr std::int64_t kEarnedBySearch = 16;
constexpr std::int64_t kEarnedByBlock = 4;

constexpr const char* kDamaged = "its block is damaged";
constexpr const char* kDamagedUntold = "its block is damaged, and no index tells its size";
constexpr const char* kGone = "its blocks are gone, and no index tells their size";
constexpr const char* kGivenUp =
    "the search was given up here: what stands here could be taken for blocks again and again";

std::int64_t workOf(const blockOutcome& trial) {
    return kTrialWork + trial.produced + trial.consumed;
}

std::int64_t mostRowsOf(std::int64_t bytes) {
    return std::clamp<std::int64_t>(bytes, 1, std::numeric_limits<std::int64_t>::max() / kBestRatio / 2) * kBestRatio;
}

// The first two bytes of a zlib stream with the full window, as every writer of this format makes it.
bool couldBeginStream(const unsigned char* bytes) {
    return bytes[0] == 0x78 && (bytes[0] * 256 + bytes[1]) % 31 == 0 && (bytes[1] & 0x20) == 0;
}

// The work that failed trials may still take, in bytes through the codec. Once it is used up, the file counts as made
// to be searched for ever. Bytes searched and blocks found allow more, so that a long file with much damage is searched
// to its end.
class workBudget {
public:
    void spend(std::int64_t work) { fLeft -= work; }
    void earn(std::int64_t work) { fLeft += exhausted() ? 0 : work; }
    bool exhausted() const { return fLeft < 0; }

private:
    std::int64_t fLeft = std::int64_t{1} << 28;
};

class partSurvey {
public:
    partSurvey(zlibStreams& streams, const std::function<void(std::int64_t)>& tell, recoverReport& report)
        : fStreams(streams), fTell(tell), fReport(report) {}

    std::optional<surveySegments> run(const recoverOptions& options) {
        const std::optional<foundPart> part = locate(options);
        if (!part || part->row0Pos <= 0 || part->row0Pos > fWindow.fileSize() - kHeadingSize) return std::nullopt;
        fReport.part = *part;
        fPlace = part->row0Pos + kHeadingSize;
        takeHeading();
        walk();
        guessSizes();
        fSegments = withSizes(fSegments, records(), part->row0Pos);
        reportCommitted();
        if (options.onlyCommitted) fSegments.resize(committedSegments());
        const bool hadNoRows = fCount == 0 || (fReport.hadIndex && records().empty());
        const bool hasRows = !std::ranges::all_of(fSegments, &surveySegment::isLost);
        return hasRows || (fSegments.empty() && hadNoRows) ? std::optional(std::move(fSegments)) : std::nullopt;
    }

private:
    const std::vector<filePosRecord>& records() const { return fRecorded.records(); }

    std::optional<foundPart> locate(const recoverOptions& options) {
        if (options.part) return options.part;
        if (const auto found = findPart(fFile.GetNameStr().GetGeneric(), 1, fTell)) return found;
        const std::optional<std::int64_t> first = nextStream(kHeadingSize + 1, fWindow.fileSize());
        return first ? std::optional(foundPart{*first - kHeadingSize, false}) : std::nullopt;
    }

    void takeHeading() {
        const auto& [row0Pos, swapped] = fReport.part;
        const auto heading = headingOf(rawHeadingAt(fFile, row0Pos).data(), row0Pos, swapped);
        fReport.hadHeading = heading.has_value();
        if (!heading) return;
        fHeading = *heading;
        const std::int64_t count = fHeading._size / kRecordSize - 1;
        if (count <= (fHeading._indexPos - row0Pos - kHeadingSize) / kShortestStream) {
            fCount = count;
            fBlocksEnd = fHeading._indexPos;
        }
        if (std::optional<partIndex> index = indexOf(fFile, fHeading, swapped)) takeIndex(std::move(*index), 0);
    }

    void walk() {
        while (fPlace < fWindow.fileSize() && !isComplete()) {
            fTell(fPlace);
            if (const std::optional<blockOutcome> found = streamAt(fPlace, fSearchBudget, fLikely)) {
                takeBlock(*found);
            } else if (!stepOverGap()) {
                return;
            }
        }
    }

    // If the last block has neither the recorded rows nor the recorded length, an append has rewritten it and may have
    // added more.
    bool isComplete() const {
        return allRecordsUsed() && (records().empty() || (isLast(fSegments.back()) && isAsRecorded(fSegments.back())));
    }
    bool allRecordsUsed() const { return fReport.hadIndex && !isShort() && !fRecorded.expected(); }
    // The index has fewer blocks than the heading counts.
    bool isShort() const { return fCount && *fCount > std::ssize(records()); }
    bool isLast(const surveySegment& taken) const {
        return !taken.isLost() && taken.number && *taken.number + 1 == records().size();
    }
    // One match is enough: a false record can have the other one wrong.
    bool isAsRecorded(const surveySegment& taken) const {
        const filePosRecord& record = records()[*taken.number];
        return record.orginalSize == taken.size || record.translateSize == std::int64_t{taken.length};
    }

    void takeBlock(const blockOutcome& found) {
        const surveySegment block = blockOf(fPlace, found);
        if (block.number) fRecorded.expectAfter(*block.number, fPlace);
        fSegments.push_back(block);
        fPlace += found.consumed;
        fSearchBudget.earn(kEarnedByBlock * workOf(found));
        fLikely = found.consumed + found.consumed / 4;
    }

    // Steps over a gap to the next complete stream. False if there is none.
    bool stepOverGap() {
        if (!fReport.hadIndex && !bLookedForIndex) findLaterIndex();
        if (fPlace >= fBlocksEnd || allRecordsUsed()) return false;
        surveySegment gap{0, fPlace};
        gap.number = fRecorded.numberOf(gap);
        if (gap.number) fRecorded.expectAfter(*gap.number, fPlace);
        const std::int64_t end = fReport.hadIndex ? fBlocksEnd : fWindow.fileSize();
        fSkipped = 0;
        const std::optional<std::int64_t> next = placeAfterGap(gap.number, end);
        const bool givenUp = !next && fSearchBudget.exhausted();
        if (!next && !fReport.hadIndex && !givenUp) return false;
        gap.estimated = true;
        gap.why = givenUp ? kGivenUp : fReport.hadIndex ? kDamaged : kDamagedUntold;
        gap.most = mostRowsOf(next.value_or(end) - fPlace - fSkipped);
        fSegments.push_back(gap);
        fPlace = next.value_or(end);
        return next.has_value();
    }

    // Where the next complete stream begins: at a recorded place, or at one before it that a search finds. Searches
    // only if the records leave room for a block there. `lost`: the number of the block that should be here.
    std::optional<std::int64_t> placeAfterGap(std::optional<std::size_t> lost, std::int64_t end) {
        const std::optional<surveySegment> recorded = recordedBlock();
        const auto place = recorded ? std::optional(recorded->place) : std::nullopt;
        if (lost && noBlockBetween(*lost, recorded)) return place;
        const std::optional<std::int64_t> found = nextStream(fPlace + 1, place.value_or(end));
        return found ? found : place;
    }

    // The first complete stream after fPlace at a recorded place. Tries each place once. The bytes passed on the way
    // to it allow more trials, unless they are all in a hole.
    std::optional<surveySegment> recordedBlock() {
        if (fRecordedBlock && fRecordedBlock->place > fPlace) return fRecordedBlock;
        fRecordedBlock.reset();
        fTried = std::max(fTried, fPlace);
        while (!fRecordedBlock) {
            const std::optional<std::int64_t> place = fRecorded.after(fTried);
            if (!place || *place >= fBlocksEnd) break;
            if (fFile.nextStored(fTried) < *place) fRecordBudget.earn(kEarnedByBlock * (*place - fTried));
            fTried = *place;
            if (const auto found = streamAt(fTried, fRecordBudget, fLikely)) fRecordedBlock = blockOf(fTried, *found);
        }
        return fRecordedBlock;
    }

    // True if by the records from block `number` on, which should be here, no block up to `next`, or up to the last
    // record, was overlooked.
    bool noBlockBetween(std::size_t number, const std::optional<surveySegment>& next) const {
        if (!next && (isShort() || fRecordBudget.exhausted())) return false;
        const std::size_t end = next ? next->number.value_or(number) : records().size();
        const auto lost = static_cast<std::int64_t>(end) - static_cast<std::int64_t>(number);
        const std::int64_t bytes = (next ? next->place : fBlocksEnd) - fPlace;
        return lost <= mostBlocksIn(bytes) && fRecorded.areContiguous(number, end, fPlace);
    }

    void takeIndex(partIndex index, std::int64_t shift) {
        fReport.hadIndex = true;
        fBlocksEnd = index.heading._indexPos;
        if (shift != 0) fHeading._indexPos = fBlocksEnd;
        fRecorded = {std::move(index.records), shift, fWindow.fileSize(), fSegments.size(), fPlace};
    }

    // Looks for an index that no usable heading points to. Takes the first one that begins where its last block ends;
    // else the first one anywhere, although it may be that of another file, whose bytes are rows of this one.
    void findLaterIndex() {
        bLookedForIndex = true;
        std::optional<partIndex> elsewhere;  // the first one
        const auto isIndex = [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
            std::int64_t mark = 0;
            std::memcpy(&mark, bytes, sizeof mark);
            if (mark != kFirstRecordMark && mark != swapBytes(kFirstRecordMark)) return false;
            if (fSearchBudget.exhausted()) return true;
            fSearchBudget.spend(2 * kTrialWork);
            std::optional<partIndex> index = indexAt(fFile, fReport.part.row0Pos, place);
            if (!index || !recordsBlocksFound(index->records, place)) return false;
            const bool isHere = shiftOf(*index) == 0;
            if (isHere) takeIndex(std::move(*index), 0);
            if (!isHere && !elsewhere) elsewhere = std::move(index);
            return isHere;
        };
        if (fWindow.find(fPlace, fWindow.fileSize(), kRecordSize, isIndex) || !elsewhere) return;
        const std::int64_t shift = shiftOf(*elsewhere);
        takeIndex(std::move(*elsewhere), shift);
    }

    // The number of bytes that were inserted into the file (negative: lost from it) before this index, which no heading
    // points to: it should begin where its last block ends.
    std::int64_t shiftOf(const partIndex& index) const {
        if (index.records.empty()) return 0;
        const filePosRecord& last = index.records.back();
        const bool isPossible = last.translatePos >= 0 && last.translatePos - kBlockSize <= fWindow.fileSize();
        return isPossible ? index.heading._indexPos - last.translatePos - last.translateSize : 0;
    }

    // An index that no heading points to is believed if its records agree with all blocks seen.
    bool recordsBlocksFound(const std::vector<filePosRecord>& index, std::int64_t place) const {
        const auto same = [](const surveySegment& seen, const filePosRecord& record) {
            return record.translatePos == seen.place && record.translateSize == std::int64_t{seen.length} &&
                   record.orginalSize == seen.size;
        };
        const std::size_t seen = fSegments.size();
        if (index.size() < seen || !std::equal(fSegments.begin(), fSegments.end(), index.begin(), same)) return false;
        return index.size() > seen ? index[seen].translatePos == fPlace : seen != 0 || place == fPlace;
    }

    surveySegment blockOf(std::int64_t place, const blockOutcome& found) const {
        surveySegment block{found.produced, place, {}, found.consumed};
        block.number = fRecorded.numberOf(block);
        return block;
    }

    // Guesses the sizes of gaps, which withSizes then replaces as far as an index tells them. A full block is as long
    // as the longest one found. A gap counts as the number of full blocks that its bytes would make, within the number
    // that the heading counts. The rest of that number goes after the last block found, if the file is cut before the
    // index or has no gap, and otherwise into the first gap.
    void guessSizes() {
        std::int64_t full = 1;
        std::int64_t stored = 0;
        std::int64_t found = 0;
        for (const surveySegment& block : fSegments) {
            if (block.isLost()) continue;
            full = std::max(full, block.size);
            stored += block.length;
            ++found;
        }
        if (found == 0) return;
        const std::int64_t average = stored / found;
        const std::int64_t segments = std::ssize(fSegments);
        const bool hasGap = found != segments;
        std::optional<std::int64_t> count = fCount;
        if (fReport.hadIndex) count = hasGap ? segments : std::ssize(records());  // withSizes sizes gaps by the index
        std::int64_t missing =
            std::max<std::int64_t>(count.value_or(std::numeric_limits<std::int64_t>::max()) - segments, 0);
        for (surveySegment& gap : fSegments) {
            if (!gap.isLost()) continue;
            const std::int64_t blocks = std::min((gap.most / kBestRatio + average / 2) / average, gap.most / full);
            const std::int64_t more = std::clamp<std::int64_t>(blocks - 1, 0, missing);
            gap.size = std::min((more + 1) * full, gap.most);
            missing -= more;
        }
        if (!count || missing == 0) return;
        if (hasGap && fHeading._indexPos <= fWindow.fileSize()) {
            surveySegment& first = *std::ranges::find_if(fSegments, &surveySegment::isLost);
            first.size = std::min(first.size + missing * full, first.most);
        } else {
            const char* why = fReport.hadIndex ? kDamaged : kGone;
            fSegments.push_back({missing * full, fPlace, fRecorded.expected(), 0, true, why, missing * kBlockSize});
        }
    }

    // Fills in the report what the heading vouches for, and whether its last block was rewritten.
    void reportCommitted() {
        const std::span committed = std::span(fSegments).first(committedSegments());
        for (const surveySegment& segment : committed) fReport.committedRows += segment.size;
        fReport.lastRewritten = std::ranges::any_of(
            fSegments, [&](const surveySegment& segment) { return isLast(segment) && !isAsRecorded(segment); });
        if (committed.empty() || committed.back().isLost()) return;
        const surveySegment& last = committed.back();
        const bool goesOn =
            committed.size() < fSegments.size() && fSegments[committed.size()].place < fHeading._indexPos;
        fReport.lastRewritten |= goesOn || last.place + last.length > fHeading._indexPos;
    }

    std::size_t committedSegments() const {
        if (!fReport.hadHeading) return 0;
        if (fCount && std::ranges::none_of(fSegments, &surveySegment::estimated)) {
            return std::min(static_cast<std::size_t>(*fCount), fSegments.size());
        }
        // The number of blocks in the gaps is unknown.
        const auto isPastBlocks = [&](std::int64_t place) { return place >= fHeading._indexPos; };
        const auto uncommitted = std::ranges::find_if(fSegments, isPastBlocks, &surveySegment::place);
        return static_cast<std::size_t>(uncommitted - fSegments.begin());
    }

    // The complete stream at `place`. Trying costs work of the budget if there is none.
    std::optional<blockOutcome> streamAt(std::int64_t place, workBudget& budget, std::uint32_t likely) {
        if (budget.exhausted()) return std::nullopt;
        const std::int64_t before = fStreams.bytesRead();
        const blockOutcome outcome = fStreams.at(place, likely);
        if (outcome.end == blockOutcome::complete && outcome.produced != 0) return outcome;
        budget.spend(workOf(outcome) + fStreams.bytesRead() - before);
        return std::nullopt;
    }

    // The first place from `from` on where a complete stream begins. Each trial first reads little: most bytes that
    // look like a stream turn out false within a few bytes.
    std::optional<std::int64_t> nextStream(std::int64_t from, std::int64_t end) {
        const auto isStream = [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
            if (!couldBeginStream(bytes) || fSearchBudget.exhausted()) return false;
            return streamAt(place, fSearchBudget, 0).has_value();
        };
        return fWindow.find(from, end, 2, isStream);
    }

    // Called when a search has skipped a hole of `skipped` bytes and read `read` bytes at `place`.
    void searched(std::int64_t place, std::int64_t skipped, std::int64_t read) {
        fTell(place);
        fSkipped += skipped;
        fSearchBudget.earn(kEarnedBySearch * read);
    }

    zlibStreams& fStreams;
    const std::function<void(std::int64_t)>& fTell;
    recoverReport& fReport;
    ORVA_File& fFile = fStreams.file();
    fileWindow fWindow{fFile, [this](auto... moved) { searched(moved...); }};
    // What the heading says, and the index.
    compressionHeading fHeading{};
    std::optional<std::int64_t> fCount;  // blocks that the heading counts, if they fit
    recordedPlaces fRecorded;
    bool bLookedForIndex = false;
    // The walk.
    surveySegments fSegments;
    std::int64_t fPlace = 0;  // end of the last block taken, where the next one begins
    std::int64_t fBlocksEnd =
        fWindow.fileSize();              // from here on, only blocks that follow the last one directly are taken
    std::uint32_t fLikely = kBlockSize;  // expected length of the next block
    workBudget fSearchBudget;
    std::int64_t fSkipped = 0;  // bytes of holes that the search has skipped in this gap
    // Trials at the recorded places.
    workBudget fRecordBudget;
    std::int64_t fTried = 0;                      // the last place tried
    std::optional<surveySegment> fRecordedBlock;  // the block found at one of them last
};

}  // namespace

std::optional<surveySegments> surveyed(zlibStreams& streams, const recoverOptions& options,
                                       const std::function<void(std::int64_t)>& tell, recoverReport& report) {
    return partSurvey(streams, tell, report).run(options);
}

}  // namespace orva
