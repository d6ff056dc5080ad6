#include "recovery/partSurvey.h"

#include "format/indexTransfer.h"
#include "part/keptTail.h"
#include "recovery/fileWindow.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <span>
#include <utility>

namespace orva {

namespace {

// A zlib stream holds no more rows for each of its bytes, and is no shorter.
constexpr std::int64_t kBestRatio = 1032;
constexpr std::int64_t kShortestStream = 9;

// What a trial costs beside the bytes that it moves; what is earned by each byte searched, and by each of a block
// found.
constexpr std::int64_t kTrial = 4096;
constexpr std::int64_t kEarnedBySearch = 16;
constexpr std::int64_t kEarnedByBlock = 4;

constexpr std::int64_t kNowhere =
    std::numeric_limits<std::int64_t>::min() / 2;  // where a record outside the file points

constexpr const char* kDamaged = "its block is damaged";
constexpr const char* kDamagedUntold = "its block is damaged, and no index tells its size";
constexpr const char* kGone = "its blocks are gone, and no index tells their size";
constexpr const char* kGivenUp =
    "the search was given up here: what stands here could be taken for blocks again and again";

std::int64_t workOf(const blockOutcome& trial) {
    return kTrial + trial.produced + trial.consumed;
}

std::int64_t mostRowsOf(std::int64_t bytes) {
    return std::clamp<std::int64_t>(bytes, 1, std::numeric_limits<std::int64_t>::max() / kBestRatio / 2) * kBestRatio;
}

// The first two bytes of a zlib stream with the full window, as every writer of this format makes it.
bool couldBeginStream(const unsigned char* bytes) {
    return bytes[0] == 0x78 && (bytes[0] * 256 + bytes[1]) % 31 == 0 && (bytes[1] & 0x20) == 0;
}

// How much may still be tried in vain before a file counts as made to be tried for ever, in bytes through the codec, or
// as much work as that many would be. What is read and found earns more, so that a long file with much damage is
// searched to its end.
class patience {
public:
    void spend(std::int64_t work) { fLeft -= work; }
    void earn(std::int64_t work) { fLeft += work; }
    bool exhausted() const { return fLeft < 0; }

private:
    std::int64_t fLeft = std::int64_t{1} << 28;
};

// Where the block of that record stands.
struct recordedPlace {
    std::int64_t place;
    std::size_t number;
};

class partSurvey {
public:
    partSurvey(zlibStreams& streams, const std::function<void(std::int64_t)>& tell, recoverReport& report)
        : fStreams(streams), fTell(tell), fReport(report) {}

    std::optional<surveySegments> run(const recoverOptions& options) {
        const std::optional<foundPart> part = locate(options);
        if (!part || part->row0Pos <= 0 || part->row0Pos > fWindow.fileSize() - kHeadingSize) return std::nullopt;
        fReport.part = *part;
        takeHeading();
        walk();
        guessSizes();
        fSegments = withSizes(fSegments, fIndex, part->row0Pos);
        commit();
        if (options.onlyCommitted) fSegments.resize(committedSegments());
        const bool hasRows = fSegments.empty() ? fCount == 0 || (fReport.hadIndex && fIndex.empty())
                                               : !std::ranges::all_of(fSegments, &surveySegment::isLost);
        return hasRows ? std::optional(std::move(fSegments)) : std::nullopt;
    }

private:
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
            fLimit = fHeading._indexPos;
        }
        if (std::optional<foundIndex> index = indexAt(fHeading, swapped)) take(std::move(*index));
    }

    void walk() {
        fPlace = fReport.part.row0Pos + kHeadingSize;
        fNext = {fPlace, 0};
        while (fPlace < fWindow.fileSize() && !allSeen()) {
            fTell(fPlace);
            if (const std::optional<blockOutcome> found = streamAt(fPlace, fPatience, fLikely)) {
                takeBlock(*found);
            } else if (!bridge()) {
                return;
            }
        }
    }

    // A last block with other rows and another length than recorded was rewritten by an append, which may have added
    // more.
    bool allSeen() const {
        if (!fReport.hadIndex || isShort()) return false;
        return fIndex.empty() || (!fSegments.empty() && isLast(fSegments.back()) && isAsRecorded(fSegments.back()));
    }
    // The index has fewer blocks than the heading vouches for.
    bool isShort() const { return fCount && *fCount > std::ssize(fIndex); }
    bool isLast(const surveySegment& taken) const {
        return !taken.isLost() && taken.number && *taken.number + 1 == fIndex.size();
    }
    // Length or rows: one of the two can lie.
    bool isAsRecorded(const surveySegment& taken) const {
        const filePosRecord& record = fIndex[*taken.number];
        return record.orginalSize == taken.size || record.translateSize == std::int64_t{taken.length};
    }

