#include "recovery/partSurvey.h"

#include "format/indexTransfer.h"
#include "recovery/fileWindow.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <limits>
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

class partSurvey {
public:
    partSurvey(zlibStreams& streams, const recoverOptions& options, const std::function<void(std::int64_t)>& tell)
        : fStreams(streams), fOptions(options), fTell(tell) {}

    bool run() {
        if (!locate() || report.part.row0Pos <= 0 || report.part.row0Pos > fWindow.fileSize() - kHeadingSize)
            return false;
        takeHeading();
        walk();
        segments = withSizes(segments, fIndex, report.part.row0Pos);
        commit();
        if (segments.empty()) return report.hadIndex || fCount == 0;
        return !std::ranges::all_of(segments, &surveySegment::isLost);
    }

    recoverReport report;
    std::vector<surveySegment> segments;

private:
    bool locate() {
        std::optional<foundPart> found = fOptions.part;
        if (!found) found = findPart(fFile.GetNameStr().GetGeneric());
        if (!found) {
            const std::optional<std::int64_t> first = nextStream(kHeadingSize + 1, fWindow.fileSize());
            if (first) found = foundPart{*first - kHeadingSize, false};
        }
        report.part = found.value_or(foundPart{});
        return found.has_value();
    }

    void takeHeading() {
        try {
            fHeading = readHeading(fFile, report.part.row0Pos, report.part.swapped, "Analyze dictionary part error!");
        } catch (const DamagedFileError&) {
            return;
        }
        report.hadHeading = breachOf(fHeading) == nullptr;
        if (!report.hadHeading) return;
        const std::int64_t count = fHeading._size / kRecordSize - 1;
        if (count <= (fHeading._indexPos - report.part.row0Pos - kHeadingSize) / kShortestStream) {
            fCount = count;
            fLimit = fHeading._indexPos;
        }
        takeIndex(fHeading, report.part.swapped);
    }

    void walk() {
        fPlace = fNextPlace = report.part.row0Pos + kHeadingSize;
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
        if (!report.hadIndex || isShort()) return false;
        return fIndex.empty() || endOf(fIndex.size() - 1) == fPlace ||
               (!segments.empty() && isLast(segments.back()) && isAsRecorded(segments.back()));
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
        segments.push_back({found.produced, fPlace, number, found.consumed});
        fNext = number.value_or(fNext);
        if (number) fNextPlace = fPlace + fIndex[fNext].translateSize;
        ++fNext;
        fPlace += found.consumed;
        fPatience.earn(kEarnedByBlock * workOf(found));
        fLikely = found.consumed + found.consumed / 4;
    }

    // Over what is no whole stream to the next one that is. False at the end of what there is.
    bool bridge() {
        if (!report.hadIndex && !bLookedForIndex) findLaterIndex();
        if (fPlace >= fLimit || allSeen() || (report.hadIndex && !isShort() && fNext >= fIndex.size())) return false;
        const std::int64_t end = report.hadIndex ? fLimit : fWindow.fileSize();
        const std::optional<std::size_t> number = numberHere();
        auto [next, sure] = resumeByIndex(number.has_value());
        fWindow.newlyPassed();
        if (!sure) {
            if (const auto earlier = nextStream(fPlace + 1, next.value_or(end))) {
                next = earlier;
                fNext = number.value_or(fNext) + 1;
            }
        }
        const bool givenUp = !next && fPatience.exhausted();
        if (!next && !report.hadIndex && !givenUp) return false;
        const std::int64_t most = mostRowsOf(next.value_or(end) - fPlace - fWindow.newlyPassed());
        segments.push_back({std::min<std::int64_t>(kBlockSize, most), fPlace, number, 0, true,
                            givenUp           ? kGivenUp
                            : report.hadIndex ? kDamaged
                                              : kDamagedUntold,
                            most});
        fPlace = next.value_or(fPlace);
        return next.has_value();
    }

