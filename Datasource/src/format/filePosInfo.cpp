#include "format/filePosInfo.h"

#include "base/assertion.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace {

constexpr filePosRecord kNothing{kNoRecord, 0, 0, 0};

}  // namespace

void orva::checkFirstRecord(const filePosRecord& first, const std::string& fileName) {
    const char* const breach = first.orginalPos != kFirstRecordMark ? "firstRecord.orginalPos == -100"
                               : first.orginalSize <= 0             ? "firstRecord.orginalSize > 0"
                               : first.translateSize < 0            ? "firstRecord.translateSize >= 0"
                                                                    : nullptr;
    if (breach != nullptr) throw DamagedFileError(fileName, breach, "its index has no valid first record");
}

void orva::checkAscends(std::span<const filePosRecord> records, std::size_t number, const std::string& fileName) {
    const filePosRecord& record = records[number];
    const bool sized =
        record.orginalSize >= 1 && record.orginalPos <= std::numeric_limits<std::int64_t>::max() - record.orginalSize;
    if (sized && (number == 0 || records[number - 1].orginalPos < record.orginalPos)) return;
    throw DamagedFileError(fileName, sized ? "orginalPos ascends" : "orginalSize >= 1",
                           "record " + std::to_string(number) + " of its index has the logical position " +
                               std::to_string(record.orginalPos) + " and the size " +
                               std::to_string(record.orginalSize));
}

std::int64_t orva::chosenLength(std::span<const filePosRecord> records) {
    if (records.empty()) return kHandyBlockLength;
    if (records.size() == 1)
        return records[0].orginalSize <= std::int64_t{kHandyBlockLength} ? kHandyBlockLength : kBlockSize;
    const std::int64_t length = records.front().orginalSize;
    const bool all = std::all_of(records.begin(), records.end() - 1,
                                 [&](const filePosRecord& r) { return r.orginalSize == length; });
    return all && length >= kShortestBlockLength && length <= kBlockSize ? length : kBlockSize;
}

std::size_t orva::longest(std::span<const filePosRecord> records, std::int32_t filePosRecord::*size) {
    std::int32_t most = 0;
    for (const filePosRecord& record : records) most = std::max(most, record.*size);
    return static_cast<std::size_t>(most);
}

filePosInfo::filePosInfo(std::uint32_t blockSize, std::string fileName)
    : fFileName(std::move(fileName)), fBlockSize(blockSize) {}

void filePosInfo::addRecord(std::int64_t orginalPos, std::int64_t translatePos, std::int32_t orginalSize,
                            std::int32_t translateSize) {
    if (std::ssize(fRecords) >= orva::kMostRecords) throw std::length_error("filePosInfo: the index is full");
    fRecords.push_back({orginalPos, translatePos, orginalSize, translateSize});
}

std::int64_t filePosInfo::writtenEnd(std::int64_t otherwise) const {
    return fRecords.empty() ? otherwise : fRecords.back().translatePos + fRecords.back().translateSize;
}

const unsigned char* filePosInfo::serialize(std::uint32_t& stLength, bool swap) {
    fSerialized.assign(
        {{kFirstRecordMark, 0, static_cast<std::int32_t>(fBlockSize), static_cast<std::int32_t>(fRecords.size())}});
    fSerialized.insert(fSerialized.end(), fRecords.begin(), fRecords.end());
    if (swap) std::ranges::for_each(fSerialized, orva::swapRecord);
    stLength = static_cast<std::uint32_t>(fSerialized.size() * kRecordSize);
    return reinterpret_cast<const unsigned char*>(fSerialized.data());
}

