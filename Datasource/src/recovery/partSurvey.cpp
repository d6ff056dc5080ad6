#include "recovery/partSurvey.h"

#include "format/blockTransfer.h"
#include "format/indexTransfer.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
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

}  // namespace

partSurvey::partSurvey(ORVA_File& file)
    : fFile(file), fWindow(file), fLimit(fWindow.fileSize()), fCompressed(kBlockSize), fRows(kBlockSize) {}

bool partSurvey::run(const recoverOptions& options) {
    fTell = options.tell;
    fWindow.onMove([this](std::int64_t place) { tell(place, false); });
    const std::optional<foundPart> found = locate(options);
    if (!found) return false;
    report.part = *found;
    if (report.part.row0Pos <= 0 || report.part.row0Pos > fWindow.fileSize() - kHeadingSize) return false;
    takeHeading();
    walk();
    segments = withSizes(segments, fIndex, report.part.row0Pos);
    commit(options.onlyCommitted);
    if (segments.empty()) return report.hadIndex || fCount == 0;
    return std::any_of(segments.begin(), segments.end(), [](const surveySegment& s) { return s.length != 0; });
}

std::optional<foundPart> partSurvey::locate(const recoverOptions& options) {
    if (options.part) return options.part;
    if (const std::optional<foundPart> found = findPart(fFile.GetNameStr().GetGeneric())) return found;
    const std::optional<std::int64_t> first = nextStream(kHeadingSize + 1, fWindow.fileSize());
    if (!first) return std::nullopt;
    return foundPart{*first - kHeadingSize, false};
}

void partSurvey::takeHeading() {
    try {
        fHeading = readHeading(fFile, report.part.row0Pos, report.part.swapped, "Analyze dictionary part error!");
    } catch (const DamagedFileError&) {
        return;
    }
    report.hadHeading = breachOf(fHeading) == nullptr;
    if (!report.hadHeading) return;
    fLimit = fHeading._indexPos;
    const std::int64_t count = fHeading._size / kRecordSize - 1;
    if (count <= (fLimit - report.part.row0Pos - kHeadingSize) / kShortestStream) fCount = count;
    takeIndex(fHeading, report.part.swapped);
}

void partSurvey::walk() {
    fPlace = fNextPlace = report.part.row0Pos + kHeadingSize;
    while (fPlace < fWindow.fileSize() && !allSeen()) {
        tell(fPlace, false);
        if (const std::optional<blockOutcome> found = streamAt(fPlace, fPatience)) {
            takeBlock(*found);
        } else if (!bridge()) {
            return;
        }
    }
}

bool partSurvey::allSeen() const {
    return report.hadIndex && (fIndex.empty() || bLastAsRecorded || endOf(fIndex.size() - 1) == fPlace);
}

// Length or rows as recorded: one of the two can lie. A last block with other ones was rewritten by an append, which
// may have added more.
void partSurvey::takeBlock(const blockOutcome& found) {
    const std::optional<std::size_t> number = numberHere();
    segments.push_back({found.produced, fPlace, number, found.consumed});
    if (number) {
        const filePosRecord& record = fIndex[*number];
        fNext = *number;
        fNextPlace = fPlace + record.translateSize;
        const bool asRecorded = record.orginalSize == segments.back().size || fNextPlace == fPlace + found.consumed;
        bLastAsRecorded = asRecorded && fNext + 1 == fIndex.size();
        report.lastRewritten = !asRecorded && fNext + 1 == fIndex.size();
    }
    ++fNext;
    fPlace += found.consumed;
    fPatience.earn(kEarnedByBlock * workOf(found));
    fUsualLength = found.consumed;
}

