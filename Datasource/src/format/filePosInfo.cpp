#include "format/filePosInfo.h"

#include "base/assertion.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

// A record of a damaged index may reach past the start of the next; the next block is still found by its position.
bool holds(const filePosRecord* records, std::int64_t number, std::int64_t last, std::int64_t pos) {
    const filePosRecord& record = records[number];
    return record.orginalPos <= pos && pos < orva::rowsEnd(record) &&
           (number == last || pos < records[number + 1].orginalPos);
}

// The first record that begins after `pos`, or `end`.
const filePosRecord* firstAfter(const filePosRecord* begin, const filePosRecord* end, std::int64_t pos) {
    return std::upper_bound(begin, end, pos,
                            [](std::int64_t p, const filePosRecord& record) { return p < record.orginalPos; });
}

constexpr filePosRecord kNoBlock{kNoRecord, 0, 0, 0};

}  // namespace

void orva::checkFirstRecord(const filePosRecord& first, const std::string& fileName) {
    const char* const breach = first.orginalPos != kFirstRecordMark ? "firstRecord.orginalPos == -100"
                               : first.orginalSize <= 0             ? "firstRecord.orginalSize > 0"
                               : first.translateSize < 0            ? "firstRecord.translateSize >= 0"
                                                                    : nullptr;
    if (breach != nullptr) throw DamagedFileError(fileName, breach, "its index has no valid first record");
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
    return fRecords.empty() ? otherwise : orva::storedEnd(fRecords.back());
}

const unsigned char* filePosInfo::serialize(std::uint32_t& stLength, bool swap) {
    fSerialized.assign(
        {{kFirstRecordMark, 0, static_cast<std::int32_t>(fBlockSize), static_cast<std::int32_t>(fRecords.size())}});
    fSerialized.insert(fSerialized.end(), fRecords.begin(), fRecords.end());
    if (swap) std::ranges::for_each(fSerialized, orva::swapRecord);
    stLength = static_cast<std::uint32_t>(fSerialized.size() * kRecordSize);
    return reinterpret_cast<const unsigned char*>(fSerialized.data());
}

std::vector<filePosRecord> filePosInfo::parse(const unsigned char* buff, bool swap) {
    filePosRecord first;
    std::memcpy(&first, buff, sizeof first);
    if (swap) swapRecord(&first);
    orva::checkFirstRecord(first, fFileName);
    std::vector<filePosRecord> records(static_cast<std::size_t>(first.translateSize));
    std::copy_n(buff + kRecordSize, records.size() * kRecordSize, reinterpret_cast<unsigned char*>(records.data()));
    if (swap) std::ranges::for_each(records, orva::swapRecord);
    fBlockSize = static_cast<std::uint32_t>(first.orginalSize);
    return records;
}

void filePosInfo::parseForRead(const unsigned char* buff, bool swap) {
    if (buff == nullptr) return;
    fParsed = parse(buff, swap);
    bParsed = true;
    fCursor.store(0, std::memory_order_relaxed);
}

filePosRecord filePosInfo::parseForAppend(unsigned char* buff, bool swap) {
    fParsed = {};
    bParsed = false;
    ORVA_ASSERT(buff != nullptr, "buff != 0");
    const std::vector<filePosRecord> records = parse(buff, swap);
    if (records.empty()) return {kFirstRecordMark, 0, static_cast<std::int32_t>(fBlockSize), 0};
    if (swap) std::memcpy(buff + kRecordSize, records.data(), records.size() * kRecordSize);
    fRecords.insert(fRecords.end(), records.begin(), records.end() - 1);
    return records.back();
}

std::int64_t filePosInfo::dataEnd(std::int64_t otherwise) const {
    return fParsed.empty() ? otherwise : orva::rowsEnd(fParsed.back());
}

std::uint32_t filePosInfo::foundAt(std::int64_t number, std::int64_t nextGuess) const {
    fCursor.store(static_cast<std::uint32_t>(nextGuess), std::memory_order_relaxed);
    return static_cast<std::uint32_t>(number);
}

filePosRecord filePosInfo::findRecord(std::int64_t pos) const {
    const std::optional<std::uint32_t> number = find(pos);
    return number ? parsed(*number) : kNoBlock;
}

std::optional<std::uint32_t> filePosInfo::find(std::int64_t pos) const {
    ORVA_ASSERT(bParsed, "pInfoBuffer != 0");
    if (fParsed.empty()) return std::nullopt;
    const filePosRecord* records = fParsed.data();
    ORVA_ASSERT(records->orginalPos != 0, "pInfoBuffer->orginalPos != 0");
    const std::int64_t last = std::ssize(fParsed) - 1;
    if (pos >= dataEnd(0) || pos < records[0].orginalPos) return std::nullopt;

    const std::int64_t cursor = std::min<std::int64_t>(fCursor.load(std::memory_order_relaxed), last);
    if (holds(records, cursor, last, pos)) return foundAt(cursor, cursor + 1);
    if (holds(records, 0, last, pos)) return foundAt(0, 1);
    if (pos >= records[last].orginalPos) return foundAt(last, 0);
    // The row-0 position is not subtracted, so the guess is the right record or one that lies above it.
    const std::int64_t guess = std::clamp<std::int64_t>(pos / static_cast<std::int64_t>(fBlockSize), 0, last);
    if (guess < last && records[guess].orginalPos <= pos && pos < records[guess + 1].orginalPos) {
        return foundAt(guess, guess + 1);
    }
    const std::int64_t found = gallop(interpolated(pos), pos);
    if (found < 0) return std::nullopt;
    return foundAt(found, found + 1);
}

// A better start for a search than the position divided by the block size, if the row-0 position is large or blocks are
// short.
std::int64_t filePosInfo::interpolated(std::int64_t pos) const {
    const auto before = static_cast<double>(pos - parsed(0).orginalPos);
    const auto all = static_cast<double>(dataEnd(0) - parsed(0).orginalPos);
    const auto number = static_cast<std::int64_t>(before / all * parsedCount());
    return std::min<std::int64_t>(number, parsedCount() - 1);
}

// Searches from the guess in the one direction that the ascending order leaves, by doubling steps, then by bisection.
std::int64_t filePosInfo::gallop(std::int64_t guess, std::int64_t pos) const {
    const filePosRecord* records = fParsed.data();
    const std::int64_t last = std::ssize(fParsed) - 1;
    std::int64_t low = guess;
    std::int64_t high = guess;
    if (records[guess].orginalPos <= pos) {
        for (std::int64_t step = 1; high <= last && records[high].orginalPos <= pos; step *= 2) {
            low = high;
            high = std::min(guess + step, last + 1);
        }
    } else {
        for (std::int64_t step = 1; records[low].orginalPos > pos; step *= 2) {
            high = low;
            low = std::max<std::int64_t>(guess - step, 0);
        }
    }
    low = firstAfter(records + low, records + high, pos) - records - 1;
    return holds(records, low, last, pos) ? low : -1;
}
