#include "recovery/partSurvey.h"

#include "format/blockTransfer.h"
#include "format/filePosInfo.h"
#include "format/indexTransfer.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace orva {

namespace {

// A zlib stream holds no more rows for each of its bytes, and is no shorter.
constexpr std::int64_t kBestRatio = 1032;
constexpr std::int64_t kShortestStream = 9;

// What a trial costs beside the bytes that it moves.
constexpr std::int64_t kTrial = 4096;
// So much may be tried in vain before a file counts as made to be tried for ever. Blocks that are found earn more, so
// that a long file with much damage is searched to its end.
constexpr std::int64_t kPatience = std::int64_t{1} << 28;
constexpr std::int64_t kPatienceForByte = 16;
constexpr std::int64_t kPatienceForTaken = 4;

constexpr const char* kGivenUp =
    "the search was given up here: what stands here could be taken for blocks again and again";

struct recordedRows {
    std::int64_t size;
    bool sure;
};

// How many rows the index gives block `i`, which begins at logical position `start`. Its own size and the position of
// the next block both tell, and one of the two can lie; whether the position does, the block behind it tells.
recordedRows recordedSize(const filePosInfo& index, std::uint32_t i, std::int64_t start) {
    const std::int64_t size = index.parsed(i).orginalSize;
    const bool last = i + 1 == index.parsedCount();
    std::int64_t distance = 0;
    if (last || __builtin_sub_overflow(index.parsed(i + 1).orginalPos, start, &distance) || !isBlockSize(distance)) {
        return {std::min<std::int64_t>(size, kBlockSize), true};
    }
    if (distance == size) return {size, true};
    const filePosRecord& next = index.parsed(i + 1);
    const bool nextIsRight =
        i + 2 < index.parsedCount() && next.orginalPos + next.orginalSize == index.parsed(i + 2).orginalPos;
    return {nextIsRight || !isBlockSize(size) ? distance : size, nextIsRight};
}

// The first two bytes of a zlib stream with the full window, as every writer of this format makes it.
bool couldBeginStream(const unsigned char* bytes) {
    return bytes[0] == 0x78 && (bytes[0] * 256 + bytes[1]) % 31 == 0 && (bytes[1] & 0x20) == 0;
}

}  // namespace

partSurvey::partSurvey(ORVA_File& file)
    : fFile(file), fFileSize(lengthOf(file)), fCompressed(kBlockSize), fWindow(kBlockSize), fRows(kBlockSize) {}

bool partSurvey::run(const recoverOptions& options) {
    const std::optional<foundPart> found = locate(options);
    if (!found) return false;
    part = *found;
    if (part.row0Pos <= 0 || part.row0Pos > fFileSize - kHeadingSize) return false;
    takeHeading();
    filePosInfo index(kBlockSize, fFile.GetNameStr().GetGeneric());
    if (hadHeading && parseIndex(fHeading, part.swapped, index) && readByIndex(index)) {
        committedRows = fLogical - part.row0Pos;
        if (lastRewritten && !options.onlyCommitted) takeJoining();
    } else {
        walk();
        commitWalked(options.onlyCommitted);
    }
    if (segments.empty()) return hadIndex || fCount == 0;
    return std::any_of(segments.begin(), segments.end(), [](const surveySegment& s) { return s.length != 0; });
}

std::optional<foundPart> partSurvey::locate(const recoverOptions& options) {
    if (options.part) return options.part;
    if (const std::optional<foundPart> found = findPart(fFile.GetNameStr().GetGeneric())) return found;
    const std::optional<std::int64_t> first = nextStream(kHeadingSize + 1, fFileSize);
    if (!first) return std::nullopt;
    return foundPart{*first - kHeadingSize, false};
}

void partSurvey::takeHeading() {
    try {
        fHeading = readHeading(fFile, part.row0Pos, part.swapped, "Analyze dictionary part error!");
    } catch (const DamagedFileError&) {
        return;
    }
    const std::int64_t first = part.row0Pos + kHeadingSize;
    hadHeading = fHeading._size >= kRecordSize && fHeading._indexPos >= first;
    if (!hadHeading || fHeading._size % kRecordSize != 0 || fHeading._size >> 32 != 0) return;
    const std::int64_t count = fHeading._size / kRecordSize - 1;
    if (count <= (fHeading._indexPos - first) / kShortestStream) fCount = count;
}

bool partSurvey::parseIndex(const compressionHeading& heading, bool swapped, filePosInfo& index) {
    try {
        loadIndex(fFile, heading, swapped, index);
        return true;
    } catch (const DamagedFileError&) {
        return false;
    }
}