std::vector<filePosRecord> filePosInfo::taken(const unsigned char* buff, bool swap) {
    filePosRecord first;
    std::memcpy(&first, buff, sizeof first);
    if (swap) swapRecord(&first);
    orva::checkFirstRecord(first, fFileName);
    std::vector<filePosRecord> records(static_cast<std::size_t>(first.translateSize));
    std::copy_n(buff + kRecordSize, records.size() * kRecordSize, reinterpret_cast<unsigned char*>(records.data()));
    if (swap) std::ranges::for_each(records, orva::swapRecord);
    for (std::size_t i = 0; i < records.size(); ++i) orva::checkAscends(records, i, fFileName);
    fBlockSize = static_cast<std::uint32_t>(first.orginalSize);
    return records;
}

void filePosInfo::parseForRead(const unsigned char* buff, bool swap) {
    if (buff == nullptr) return;
    fParsed = taken(buff, swap);
    bParsed = true;
    fCursor.store(0, std::memory_order_relaxed);
}

filePosRecord filePosInfo::parseForAppend(unsigned char* buff, bool swap) {
    fParsed = {};
    bParsed = false;
    ORVA_ASSERT(buff != nullptr, "buff != 0");
    const std::vector<filePosRecord> records = taken(buff, swap);
    if (records.empty()) return {kFirstRecordMark, 0, static_cast<std::int32_t>(fBlockSize), 0};
    if (swap) std::memcpy(buff + kRecordSize, records.data(), records.size() * kRecordSize);
    fRecords.insert(fRecords.end(), records.begin(), records.end() - 1);
    return records.back();
}

std::int64_t filePosInfo::dataEnd(std::int64_t otherwise) const {
    return fParsed.empty() ? otherwise : fParsed.back().orginalPos + fParsed.back().orginalSize;
}

filePosRecord filePosInfo::findRecord(std::int64_t pos) const {
    const std::optional<std::uint32_t> number = find(pos);
    return number ? parsed(*number) : kNothing;
}

std::optional<std::uint32_t> filePosInfo::find(std::int64_t pos) const {
    ORVA_ASSERT(bParsed, "pInfoBuffer != 0");
    if (fParsed.empty()) return std::nullopt;
    ORVA_ASSERT(fParsed[0].orginalPos != 0, "pInfoBuffer->orginalPos != 0");
    if (pos >= dataEnd(0) || pos < fParsed[0].orginalPos) return std::nullopt;
    const std::uint32_t cursor = std::min(fCursor.load(std::memory_order_relaxed), parsedCount() - 1);
    const std::uint32_t number = holds(cursor, pos) ? cursor : lastUpTo(pos);
    if (!holds(number, pos)) return std::nullopt;
    fCursor.store(number + 1, std::memory_order_relaxed);
    return number;
}

// A record of a damaged index may reach over the start of the next one; that block is still found by its position.
bool filePosInfo::holds(std::uint32_t number, std::int64_t pos) const {
    const filePosRecord& record = fParsed[number];
    return record.orginalPos <= pos && pos < record.orginalPos + record.orginalSize &&
           (number + 1 == parsedCount() || pos < fParsed[number + 1].orginalPos);
}

// From where it would be if all blocks had one size by steps that double, then by halves.
std::uint32_t filePosInfo::lastUpTo(std::int64_t pos) const {
    const filePosRecord* const records = fParsed.data();
    const std::int64_t count = std::ssize(fParsed);
    const auto before = static_cast<double>(pos - records[0].orginalPos);
    const auto all = static_cast<double>(dataEnd(0) - records[0].orginalPos);
    std::int64_t low = std::min(static_cast<std::int64_t>(before / all * static_cast<double>(count)), count - 1);
    std::int64_t high = low + 1;
    for (std::int64_t step = 1; records[low].orginalPos > pos; step *= 2) {
        high = low;
        low = std::max<std::int64_t>(low - step, 0);
    }
    for (std::int64_t step = 1; high < count && records[high].orginalPos <= pos; step *= 2) {
        low = high;
        high = std::min(high + step, count);
    }
    const auto begins = [](std::int64_t p, const filePosRecord& record) { return p < record.orginalPos; };
    return static_cast<std::uint32_t>(std::upper_bound(records + low, records + high, pos, begins) - records - 1);
}
