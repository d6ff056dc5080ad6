#include "recordSearch.h"

#include "failure.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

struct keyType {
    std::string_view name;
    std::size_t width;
    std::optional<std::uint64_t> (*ofText)(std::string_view text);
    std::optional<std::uint64_t> (*ofBytes)(const unsigned char* bytes, bool swapped);
};

namespace {

constexpr std::uint64_t kSign = std::uint64_t{1} << 63;

template <class Value>
std::optional<std::uint64_t> rankOfValue(Value value) {
    if constexpr (std::is_floating_point_v<Value>) {
        if (std::isnan(value)) return {};
        const auto bits = std::bit_cast<std::uint64_t>(static_cast<double>(value) + 0.0);  // one zero, not two
        return (bits & kSign) != 0 ? ~bits : bits | kSign;
    } else if constexpr (std::is_signed_v<Value>) {
        return static_cast<std::uint64_t>(std::int64_t{value}) ^ kSign;
    } else {
        return value;
    }
}

template <class Value>
std::optional<std::uint64_t> rankOfText(std::string_view text) {
    Value value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return {};
    return rankOfValue(value);
}

template <class Value>
std::optional<std::uint64_t> rankOfBytes(const unsigned char* bytes, bool swapped) {
    std::array<unsigned char, sizeof(Value)> own;
    std::memcpy(own.data(), bytes, own.size());
    if (swapped) std::reverse(own.begin(), own.end());
    return rankOfValue(std::bit_cast<Value>(own));
}

template <class Value>
constexpr keyType typeOf(std::string_view name) {
    return {name, sizeof(Value), &rankOfText<Value>, &rankOfBytes<Value>};
}

constexpr keyType kTypes[] = {typeOf<std::int32_t>("i32"),  typeOf<std::int64_t>("i64"), typeOf<std::uint32_t>("u32"),
                              typeOf<std::uint64_t>("u64"), typeOf<float>("f32"),        typeOf<double>("f64")};

const keyType* findType(std::string_view name) {
    const auto* const found = std::ranges::find(kTypes, name, &keyType::name);
    return found == std::end(kTypes) ? nullptr : found;
}

struct condition {
    std::int64_t offset = -1;
    const keyType* type = nullptr;
    std::string comparison;
    std::optional<std::uint64_t> rank;
};

// Blanks are ignored.
condition parse(std::string text) {
    std::erase(text, ' ');
    condition result;
    const auto colon = std::min(text.find(':'), text.size());
    const auto from = std::min(text.find_first_of("<>=", colon), text.size());
    const auto to = std::min(text.find_first_not_of("<>=", from), text.size());
    const auto [end, error] = std::from_chars(text.data(), text.data() + colon, result.offset);
    if (error != std::errc() || end != text.data() + colon || from == text.size()) return {};
    result.type = findType(std::string_view(text).substr(colon + 1, from - colon - 1));
    result.comparison = text.substr(from, to - from);
    if (result.type != nullptr) result.rank = result.type->ofText(std::string_view(text).substr(to));
    return result;
}

}  // namespace

keyRange::keyRange(const std::vector<std::string>& conditions) {
    for (const std::string& text : conditions) add(text);
}

void keyRange::add(const std::string& text) {
    const condition given = parse(text);
    const bool lower = given.comparison == ">" || given.comparison == ">=" || given.comparison == "==";
    const bool upper = given.comparison == "<" || given.comparison == "<=" || given.comparison == "==";
    if (given.offset < 0 || !given.rank || lower + upper == 0) {
        usageError(
            "--records-where: expected OFFSET:TYPE>=VALUE (also > <= < ==), where TYPE is i32, i64, u32, u64, f32 or "
            "f64 and VALUE a number of that type, got \"" +
            printable(text) + '"');
    }
    if (fType != nullptr && (fType != given.type || fOffset != given.offset)) {
        usageError("--records-where: both conditions must have the same OFFSET and TYPE");
    }
    fType = given.type;
    fOffset = given.offset;
    const std::uint64_t strict = given.comparison.ends_with('=') ? 0 : 1;
    if (strict != 0 && *given.rank == (lower ? kHighest : 0)) {
        fFirst = kHighest;  // nothing is above the highest, or below the lowest
        fLast = 0;
    } else {
        if (lower) fFirst = std::max(fFirst, *given.rank + strict);
        if (upper) fLast = std::min(fLast, *given.rank - strict);
    }
}