// False for an index that tells of other blocks than those that stand there.
bool partSurvey::readByIndex(const filePosInfo& index) {
    const std::vector<surveySegment> before = std::exchange(segments, {});
    const std::int64_t takenBefore = fTaken;
    fPlace = part.row0Pos + kHeadingSize;
    bPlaceSure = true;
    hadIndex = true;
    fLogical = part.row0Pos;
    for (std::uint32_t i = 0; i < index.parsedCount() && hadIndex; ++i) {
        hadIndex = (fLogical - part.row0Pos) / kBestRatio <= fFileSize && takeRecord(index, i);
    }
    if (!hadIndex) {
        segments = before;
        fWasted += fTaken - takenBefore;
        fTaken = takenBefore;
    }
    return hadIndex;
}

// Blocks follow each other without gaps. So behind a block that could be read stands the next one, whatever its record
// says; and a whole stream knows better than its record how long it is. Both its record and the next one being wrong
// about its end, though, is no damage: the index is that of a former life.
bool partSurvey::takeRecord(const filePosInfo& index, std::uint32_t i) {
    const filePosRecord& record = index.parsed(i);
    const auto [size, sure] = recordedSize(index, i, fLogical);
    const bool last = i + 1 == index.parsedCount();
    const std::int64_t recorded = record.translatePos;
    std::optional<std::int64_t> tried;
    for (const std::int64_t place : {bPlaceSure ? fPlace : recorded, bPlaceSure ? recorded : fPlace}) {
        if (tried == place) continue;
        tried = place;
        const std::optional<stream> found = streamAt(place);
        if (!found) continue;
        const std::int64_t end = place + found->length;
        const bool endsAsRecorded =
            found->length == std::int64_t{record.translateSize} || (!last && end == index.parsed(i + 1).translatePos);
        if (!endsAsRecorded && !(last && (found->rows == size || place == fPlace))) {
            fWasted += workOf(*found);
            if (bPlaceSure && place == fPlace) return false;
            continue;
        }
        take(*found, place);
        lastRewritten = last && !endsAsRecorded && found->rows != size;
        fLogical += lastRewritten ? size : found->rows;
        fPlace = end;
        bPlaceSure = true;
        return true;
    }
    segments.push_back({size, recorded, 0, !sure, outOfPatience() ? kGivenUp : "its block is damaged"});
    fLogical += size;
    fPlace = recorded >= 0 && recorded <= fFileSize ? recorded + record.translateSize : kUnknown;
    bPlaceSure = false;
    return true;
}

// An append that cut rows may have written further blocks and not yet reached the old index.
void partSurvey::takeJoining() {
    while (const std::optional<stream> found = streamAt(fPlace)) {
        take(*found, fPlace);
        fPlace += found->length;
    }
}

// From block to block, each telling where it ends. Where that ends, an index may still tell of what comes then.
void partSurvey::walk() {
    std::int64_t place = part.row0Pos + kHeadingSize;
    bool searched = false;
    while (place < fFileSize) {
        if (const std::optional<stream> found = streamAt(place)) {
            take(*found, place);
            place += found->length;
            continue;
        }
        if (!searched && readByLaterIndex(place)) return;
        searched = true;
        // What stands behind the old index is there only as far as it joins on.
        if (hadHeading && place >= fHeading._indexPos) return;
        const std::optional<std::int64_t> next = nextStream(place + 1, fFileSize);
        if (!next && outOfPatience()) segments.push_back({kBlockSize, place, 0, true, kGivenUp});
        if (!next) return;
        segments.push_back({std::min<std::int64_t>(kBlockSize, (*next - place) * kBestRatio), place, 0, true,
                            "its block is damaged, and no index tells its size"});
        place = *next;
    }
}

// The first index from `from` on that tells of the blocks seen so far what they told themselves.
bool partSurvey::readByLaterIndex(std::int64_t from) {
    for (std::int64_t at = from; at + kRecordSize <= fFileSize && !outOfPatience();) {
        const std::uint32_t count = fFile.Read(fWindow.get(), kBlockSize, at);
        if (count < kRecordSize) break;
        for (std::uint32_t i = 0; i + kRecordSize <= count && !outOfPatience(); ++i) {
            filePosRecord first;
            std::memcpy(&first, fWindow.get() + i, sizeof first);
            const bool swapped = swapBytes(first.orginalPos) == kFirstRecordMark;
            if (!swapped && first.orginalPos != kFirstRecordMark) continue;
            if (swapped) swapRecord(first);
            filePosInfo index(kBlockSize, fFile.GetNameStr().GetGeneric());
            const std::int64_t size = (first.translateSize + std::int64_t{1}) * kRecordSize;
            if (parseIndex({part.row0Pos, at + i, size}, swapped, index) && continuesWalk(index, from) &&
                readByIndex(index)) {
                return true;
            }
            fWasted += kTrial + std::clamp<std::int64_t>(size, 0, fFileSize - at);
        }
        at += count - kRecordSize + 1;
    }
    return false;
}

