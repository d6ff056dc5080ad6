#include "blockRows.h"

#include <algorithm>
#include <cstring>
#include <utility>

std::uint32_t blockAt(const orva::finishedPart& part, std::int64_t offset) {
    std::uint32_t low = 0;
    std::uint32_t high = part.blockCount();
    while (high - low > 1) {
        const std::uint32_t middle = low + (high - low) / 2;
        (blockBegin(part, middle) <= offset ? low : high) = middle;
    }
    return low;
}

std::int64_t blockBegin(const orva::finishedPart& part, std::uint32_t number) {
    if (number == part.blockCount()) return part.dataSize();
    return part.block(number).orginalPos - part.heading()._caseStartPos;
}

void blockRows::load(std::int64_t offset) {
    if (offset >= fCurrent.begin && offset < fCurrent.end) return;
    std::swap(fCurrent, fBefore);
    if (offset >= fCurrent.begin && offset < fCurrent.end) return;
    if (!fCurrent.rows) fCurrent.rows = std::make_unique_for_overwrite<unsigned char[]>(kBlockSize);
    fCurrent.end = fCurrent.begin;
    const std::uint32_t number = blockAt(fPart, offset);
    fPart.readBlock(number, fCurrent.rows.get());
    ++fInflated;
    fCurrent.begin = blockBegin(fPart, number);
    fCurrent.end = blockBegin(fPart, number + 1);
}

std::string_view blockRows::from(std::int64_t offset) {
    load(offset);
    const auto* rows = reinterpret_cast<const char*>(fCurrent.rows.get());
    return {rows + (offset - fCurrent.begin), static_cast<std::size_t>(fCurrent.end - offset)};
}

void blockRows::copy(std::int64_t offset, std::size_t size, void* to) {
    auto* dest = static_cast<unsigned char*>(to);
    while (size > 0) {
        const std::string_view rows = from(offset).substr(0, size);
        std::memcpy(dest, rows.data(), rows.size());
        offset += static_cast<std::int64_t>(rows.size());
        dest += rows.size();
        size -= rows.size();
    }
}