    void takeBlock(const blockOutcome& found) {
        const std::optional<std::size_t> number = numberHere();
        fSegments.push_back({found.produced, fPlace, number, found.consumed});
        if (number) fNext = {fPlace + fIndex[*number].translateSize, *number + 1};
        fPlace += found.consumed;
        fPatience.earn(kEarnedByBlock * workOf(found));
        fLikely = found.consumed + found.consumed / 4;
    }

    // Over what is no whole stream to the next one that is. False at the end of what there is.
    bool bridge() {
        if (!fReport.hadIndex && !bLookedForIndex) findLaterIndex();
        const bool noMoreTold = fReport.hadIndex && !isShort() && fNext.number >= fIndex.size();
        if (fPlace >= fLimit || allSeen() || noMoreTold) return false;
        const std::int64_t end = fReport.hadIndex ? fLimit : fWindow.fileSize();
        const std::optional<std::size_t> number = numberHere();
        const std::optional<recordedPlace> told = resumption(number.has_value());
        std::optional<std::int64_t> next;
        if (told) next = told->place;
        fWindow.newlyPassed();
        const bool isSure = number && !mayBeOverlooked(told);
        const std::optional<std::int64_t> earlier = isSure ? std::nullopt : nextStream(fPlace + 1, next.value_or(end));
        if (earlier) next = earlier;
        const bool givenUp = !next && fPatience.exhausted();
        if (!next && !fReport.hadIndex && !givenUp) return false;
        const std::int64_t most = mostRowsOf(next.value_or(end) - fPlace - fWindow.newlyPassed());
        const char* why = givenUp ? kGivenUp : fReport.hadIndex ? kDamaged : kDamagedUntold;
        fSegments.push_back({0, fPlace, number, 0, true, why, most});
        if (earlier && number) fNext.number = *number + 1;
        if (!earlier) fNext = told.value_or(fNext);
        fPlace = next.value_or(fPlace);
        return next.has_value();
    }

    // The first place behind this one that a record names, or the end of the one before, and where a whole stream
    // stands. `isHere`: the next record tells of this place, whatever place it names.
    std::optional<recordedPlace> resumption(bool isHere) {
        std::int64_t tried = fPlace;
        const auto resumes = [&](const recordedPlace& at) {
            return at.place > fPlace && at.place < fLimit && std::exchange(tried, at.place) != at.place &&
                   at.number < fIndex.size() && streamAt(at.place, fIndexPatience, fLikely);
        };
        for (std::size_t i = fNext.number; i < fIndex.size() && !fIndexPatience.exhausted(); ++i) {
            const std::int64_t place = std::exchange(isHere, false) ? fPlace : placeOf(i);
            const std::int64_t end = place + fIndex[i].translateSize;
            for (const recordedPlace& at : {recordedPlace{placeOf(i), i}, {placeOf(i, fMoved), i}, {end, i + 1}}) {
                if (resumes(at)) return at;
            }
            earnByLoss(place, end);
        }
        return std::nullopt;
    }

    // Where all records up to there name one place behind the other, nothing was overlooked; but for blocks between two
    // places where bytes came or went.
    bool mayBeOverlooked(const std::optional<recordedPlace>& next) const {
        if (!next && (!fReport.hadIndex || isShort() || fIndexPatience.exhausted())) return true;
        const std::size_t number = next ? next->number : fIndex.size();
        if (fMoved != 0 && number > fNext.number + 1) return true;
        std::int64_t end = fPlace;
        for (std::size_t i = fNext.number; i < number; ++i) {
            if (i != fNext.number && placeOf(i) != end) return true;
            end += fIndex[i].translateSize;
        }
        return false;
    }

    // A lost block that is passed earns too, once and not in a hole. To look at its record costs a little.
    void earnByLoss(std::int64_t place, std::int64_t end) {
        fIndexPatience.spend(kRecordSize);
        const std::int64_t from = std::max(place, fEarnedTo);
        if (from >= end || end > fWindow.fileSize() || fFile.nextStored(from) >= end) return;
        fIndexPatience.earn(kEarnedByBlock * (end - from));
        fEarnedTo = end;
    }

    struct foundIndex {
        std::int64_t place;
        std::vector<filePosRecord> records;
        std::int64_t moved;  // bytes by which blocks may stand behind the places that it tells
    };

