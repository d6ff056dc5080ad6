#include "format/indexTransfer.h"

#include "format/blockTransfer.h"

#include <orva/blockSize.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

namespace orva {

namespace {

[[noreturn]] void refuse(const bytesFrom& file, const char* check, const std::string& detail) {
    throw DamagedFileError(file.name(), check, detail);
}

std::string indexSpan(const compressionHeading& heading) {
    return "its index of " + std::to_string(heading._size) + " bytes at offset " + std::to_string(heading._indexPos);
}

constexpr std::size_t kPieceRecords = 1024;  // read at a time

// Far beyond any file, and sums of the sizes of as many blocks as an index can hold stay in range.
constexpr std::int64_t kLargestPlace = std::int64_t{1} << 62;

constexpr const char* kWholeRecords = "_size == 24 x (n + 1)";
constexpr const char* kIndexFits = "ret == chInfo._size";

// The text of the check that a heading fails in any file; null if it could be true.
const char* violatedCheck(const compressionHeading& heading) {
    if (heading._size < kRecordSize || heading._size % kRecordSize != 0) return kWholeRecords;
    if (heading._indexPos < heading._caseStartPos + kHeadingSize) return "_indexPos behind the heading";
    return heading._size > std::numeric_limits<std::uint32_t>::max() ? kIndexFits : nullptr;
}

void checkPlaces(const bytesFrom& file, const compressionHeading& heading, std::int64_t fileSize) {
    const char* breach = violatedCheck(heading);
    if (breach == nullptr && heading._indexPos > fileSize - heading._size) breach = kIndexFits;
    if (breach == nullptr) return;
    refuse(file, breach, indexSpan(heading) + " does not fit into a file of " + std::to_string(fileSize) + " bytes");
}

void checkCount(const bytesFrom& file, const compressionHeading& heading, const filePosRecord& first) {
    if ((first.translateSize + std::int64_t{1}) * kRecordSize == heading._size) return;
    refuse(file, kWholeRecords, indexSpan(heading) + " claims " + std::to_string(first.translateSize) + " blocks");
}

// Checks that a block's record can be true by itself and ascends from the one before.
void checkAscends(const bytesFrom& file, std::span<const filePosRecord> blocks, std::size_t number) {
    const filePosRecord& record = blocks[number];
    const bool sized =
        record.orginalSize >= 1 && record.orginalPos <= std::numeric_limits<std::int64_t>::max() - record.orginalSize;
    if (sized && (number == 0 || blocks[number - 1].orginalPos < record.orginalPos)) return;
    refuse(file, sized ? "orginalPos ascends" : "orginalSize >= 1",
           "record " + std::to_string(number) + " of its index has the logical position " +
               std::to_string(record.orginalPos) + " and the size " + std::to_string(record.orginalSize));
}

void checkStart(const bytesFrom& file, const compressionHeading& heading, const filePosRecord& record) {
    if (record.orginalPos == heading._caseStartPos) return;
    refuse(file, "record 0 at the row-0 position",
           "its first block begins at logical position " + std::to_string(record.orginalPos) + " instead of " +
               std::to_string(heading._caseStartPos));
}

bool hasOtherHeading(const bytesFrom& file, const compressionHeading& heading, bool swap) {
    const rawHeading raw = rawHeadingAt(file, heading._caseStartPos);
    return headingOf(raw.data(), heading._caseStartPos, swap) != heading;
}

}  // namespace

std::optional<compressionHeading> headingOf(const unsigned char* bytes, std::int64_t place, bool swap) {
    compressionHeading heading;
    std::memcpy(&heading, bytes, sizeof heading);
    if (swap) swapHeading(heading);
    return heading._caseStartPos == place && violatedCheck(heading) == nullptr ? std::optional(heading) : std::nullopt;
}

rawHeading rawHeadingAt(const bytesFrom& file, std::int64_t row0Pos) {
    rawHeading heading{};
    return file.read(heading.data(), heading.size(), row0Pos) ? heading : rawHeading{};
}

compressionHeading readHeading(const bytesFrom& file, std::int64_t row0Pos, bool swap, const char* positionCheck) {
    const std::string place = "at offset " + std::to_string(row0Pos);
    if (row0Pos <= 0 || row0Pos > kLastRow0Pos) {
        refuse(file, positionCheck, "compressed data cannot begin " + place);
    }
    compressionHeading heading;
    if (!file.read(&heading, sizeof heading, row0Pos)) {
        refuse(file, "ret == sizeof(compressionHeading)", "it ends before the heading " + place + " is complete");
    }
    if (swap) swapHeading(heading);
    if (heading._caseStartPos != row0Pos) {
        refuse(file, positionCheck,
               "there is no heading " + place +
                   ": the file is unfinished, the position is wrong, or the byte order is the other one");
    }
    return heading;
}

std::vector<filePosRecord> readIndex(const bytesFrom& file, const compressionHeading& heading, bool swap, bool atOnce) {
    checkPlaces(file, heading, file.length());
    std::vector<filePosRecord> records;
    const auto all = static_cast<std::size_t>(heading._size / kRecordSize);
    for (std::size_t known = 0; known < all; known = records.size()) {
        // Not for the first piece: the index may be a hole.
        if (atOnce || known != 0) records.reserve(sizeInMemory(heading._size) / kRecordSize);
        records.resize(atOnce ? all : std::min(all, known + kPieceRecords));
        const std::span piece = std::span(records).subspan(known);
        const std::int64_t place = heading._indexPos + static_cast<std::int64_t>(known) * kRecordSize;
        if (!file.read(piece.data(), piece.size_bytes(), place))
            refuse(file, kIndexFits, indexSpan(heading) + " is cut short");
        if (swap) std::ranges::for_each(piece, swapRecord);
        if (known == 0) {
            checkFirstRecord(records[0], file.name());
            checkCount(file, heading, records[0]);
        }
        const std::span blocks = std::span(records).subspan(1);
        for (std::size_t i = known == 0 ? 0 : known - 1; i < blocks.size(); ++i) checkAscends(file, blocks, i);
    }
    if (all > 1) checkStart(file, heading, records[1]);
    return records;
}

std::vector<filePosRecord> readRecords(const bytesFrom& file, const compressionHeading& heading, bool swap) {
    std::vector<filePosRecord> records = readIndex(file, heading, swap);
    records.erase(records.begin());
    return records;
}

std::optional<partIndex> indexOf(const bytesFrom& file, const compressionHeading& heading, bool swapped) {
    try {
        return partIndex{heading, swapped, readRecords(file, heading, swapped)};
    } catch (const DamagedFileError&) {
        return std::nullopt;
    }
}

std::optional<partIndex> indexAt(const bytesFrom& file, std::int64_t row0Pos, std::int64_t place) {
    filePosRecord first;
    if (!file.read(&first, sizeof first, place)) return std::nullopt;
    const bool swapped = first.orginalPos != kFirstRecordMark;
    if (swapped) swapRecord(first);
    return indexOf(file, {row0Pos, place, (first.translateSize + std::int64_t{1}) * kRecordSize}, swapped);
}

std::optional<partIndex> soundIndexOf(const bytesFrom& file, const rawHeading& raw, std::int64_t row0Pos) {
    if (row0Pos <= 0 || row0Pos > kLargestPlace) return std::nullopt;
    for (const bool swapped : {false, true}) {
        const std::optional<compressionHeading> heading = headingOf(raw.data(), row0Pos, swapped);
        if (!heading) continue;
        std::optional<partIndex> index = indexOf(file, *heading, swapped);
        if (index && !firstGap(*heading, index->records)) return index;
    }
    return std::nullopt;
}

bool changedSince(const bytesFrom& file, const compressionHeading& heading, bool swap,
                  std::span<const filePosRecord> records) {
    if (hasOtherHeading(file, heading, swap)) return true;
    const std::optional<partIndex> now = indexOf(file, heading, swap);
    return !now || !std::ranges::equal(now->records, records);
}

bool changedSince(const bytesFrom& file, const compressionHeading& heading, bool swap,
                  std::span<const filePosRecord> records, std::size_t number) {
    const auto recordAt = [&](std::size_t at) {
        filePosRecord record{};
        file.read(&record, sizeof record, heading._indexPos + static_cast<std::int64_t>(at) * kRecordSize);
        if (swap) swapRecord(record);
        return record;
    };
    return hasOtherHeading(file, heading, swap) || recordAt(0).orginalPos != kFirstRecordMark ||
           recordAt(number + 1) != records[number];
}

std::optional<std::size_t> firstGap(const compressionHeading& heading, std::span<const filePosRecord> records) {
    std::int64_t pos = heading._caseStartPos;
    std::int64_t place = heading._caseStartPos + kHeadingSize;
    for (std::size_t i = 0; i < records.size(); ++i) {
        const filePosRecord& r = records[i];
        if (!isBlockSize(r.orginalSize) || !isBlockSize(r.translateSize)) return i;
        if (r.orginalPos != pos || r.translatePos != place) return i;
        pos += r.orginalSize;
        place += r.translateSize;
    }
    return place > heading._indexPos ? std::optional(records.size()) : std::nullopt;
}

void checkContiguous(const bytesFrom& file, const compressionHeading& heading, std::span<const filePosRecord> records) {
    const std::optional<std::size_t> gap = firstGap(heading, records);
    if (gap == records.size())
        refuse(file, "_indexPos behind the last block", indexSpan(heading) + " overlaps the blocks");
    if (!gap) return;
    refuse(file, "blocks follow each other without gaps",
           "block " + std::to_string(*gap) + " does not directly follow the one before");
}

}  // namespace orva
