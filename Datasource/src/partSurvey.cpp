#include "partSurvey.h"

#include "blockTransfer.h"
#include "filePosInfo.h"
#include "indexTransfer.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace orva {

namespace {

// Deflate shrinks a full block to no less than this.
constexpr std::int64_t kLeastBlock = kBlockSize / 1032;

// The first two bytes of a zlib stream with the full window, as every writer of this format makes it.
bool couldBeginStream(const unsigned char* bytes) {
    return bytes[0] == 0x78 && (bytes[0] * 256 + bytes[1]) % 31 == 0 && (bytes[1] & 0x20) == 0;
}

}  // namespace

partSurvey::partSurvey(ORVA_File& file)
    : fFile(file), fFileSize(file.Size()), fCompressed(kBlockSize), fWindow(kBlockSize), fRows(kBlockSize) {}

bool partSurvey::run(const recoverOptions& options) {
    const std::optional<foundPart> found = locate(options);
    if (!found) return false;
    part = *found;
    try {
        fHeading = readHeading(fFile, part.row0Pos, part.swapped, "Analyze dictionary part error!");
        hadHeading = fHeading._size >= kRecordSize && fHeading._indexPos >= part.row0Pos + kHeadingSize;
    } catch (const DamagedFileError&) {
        hadHeading = false;
    }
    hadIndex = hadHeading && readByIndex();
    if (!hadIndex) walk(options.onlyCommitted);
    return true;
}

std::optional<foundPart> partSurvey::locate(const recoverOptions& options) {
    if (options.part) return options.part;
    if (const std::optional<foundPart> found = findPart(fFile.GetNameStr().GetGeneric())) return found;
    const std::optional<std::int64_t> first = nextStream(kHeadingSize + 1, fFileSize);
    if (!first) return std::nullopt;
    return foundPart{*first - kHeadingSize, false};
}

bool partSurvey::readByIndex() {
    filePosInfo index(kBlockSize, fFile.GetNameStr().GetGeneric());
    try {
        index.parseForRead(readIndex(fFile, fHeading, part.swapped).get(), part.swapped);
        if (index.parsedCount() != 0) checkFirstBlock(fFile, index.parsed(0), part.row0Pos);
    } catch (const DamagedFileError&) {
        return false;
    }
    std::int64_t place = part.row0Pos + kHeadingSize;
    for (std::uint32_t i = 0; i < index.parsedCount(); ++i) {
        filePosRecord record = index.parsed(i);
        const bool last = i + 1 == index.parsedCount();
        // The next record's position tells the size of this one's rows, whatever its own size says.
        const std::int64_t size = last ? record.orginalSize : index.parsed(i + 1).orginalPos - record.orginalPos;
        committedRows += size;
        takeRecord(record, size, place);
        place = record.translatePos + record.translateSize;
    }
    return true;
}

// Where the record leads to no block of its size, the place behind the block before may.
void partSurvey::takeRecord(const filePosRecord& record, std::int64_t size, std::int64_t expectedPlace) {
    for (const std::int64_t place : {record.translatePos, expectedPlace}) {
        const std::optional<stream> found = streamAt(place);
        if (!found || found->rows != size) continue;
        segments.push_back({size, place, found->length, false, {}});
        return;
    }
    segments.push_back({size, record.translatePos, 0, false, "its block is damaged"});
}

// From block to block, each telling where it ends.
void partSurvey::walk(bool onlyCommitted) {
    std::int64_t place = part.row0Pos + kHeadingSize;
    while (place < fFileSize) {
        if (onlyCommitted && place >= (hadHeading ? fHeading._indexPos : 0)) break;
        if (const std::optional<stream> found = streamAt(place)) {
            segments.push_back({found->rows, place, found->length, false, {}});
            place += found->length;
            continue;
        }
        // What stands behind the old index is there only as far as it joins on.
        if (indexStandsAt(place) || (hadHeading && place >= fHeading._indexPos)) break;
        const std::optional<std::int64_t> next = nextStream(place + 1, fFileSize);
        if (!next) break;
        segments.push_back({kBlockSize, place, 0, true, "its block is damaged, and no index tells its size"});
        place = *next;
    }
    if (hadHeading) commitWalked();
}