bool partSurvey::continuesWalk(const filePosInfo& index, std::int64_t from) const {
    if (index.parsedCount() < segments.size()) return false;
    for (std::uint32_t i = 0; i < segments.size(); ++i) {
        const filePosRecord& record = index.parsed(i);
        const surveySegment& seen = segments[i];
        if (record.translatePos != seen.place || record.translateSize != static_cast<std::int64_t>(seen.length) ||
            record.orginalSize != seen.size) {
            return false;
        }
    }
    return index.parsedCount() == segments.size() ||
           index.parsed(static_cast<std::uint32_t>(segments.size())).translatePos == from;
}

// The heading of a part whose index is gone still tells where the index stood and how many blocks it had.
void partSurvey::commitWalked(bool onlyCommitted) {
    if (hadHeading && fCount && !hadIndex) addMissing(*fCount);
    const std::size_t committed = committedSegments();
    for (std::size_t i = 0; i < committed; ++i) committedRows += segments[i].size;
    if (committed != 0) {
        const surveySegment& last = segments[committed - 1];
        lastRewritten =
            last.length != 0 && (last.place + last.length > fHeading._indexPos ||
                                 (committed < segments.size() && segments[committed].place < fHeading._indexPos));
    }
    if (onlyCommitted) segments.resize(committed);
}

std::size_t partSurvey::committedSegments() const {
    if (!hadHeading) return 0;
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
        const std::int64_t end = gap + 1 == segments.end() ? fFileSize : (gap + 1)->place;
        gap->size = std::min((missing + 1) * kBlockSize, (end - gap->place) * kBestRatio);
        return;
    }
    const std::int64_t place =
        segments.empty() ? part.row0Pos + kHeadingSize : segments.back().place + segments.back().length;
    segments.push_back({missing * kBlockSize, place, 0, true, "its blocks are gone, and no index tells their size"});
}

void partSurvey::take(const stream& found, std::int64_t place) {
    segments.push_back({found.rows, place, found.length, false, nullptr});
    fTaken += workOf(found);
    fUsualLength = found.length;
}

bool partSurvey::outOfPatience() const {
    return (fWasted - kPatience - kPatienceForTaken * fTaken) / kPatienceForByte > fFileSize;
}

std::int64_t partSurvey::workOf(const stream& found) {
    return kTrial + found.rows + found.length;
}

std::optional<partSurvey::stream> partSurvey::streamAt(std::int64_t place) {
    if (place < part.row0Pos + kHeadingSize || place >= fFileSize || outOfPatience()) return std::nullopt;
    const std::int64_t before = fRead;
    const blockOutcome outcome = inflateAt(place, fUsualLength + fUsualLength / 4);
    if (outcome.end == blockOutcome::complete && outcome.produced != 0) {
        return stream{outcome.produced, outcome.consumed};
    }
    fWasted += workOf({outcome.produced, outcome.consumed}) + fRead - before;
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

// The first place from `from` on where a whole stream stands.
std::optional<std::int64_t> partSurvey::nextStream(std::int64_t from, std::int64_t end) {
    for (std::int64_t at = from; at + 2 <= end && !outOfPatience();) {
        const std::uint32_t count = fFile.Read(fWindow.get(), kBlockSize, at);
        if (count < 2) break;
        for (std::uint32_t i = 0; i + 2 <= count && !outOfPatience(); ++i) {
            if (!couldBeginStream(fWindow.get() + i)) continue;
            // A look into the window first: nearly all that look like a stream end within some bytes.
            const blockOutcome glance = fCodec.inflateWhole(fWindow.get() + i, count - i, fRows.get(), kBlockSize);
            const bool ranOut = glance.end == blockOutcome::incomplete && glance.consumed == count - i;
            if (glance.end == blockOutcome::complete && glance.produced != 0) return at + i;
            fWasted += workOf({glance.produced, glance.consumed});
            if (ranOut && streamAt(at + i)) return at + i;
        }
        at += count - 1;
    }
    return std::nullopt;
}

const unsigned char* partSurvey::rowsOf(const surveySegment& segment) {
    const blockOutcome found = inflateAt(segment.place, segment.length);
    return found.end == blockOutcome::complete && found.produced == segment.size && found.consumed == segment.length
               ? fRows.get()
               : nullptr;
}

}  // namespace orva