// Over what is no whole stream to the next one that is. False at the end of what there is.
bool partSurvey::bridge() {
    if (!report.hadIndex && !bLookedForIndex) findLaterIndex();
    if (fPlace >= fLimit || (report.hadIndex && (allSeen() || fNext >= fIndex.size()))) return false;
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

// The first place behind this one that a record names and where a whole stream stands. Where all records up to there
// name one place behind the other, nothing was overlooked; but for blocks between two places where bytes came or went.
partSurvey::resumption partSurvey::resumeByIndex(bool inStep) {
    std::int64_t end = inStep ? fPlace : kNowhere;  // of the record before
    std::int64_t tried = fPlace;
    const std::size_t next = fNext + 1;
    const auto resumes = [&](std::int64_t place, std::size_t number) {
        const bool isNew = place > fPlace && place < fLimit && std::exchange(tried, place) != place;
        if (!isNew || number == fIndex.size() || !streamAt(place, fIndexPatience)) return false;
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
        inStep = inStep && (place == end || end == fPlace);
        end = (end == fPlace ? fPlace : place) + fIndex[i].translateSize;
        if (resumes(end, i + 1)) return {end, sure(i + 1)};
        earnByLoss(place, end);
    }
    return {std::nullopt, sure(fIndex.size()) && report.hadIndex && !fIndexPatience.exhausted()};
}

// A lost block that is passed earns too, once and not in a hole. To look at its record costs a little.
void partSurvey::earnByLoss(std::int64_t place, std::int64_t end) {
    fIndexPatience.spend(kRecordSize);
    const std::int64_t from = std::max(place, fEarnedTo);
    if (from >= end || end > fWindow.fileSize() || fFile.nextStored(from) >= end) return;
    fIndexPatience.earn(kEarnedByBlock * (end - from));
    fEarnedTo = end;
}

bool partSurvey::takeIndex(const compressionHeading& heading, bool swapped) {
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
void partSurvey::findLaterIndex() {
    bLookedForIndex = true;
    fWindow.find(fPlace, fWindow.fileSize(), kRecordSize,
                 [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
                     return fPatience.exhausted() || takeLaterIndex(place, bytes);
                 });
}

bool partSurvey::takeLaterIndex(std::int64_t place, const unsigned char* bytes) {
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

// Bytes that came into the file, or are lost from it, have moved all that stands behind them by as many. An index that
// no heading points to shows how many: it stands where the last block ends.
void partSurvey::seeIfMoved(std::int64_t place) {
    const filePosRecord& last = fIndex.back();
    if (last.translatePos < 0 || last.translatePos - kBlockSize > fWindow.fileSize()) return;
    fMoved = place - last.translatePos - last.translateSize;
    if (fMoved != 0) fHeading._indexPos = place;
}

// One that no heading points to is believed if it says of all blocks seen what they said themselves.
bool partSurvey::tellsOfBlocksSeen(const std::vector<filePosRecord>& index, std::int64_t place) const {
    const auto same = [](const surveySegment& seen, const filePosRecord& record) {
        return record.translatePos == seen.place && record.translateSize == std::int64_t{seen.length} &&
               record.orginalSize == seen.size;
    };
    if (index.size() < segments.size() || !std::equal(segments.begin(), segments.end(), index.begin(), same))
        return false;
    if (index.size() > segments.size()) return index[segments.size()].translatePos == fPlace;
    return !segments.empty() || place == fPlace;
}

std::int64_t partSurvey::placeOf(std::size_t number, std::int64_t moved) const {
    const std::int64_t place = fIndex[number].translatePos;
    return place >= 0 && place <= fWindow.fileSize() - moved ? place + moved : kNowhere;
}
std::int64_t partSurvey::endOf(std::size_t number) const {
    return placeOf(number) + fIndex[number].translateSize;
}

// The record that tells of the place where the walk is: the next one, by its own word or by the end of the one before;
// else a later one.
std::optional<std::size_t> partSurvey::numberHere() {
    if (fNext < fIndex.size() && (fNextPlace == fPlace || placeOf(fNext) == fPlace)) return fNext;
    for (std::size_t i = fNext; i < fIndex.size() && !fIndexPatience.exhausted(); ++i) {
        fIndexPatience.spend(kRecordSize);
        if (placeOf(i) == fPlace) return i;
    }
    return std::nullopt;
}

// The heading of a part whose index is gone still tells where the index stood and how many blocks it had.
void partSurvey::commit(bool onlyCommitted) {
    if (report.hadHeading && fCount && !report.hadIndex) addMissing(*fCount);
    const std::size_t committed = committedSegments();
    for (std::size_t i = 0; i < committed; ++i) report.committedRows += segments[i].size;
    if (committed != 0 && segments[committed - 1].length != 0) {
        const surveySegment& last = segments[committed - 1];
        const bool goesOn = committed < segments.size() && segments[committed].place < fHeading._indexPos;
        report.lastRewritten = report.lastRewritten || goesOn || last.place + last.length > fHeading._indexPos;
    }
    if (onlyCommitted) segments.resize(committed);
}

std::size_t partSurvey::committedSegments() const {
    if (!report.hadHeading) return 0;
    const auto isGuess = [](const surveySegment& segment) { return segment.estimated; };
    if (fCount && std::none_of(segments.begin(), segments.end(), isGuess)) {
        return std::min(static_cast<std::size_t>(*fCount), segments.size());
    }
    // How many blocks the gaps stand for is not known.
    const auto behind = std::find_if(segments.begin(), segments.end(),
                                     [&](const surveySegment& segment) { return segment.place >= fHeading._indexPos; });
    return static_cast<std::size_t>(behind - segments.begin());
}

// Blocks that the walk did not see lie in the first gap, as far as it has room, or behind the last block seen.
void partSurvey::addMissing(std::int64_t count) {
    const std::int64_t missing = count - static_cast<std::int64_t>(segments.size());
    if (missing <= 0) return;
    const auto gap = std::find_if(segments.begin(), segments.end(), [](const auto& s) { return s.length == 0; });
    if (gap != segments.end()) {
        gap->size = std::min((missing + 1) * kBlockSize, gap->most);
        return;
    }
    segments.push_back(
        {missing * kBlockSize, fPlace, {}, 0, true, "its blocks are gone, and no index tells their size"});
}

std::optional<blockOutcome> partSurvey::streamAt(std::int64_t place, patience& left) {
    if (place < report.part.row0Pos + kHeadingSize || place >= fWindow.fileSize() || left.exhausted())
        return std::nullopt;
    const std::int64_t before = fRead;
    const blockOutcome outcome = inflateAt(place, fUsualLength + fUsualLength / 4);
    if (outcome.end == blockOutcome::complete && outcome.produced != 0) return outcome;
    left.spend(workOf(outcome) + fRead - before);
    return std::nullopt;
}

// Reads further only as far as the stream goes on: a file of very short blocks would be read many times over.
blockOutcome partSurvey::inflateAt(std::int64_t place, std::uint32_t firstRead) {
    for (std::uint32_t size = std::clamp(firstRead, 4096U, kBlockSize);; size = std::min(size, kBlockSize / 8) * 8) {
        const std::uint32_t count = fFile.Read(fCompressed.get(), size, place);
        fRead += count;
        const blockOutcome outcome = fCodec.inflateWhole(fCompressed.get(), count, fRows.get(), kBlockSize);
        if (outcome.end == blockOutcome::notStarted || outcome.end == blockOutcome::noMemory) throw std::bad_alloc();
        const bool ranOut = outcome.end == blockOutcome::incomplete && outcome.consumed == count && count == size;
        if (!ranOut || size == kBlockSize) return outcome;
    }
}

// The first place from `from` on where a whole stream stands. A look into the window comes first: nearly all that look
// like a stream end within some bytes.
std::optional<std::int64_t> partSurvey::nextStream(std::int64_t from, std::int64_t end) {
    const auto isStream = [&](std::int64_t place, const unsigned char* bytes, std::uint32_t count) {
        if (!couldBeginStream(bytes) || fPatience.exhausted()) return false;
        fPatience.earn(kEarnedBySearch * fWindow.newlyRead());
        const blockOutcome glance = fCodec.inflateWhole(bytes, count, fRows.get(), kBlockSize);
        if (glance.end == blockOutcome::complete) return glance.produced != 0;
        fPatience.spend(workOf(glance));
        return glance.consumed == count && streamAt(place, fPatience).has_value();
    };
    return fWindow.find(from, end, 2, isStream);
}

// An index may send the walk back, which takes nothing from what was done.
void partSurvey::tell(std::int64_t place, bool again) {
    if (!fTell) return;
    const std::int64_t size = fWindow.fileSize();
    fDone = std::max(fDone, std::min(place, size) + (again ? size : 0));
    fTell(fDone, 2 * size);
}

const unsigned char* partSurvey::rowsOf(const surveySegment& segment) {
    const blockOutcome found = inflateAt(segment.place, segment.length);
    return found.end == blockOutcome::complete && found.produced == segment.size && found.consumed == segment.length
               ? fRows.get()
               : nullptr;
}

}  // namespace orva