// The heading of a part whose index is gone still tells where the index stood and how many blocks it had.
void partSurvey::commitWalked() {
    std::int64_t count = fHeading._size / kRecordSize - 1;
    if (count > (fHeading._indexPos - part.row0Pos) / kLeastBlock + 1) count = 0;  // no heading that was ever written
    std::int64_t blocks = 0;
    std::int64_t gaps = 0;
    for (const surveySegment& segment : segments) {
        if (segment.place >= fHeading._indexPos) break;
        ++(segment.length == 0 ? gaps : blocks);
    }
    // Blocks that the walk did not see lie in the first gap, or behind the last block seen.
    const std::int64_t missing = std::max<std::int64_t>(count - blocks - gaps, 0);
    const auto gap = std::find_if(segments.begin(), segments.end(), [](const auto& s) { return s.length == 0; });
    if (gap != segments.end()) {
        gap->size += missing * kBlockSize;
    } else if (missing != 0) {
        const std::int64_t place =
            segments.empty() ? part.row0Pos + kHeadingSize : segments.back().place + segments.back().length;
        segments.push_back(
            {missing * kBlockSize, place, 0, true, "its blocks are gone, and no index tells their size"});
    }
    for (const surveySegment& segment : segments) {
        if (segment.place >= fHeading._indexPos) break;
        committedRows += segment.size;
        lastRewritten = segment.place + segment.length > fHeading._indexPos;
    }
}

bool partSurvey::indexStandsAt(std::int64_t place) {
    std::int64_t mark = 0;
    return readAll(fFile, &mark, sizeof mark, place) &&
           (mark == kFirstRecordMark || swapBytes(mark) == kFirstRecordMark);
}

std::optional<partSurvey::stream> partSurvey::streamAt(std::int64_t place) {
    if (place < 0 || place >= fFileSize) return std::nullopt;
    const std::uint32_t count = fFile.Read(fCompressed.get(), kBlockSize, place);
    return inflateFrom(fCompressed.get(), count);
}

std::optional<partSurvey::stream> partSurvey::inflateFrom(const unsigned char* bytes, std::uint32_t count) {
    const blockOutcome outcome = fCodec.inflateWhole(bytes, count, fRows.get(), kBlockSize);
    if (outcome.end == blockOutcome::notStarted || outcome.end == blockOutcome::noMemory) throw std::bad_alloc();
    if (outcome.end != blockOutcome::complete || outcome.produced == 0) return std::nullopt;
    return stream{outcome.produced, outcome.consumed};
}

// The first place from `from` on where a whole stream stands.
std::optional<std::int64_t> partSurvey::nextStream(std::int64_t from, std::int64_t end) {
    for (std::int64_t at = from; at + 2 <= end;) {
        const std::uint32_t count = fFile.Read(fWindow.get(), kBlockSize, at);
        if (count < 2) break;
        for (std::uint32_t i = 0; i + 2 <= count; ++i) {
            if (!couldBeginStream(fWindow.get() + i)) continue;
            // A look into the window first: nearly all that look like a stream end within some bytes.
            const blockOutcome glance = fCodec.inflateWhole(fWindow.get() + i, count - i, fRows.get(), kBlockSize);
            const bool ranOut = glance.end == blockOutcome::incomplete && glance.consumed == count - i;
            if (glance.end == blockOutcome::complete && glance.produced != 0) return at + i;
            if (ranOut && streamAt(at + i)) return at + i;
        }
        at += count - 1;
    }
    return std::nullopt;
}

const unsigned char* partSurvey::rowsOf(const surveySegment& segment) {
    const std::optional<stream> found = streamAt(segment.place);
    return found && found->rows == segment.size && found->length == segment.length ? fRows.get() : nullptr;
}

}  // namespace orva
