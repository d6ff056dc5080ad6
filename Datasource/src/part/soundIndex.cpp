#include "part/soundIndex.h"

#include "format/indexTransfer.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace orva {

namespace {

// Far beyond any file, and sums of the sizes of as many blocks as an index can hold stay in range.
constexpr std::int64_t kLargestPlace = std::int64_t{1} << 62;

bool canBeTrue(const compressionHeading& h, std::int64_t row0Pos, std::int64_t fileSize) {
    return row0Pos > 0 && row0Pos <= kLargestPlace && h._caseStartPos == row0Pos && breachOf(h) == nullptr &&
           fileSize >= h._size && h._indexPos <= fileSize - h._size;
}

std::optional<soundIndex> inOrder(bool swap, const rawHeading& raw, std::int64_t row0Pos, std::int64_t fileSize,
                                  const indexReader& read) {
    soundIndex index{std::bit_cast<compressionHeading>(raw), {}};
    if (swap) swapHeading(index.heading);
    if (!canBeTrue(index.heading, row0Pos, fileSize)) return {};
    const fileBytes bytes = read(index.heading._indexPos, index.heading._size);
    if (std::ssize(bytes) != index.heading._size) return {};
    index.records.resize(bytes.size() / kRecordSize);
    std::memcpy(index.records.data(), bytes.data(), bytes.size());
    if (swap) std::ranges::for_each(index.records, swapRecord);
    const filePosRecord first = index.records.front();
    index.records.erase(index.records.begin());
    const bool counted = first.translateSize >= 0 && std::cmp_equal(first.translateSize, index.records.size());
    if (first.orginalPos != kFirstRecordMark || !counted || firstGap(index.heading, index.records)) return {};
    return index;
}

}  // namespace

std::optional<soundIndex> soundIndexOf(const rawHeading& raw, std::int64_t row0Pos, std::int64_t fileSize,
                                       const indexReader& read) {
    std::optional<soundIndex> found = inOrder(false, raw, row0Pos, fileSize, read);
    return found ? found : inOrder(true, raw, row0Pos, fileSize, read);
}

}  // namespace orva