    std::optional<foundIndex> indexAt(const compressionHeading& heading, bool swapped) {
        try {
            return foundIndex{heading._indexPos, readRecords(fFile, heading, swapped).records, 0};
        } catch (const DamagedFileError&) {
            return std::nullopt;
        }
    }

    void take(foundIndex index) {
        fIndex = std::move(index.records);
        fMoved = index.moved;
        if (fMoved != 0) fHeading._indexPos = index.place;
        fLimit = index.place;
        fNext.number = fSegments.size();
        fReport.hadIndex = true;
    }

    // The heading may be lost or point elsewhere, and an index stand further on: at the end of its last block, or else
    // elsewhere, as that of a file does whose bytes are rows of this one.
    void findLaterIndex() {
        bLookedForIndex = true;
        std::optional<foundIndex> elsewhere;  // the first one
        const auto isIndex = [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
            filePosRecord first;
            std::memcpy(&first, bytes, sizeof first);
            const bool swapped = swapBytes(first.orginalPos) == kFirstRecordMark;
            if (fPatience.exhausted()) return true;
            if (!swapped && first.orginalPos != kFirstRecordMark) return false;
            if (swapped) swapRecord(first);
            const std::int64_t size = (first.translateSize + std::int64_t{1}) * kRecordSize;
            std::optional<foundIndex> index = indexAt({fReport.part.row0Pos, place, size}, swapped);
            if (index && tellsOfBlocksSeen(index->records, place)) {
                index->moved = movedBy(index->records, place);
                if (index->moved == 0) return take(std::move(*index)), true;
                if (!elsewhere) elsewhere = std::move(index);
            }
            fPatience.earn(kEarnedBySearch * fWindow.newlyRead());
            fPatience.spend(2 * kTrial);
            return false;
        };
        if (!fWindow.find(fPlace, fWindow.fileSize(), kRecordSize, isIndex) && elsewhere) take(std::move(*elsewhere));
    }

    // Bytes that came into the file, or are lost from it, have moved all that stands behind them by as many. An index
    // that no heading points to shows how many: it stands where the last block ends.
    std::int64_t movedBy(const std::vector<filePosRecord>& index, std::int64_t place) const {
        const std::int64_t last = index.empty() ? -1 : index.back().translatePos;
        const bool isTold = last >= 0 && last - kBlockSize <= fWindow.fileSize();
        return isTold ? place - last - index.back().translateSize : 0;
    }

    // One that no heading points to is believed if it says of all blocks seen what they said themselves.
    bool tellsOfBlocksSeen(const std::vector<filePosRecord>& index, std::int64_t place) const {
        const auto same = [](const surveySegment& seen, const filePosRecord& record) {
            return record.translatePos == seen.place && record.translateSize == std::int64_t{seen.length} &&
                   record.orginalSize == seen.size;
        };
        const std::size_t seen = fSegments.size();
        if (index.size() < seen || !std::equal(fSegments.begin(), fSegments.end(), index.begin(), same)) return false;
        return index.size() > seen ? index[seen].translatePos == fPlace : seen != 0 || place == fPlace;
    }

    std::int64_t placeOf(std::size_t number, std::int64_t moved = 0) const {
        const std::int64_t place = fIndex[number].translatePos;
        return place >= 0 && place <= fWindow.fileSize() - moved ? place + moved : kNowhere;
    }

    // The record that tells of the place where the walk is: the next one, by its own word or by the end of the one
    // before; else a later one.
    std::optional<std::size_t> numberHere() {
        const std::size_t next = fNext.number;
        if (next < fIndex.size() && (fNext.place == fPlace || placeOf(next) == fPlace)) return next;
        for (std::size_t i = next; i < fIndex.size() && !fIndexPatience.exhausted(); ++i) {
            fIndexPatience.spend(kRecordSize);
            if (placeOf(i) == fPlace) return i;
        }
        return std::nullopt;
    }