    struct resumption {
        std::optional<std::int64_t> place;
        bool sure;  // no block before it was overlooked
    };
    // The first place behind this one that a record names and where a whole stream stands. Where all records up to
    // there name one place behind the other, nothing was overlooked; but for blocks between two places where bytes came
    // or went.
    resumption resumeByIndex(bool inStep) {
        std::int64_t end = kNowhere;  // of the record before
        std::int64_t tried = fPlace;
        const std::size_t next = fNext + 1;
        const auto resumes = [&](std::int64_t place, std::size_t number) {
            const bool isNew = place > fPlace && place < fLimit && std::exchange(tried, place) != place;
            if (!isNew || number == fIndex.size() || !streamAt(place, fIndexPatience, fLikely)) return false;
            fNext = number;
            fNextPlace = place;
            return true;
        };
        const auto sure = [&](std::size_t number) { return inStep && (fMoved == 0 || number <= next); };
        for (std::size_t i = fNext; i < fIndex.size() && !fIndexPatience.exhausted(); ++i) {
            const std::int64_t place = placeOf(i);
            if (resumes(place, i)) return {place, sure(i)};
            const std::int64_t moved = fMoved == 0 ? kNowhere : placeOf(i, fMoved);
            if (resumes(moved, i)) return {moved, sure(i)};
            const bool isHere = inStep && i == fNext;  // whatever place the record names
            inStep = isHere || (inStep && place == end);
            end = (isHere ? fPlace : place) + fIndex[i].translateSize;
            if (resumes(end, i + 1)) return {end, sure(i + 1)};
            earnByLoss(place, end);
        }
        return {std::nullopt, sure(fIndex.size()) && report.hadIndex && !isShort() && !fIndexPatience.exhausted()};
    }

    // A lost block that is passed earns too, once and not in a hole. To look at its record costs a little.
    void earnByLoss(std::int64_t place, std::int64_t end) {
        fIndexPatience.spend(kRecordSize);
        const std::int64_t from = std::max(place, fEarnedTo);
        if (from >= end || end > fWindow.fileSize() || fFile.nextStored(from) >= end) return;
        fIndexPatience.earn(kEarnedByBlock * (end - from));
        fEarnedTo = end;
    }

    bool takeIndex(const compressionHeading& heading, bool swapped) {
        try {
            std::vector<filePosRecord> index = readRecords(fFile, heading, swapped).records;
            if (bLookedForIndex && !tellsOfBlocksSeen(index, heading._indexPos)) return false;
            fIndex = std::move(index);
            if (bLookedForIndex && !fIndex.empty()) seeIfMoved(heading._indexPos);
            fLimit = heading._indexPos;
            fNext = segments.size();
            report.hadIndex = true;
        } catch (const DamagedFileError&) {
        }
        return report.hadIndex;
    }

    // The heading may be lost or point elsewhere, and an index stand further on.
    void findLaterIndex() {
        bLookedForIndex = true;
        fWindow.find(fPlace, fWindow.fileSize(), kRecordSize,
                     [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
                         return fPatience.exhausted() || takeLaterIndex(place, bytes);
                     });
    }

    bool takeLaterIndex(std::int64_t place, const unsigned char* bytes) {
        filePosRecord first;
        std::memcpy(&first, bytes, sizeof first);
        const bool swapped = swapBytes(first.orginalPos) == kFirstRecordMark;
        if (!swapped && first.orginalPos != kFirstRecordMark) return false;
        if (swapped) swapRecord(first);
        const std::int64_t size = (first.translateSize + std::int64_t{1}) * kRecordSize;
        if (takeIndex({report.part.row0Pos, place, size}, swapped)) return true;
        fPatience.earn(kEarnedBySearch * fWindow.newlyRead());
        fPatience.spend(2 * kTrial);
        return false;
    }

    // Bytes that came into the file, or are lost from it, have moved all that stands behind them by as many. An index
    // that no heading points to shows how many: it stands where the last block ends.
    void seeIfMoved(std::int64_t place) {
        const filePosRecord& last = fIndex.back();
        if (last.translatePos < 0 || last.translatePos - kBlockSize > fWindow.fileSize()) return;
        fMoved = place - last.translatePos - last.translateSize;
        if (fMoved != 0) fHeading._indexPos = place;
    }

    // One that no heading points to is believed if it says of all blocks seen what they said themselves.
    bool tellsOfBlocksSeen(const std::vector<filePosRecord>& index, std::int64_t place) const {
        const auto same = [](const surveySegment& seen, const filePosRecord& record) {
            return record.translatePos == seen.place && record.translateSize == std::int64_t{seen.length} &&
                   record.orginalSize == seen.size;
        };
        if (index.size() < segments.size() || !std::equal(segments.begin(), segments.end(), index.begin(), same))
            return false;
        if (index.size() > segments.size()) return index[segments.size()].translatePos == fPlace;
        return !segments.empty() || place == fPlace;
    }