std::size_t keyRange::width() const {
    return fType->width;
}

std::optional<std::uint64_t> keyRange::rank(const unsigned char* key, bool swapped) const {
    return fType->ofBytes(key, swapped);
}

recordSearch::recordSearch(blockRows& rows, const keyRange& range, std::int64_t recordSize)
    : fRows(rows), fRange(range), fRecordSize(recordSize), fRecords(rows.file().info.size / recordSize) {
    if (range.offset() > recordSize - static_cast<std::int64_t>(range.width())) {
        usageError("--records-where: the key of " + counted(static_cast<std::int64_t>(range.width()), "byte") +
                   " at offset " + grouped(range.offset()) + " does not fit into a record of " +
                   counted(recordSize, "byte"));
    }
}

// The records in `left` whose keys lie in its middle block, so that one block is enough to see them. A key across a
// border belongs to the block in which it ends; if there are no other keys, the record in the middle of `left`.
recordSearch::interval recordSearch::probe(interval left) const {
    const std::vector<orva::Block>& blocks = fRows.file().info.blocks;
    const std::size_t low = blockAt(blocks, keyEnd(left.begin) - 1);
    const std::size_t high = blockAt(blocks, keyEnd(left.end - 1) - 1);
    const orva::Range middle = blocks[low + (high - low) / 2].rows;
    const std::int64_t from = middle.offset - fRange.offset();
    const std::int64_t to = from + middle.length - static_cast<std::int64_t>(fRange.width());
    const std::int64_t begin = from <= 0 ? 0 : (from - 1) / fRecordSize + 1;
    const std::int64_t end = to < 0 ? 0 : to / fRecordSize + 1;
    const interval inside{std::max(left.begin, begin), std::min(left.end, end)};
    if (inside.begin < inside.end) return inside;
    const std::int64_t one = left.begin + (left.end - left.begin) / 2;
    return {one, one + 1};
}

std::int64_t recordSearch::first() {
    if (!fRange.isBelow(0)) return 0;
    interval left{0, fRecords};  // all before are below the range, all after are not
    std::uint64_t before = 0;    // ranks of the records next to them
    std::uint64_t after = std::numeric_limits<std::uint64_t>::max();
    while (left.begin < left.end) {
        const interval seen = probe(left);
        std::int64_t found = seen.end;
        std::uint64_t rank = before;
        for (std::int64_t i = seen.begin; i < seen.end; ++i) {
            rank = rankOf(i, rank);
            if (found == seen.end && !fRange.isBelow(rank)) found = i;
        }
        if (rank > after) refuse(seen.end);
        if (found == seen.end) {
            left.begin = seen.end;
            before = rank;
        } else if (found == seen.begin) {
            left.end = found;
            after = rankOf(found, before);
        } else {
            return found;
        }
    }
    return left.begin;
}

std::int64_t recordSearch::countFrom(std::int64_t record) {
    const std::vector<orva::Block>& blocks = fRows.file().info.blocks;
    const orva::Range block = blocks[blockAt(blocks, record * fRecordSize)].rows;
    const std::int64_t blockEnd = block.offset + block.length;
    const std::int64_t end = std::min(fRecords, std::max(record + 1, blockEnd / fRecordSize));
    for (std::int64_t i = record; i < end; ++i) {
        fLastRank = rankOf(i, fLastRank);
        if (fRange.isBeyond(fLastRank)) return i - record;
    }
    return end - record;
}

std::uint64_t recordSearch::rankOf(std::int64_t record, std::uint64_t before) {
    unsigned char key[8];
    unsigned char* to = key;
    fRows.visit(keyPlace(record), static_cast<std::int64_t>(fRange.width()),
                [&](std::string_view bytes) { to = std::copy(bytes.begin(), bytes.end(), to); });
    const auto rank = fRange.rank(key, fRows.file().info.swapped);
    if (!rank || *rank < before) refuse(record);
    return *rank;
}

void recordSearch::refuse(std::int64_t record) const {
    throw toolFailure(kDamaged, fRows.file().name,
                      "the key of record " + grouped(record) +
                          " is out of order: --records-where needs records in ascending order of the key; check "
                          "OFFSET and TYPE");
}