    // Until an index tells more. A full block is as long as the longest one found. A gap without an index stands for as
    // many as its bytes would make, of those that a heading vouches for. The rest of them lies behind the last block
    // found, where the file is cut before the index, or where there is no gap; else in the first gap.
    void guessSizes() {
        std::int64_t full = 1, stored = 0, found = 0;
        for (const surveySegment& block : fSegments) {
            if (!block.isLost()) full = std::max(full, block.size), stored += block.length, ++found;
        }
        if (found == 0) return;
        const std::int64_t usual = stored / found, seen = std::ssize(fSegments);
        const bool hasGap = found != seen;
        std::optional<std::int64_t> told = fCount;
        if (fReport.hadIndex) told = hasGap ? seen : std::ssize(fIndex);  // of a gap it tells by itself
        std::int64_t missing =
            std::max<std::int64_t>(told.value_or(std::numeric_limits<std::int64_t>::max()) - seen, 0);
        for (surveySegment& gap : fSegments) {
            if (!gap.isLost()) continue;
            const std::int64_t blocks = std::min((gap.most / kBestRatio + usual / 2) / usual, gap.most / full);
            const std::int64_t more = std::clamp<std::int64_t>(blocks - 1, 0, missing);
            gap.size = std::min((more + 1) * full, gap.most);
            missing -= more;
        }
        if (!told || missing == 0) return;
        if (hasGap && fHeading._indexPos <= fWindow.fileSize()) {
            surveySegment& first = *std::ranges::find_if(fSegments, &surveySegment::isLost);
            first.size = std::min(first.size + missing * full, first.most);
        } else {
            const char* why = fReport.hadIndex ? kDamaged : kGone;
            const auto number = fNext.number < fIndex.size() ? std::optional(fNext.number) : std::nullopt;
            fSegments.push_back({missing * full, fPlace, number, 0, true, why, missing * kBlockSize});
        }
    }

    void commit() {
        const std::int64_t indexPos = fHeading._indexPos;
        const std::span committed = std::span(fSegments).first(committedSegments());
        for (const surveySegment& segment : committed) fReport.committedRows += segment.size;
        fReport.lastRewritten = std::ranges::any_of(
            fSegments, [&](const surveySegment& segment) { return isLast(segment) && !isAsRecorded(segment); });
        if (committed.empty() || committed.back().isLost()) return;
        const surveySegment& last = committed.back();
        const bool goesOn = committed.size() < fSegments.size() && fSegments[committed.size()].place < indexPos;
        fReport.lastRewritten |= goesOn || last.place + last.length > indexPos;
    }

    std::size_t committedSegments() const {
        if (!fReport.hadHeading) return 0;
        if (fCount && std::ranges::none_of(fSegments, &surveySegment::estimated)) {
            return std::min(static_cast<std::size_t>(*fCount), fSegments.size());
        }
        // How many blocks the gaps stand for is not known.
        const auto isBehind = [&](std::int64_t place) { return place >= fHeading._indexPos; };
        const auto behind = std::ranges::find_if(fSegments, isBehind, &surveySegment::place);
        return static_cast<std::size_t>(behind - fSegments.begin());
    }

    std::optional<blockOutcome> streamAt(std::int64_t place, patience& left, std::uint32_t likely) {
        if (place < fReport.part.row0Pos + kHeadingSize || place >= fWindow.fileSize() || left.exhausted())
            return std::nullopt;
        const std::int64_t before = fStreams.bytesRead();
        const blockOutcome outcome = fStreams.at(place, likely);
        if (outcome.end == blockOutcome::complete && outcome.produced != 0) return outcome;
        left.spend(workOf(outcome) + fStreams.bytesRead() - before);
        return std::nullopt;
    }

    // The first place from `from` on where a whole stream stands. Nearly all that look like one end within some bytes.
    std::optional<std::int64_t> nextStream(std::int64_t from, std::int64_t end) {
        const auto isStream = [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
            if (!couldBeginStream(bytes) || fPatience.exhausted()) return false;
            fPatience.earn(kEarnedBySearch * fWindow.newlyRead());
            return streamAt(place, fPatience, 0).has_value();
        };
        return fWindow.find(from, end, 2, isStream);
    }

    zlibStreams& fStreams;
    const std::function<void(std::int64_t)>& fTell;
    recoverReport& fReport;
    surveySegments fSegments;
    ORVA_File& fFile = fStreams.file();
    fileWindow fWindow{fFile, fTell};
    compressionHeading fHeading{};
    std::optional<std::int64_t> fCount;  // blocks that the heading vouches for
    std::vector<filePosRecord> fIndex;
    std::int64_t fMoved = 0;                   // of that index
    std::int64_t fLimit = fWindow.fileSize();  // what stands from here on is there only as far as it joins on
    std::int64_t fPlace = 0;                   // behind the block taken last, where the next one begins
    recordedPlace fNext{};                     // of the next record, by the length that the one before tells
    bool bLookedForIndex = false;
    patience fPatience;
    patience fIndexPatience;
    std::int64_t fEarnedTo = 0;          // in the file, by lost blocks
    std::uint32_t fLikely = kBlockSize;  // length of a block
};

}  // namespace

std::optional<surveySegments> surveyed(zlibStreams& streams, const recoverOptions& options,
                                       const std::function<void(std::int64_t)>& tell, recoverReport& report) {
    return partSurvey(streams, tell, report).run(options);
}

}  // namespace orva