    std::int64_t placeOf(std::size_t number, std::int64_t moved = 0) const {
        const std::int64_t place = fIndex[number].translatePos;
        return place >= 0 && place <= fWindow.fileSize() - moved ? place + moved : kNowhere;
    }
    std::int64_t endOf(std::size_t number) const { return placeOf(number) + fIndex[number].translateSize; }

    // The record that tells of the place where the walk is: the next one, by its own word or by the end of the one
    // before; else a later one.
    std::optional<std::size_t> numberHere() {
        if (fNext < fIndex.size() && (fNextPlace == fPlace || placeOf(fNext) == fPlace)) return fNext;
        for (std::size_t i = fNext; i < fIndex.size() && !fIndexPatience.exhausted(); ++i) {
            fIndexPatience.spend(kRecordSize);
            if (placeOf(i) == fPlace) return i;
        }
        return std::nullopt;
    }

    // The heading of a part whose index is gone still tells where the index stood and how many blocks it had.
    void commit() {
        report.lastRewritten = std::ranges::any_of(
            segments, [&](const surveySegment& segment) { return isLast(segment) && !isAsRecorded(segment); });
        if (report.hadHeading && fCount && !report.hadIndex) addMissing(*fCount);
        const std::size_t committed = committedSegments();
        for (std::size_t i = 0; i < committed; ++i) report.committedRows += segments[i].size;
        if (committed != 0 && !segments[committed - 1].isLost()) {
            const surveySegment& last = segments[committed - 1];
            const bool goesOn = committed < segments.size() && segments[committed].place < fHeading._indexPos;
            report.lastRewritten = report.lastRewritten || goesOn || last.place + last.length > fHeading._indexPos;
        }
        if (fOptions.onlyCommitted) segments.resize(committed);
    }

    std::size_t committedSegments() const {
        if (!report.hadHeading) return 0;
        if (fCount && std::ranges::none_of(segments, &surveySegment::estimated)) {
            return std::min(static_cast<std::size_t>(*fCount), segments.size());
        }
        // How many blocks the gaps stand for is not known.
        const auto isBehind = [&](std::int64_t place) { return place >= fHeading._indexPos; };
        const auto behind = std::ranges::find_if(segments, isBehind, &surveySegment::place);
        return static_cast<std::size_t>(behind - segments.begin());
    }

    // Blocks that the walk did not see lie in the first gap, as far as it has room, or behind the last block seen.
    void addMissing(std::int64_t count) {
        const std::int64_t missing = count - static_cast<std::int64_t>(segments.size());
        if (missing <= 0) return;
        const auto gap = std::ranges::find_if(segments, &surveySegment::isLost);
        if (gap != segments.end()) {
            gap->size = std::min((missing + 1) * kBlockSize, gap->most);
            return;
        }
        segments.push_back(
            {missing * kBlockSize, fPlace, {}, 0, true, "its blocks are gone, and no index tells their size"});
    }

    std::optional<blockOutcome> streamAt(std::int64_t place, patience& left, std::uint32_t likely) {
        if (place < report.part.row0Pos + kHeadingSize || place >= fWindow.fileSize() || left.exhausted())
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
    const recoverOptions& fOptions;
    const std::function<void(std::int64_t)>& fTell;
    ORVA_File& fFile = fStreams.file();
    fileWindow fWindow{fFile, fTell};
    compressionHeading fHeading{};
    std::optional<std::int64_t> fCount;  // blocks that the heading vouches for
    std::vector<filePosRecord> fIndex;
    std::int64_t fMoved = 0;                   // bytes by which blocks may stand behind the places that the index tells
    std::int64_t fLimit = fWindow.fileSize();  // what stands from here on is there only as far as it joins on
    std::int64_t fPlace = 0;                   // behind the block taken last, where the next one begins
    std::size_t fNext = 0;                     // the number of that one, as far as an index knows it
    std::int64_t fNextPlace = 0;               // where that one stands by the length of the record before
    bool bLookedForIndex = false;
    patience fPatience;
    patience fIndexPatience;
    std::int64_t fEarnedTo = 0;          // in the file, by lost blocks
    std::uint32_t fLikely = kBlockSize;  // length of a block
};

}  // namespace

std::optional<partFindings> surveyed(zlibStreams& streams, const recoverOptions& options,
                                     const std::function<void(std::int64_t)>& tell) {
    partSurvey survey(streams, options, tell);
    if (!survey.run()) return std::nullopt;
    return partFindings{std::move(survey.report), std::move(survey.segments)};
}

}  // namespace orva
