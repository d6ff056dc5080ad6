// The structures of the compressed part of a file, in the writing machine's byte order.
// Rules, order of writing and a worked example: docs/format.md.
#pragma once

#include <orva/blockSize.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

// The heading at the row-0 position. Written last of all: it makes a file finished.
struct compressionHeading {
    std::int64_t _caseStartPos;  // the heading's own offset, S
    std::int64_t _indexPos;      // file offset of the index
    std::int64_t _size;          // bytes of the index: 24 x (blocks + 1)

    bool operator==(const compressionHeading&) const = default;
};

// One block of rows, or the index's first record.
struct filePosRecord {
    std::int64_t orginalPos;     // logical position of the block's first byte; kFirstRecordMark in the first record
    std::int64_t translatePos;   // file offset of its compressed bytes; 0 in the first record
    std::int32_t orginalSize;    // bytes before compression; the block size in the first record
    std::int32_t translateSize;  // bytes in the file; the number of blocks in the first record

    bool operator==(const filePosRecord&) const = default;
};

static_assert(sizeof(compressionHeading) == 24 && sizeof(filePosRecord) == 24);

inline constexpr std::int64_t kHeadingSize = sizeof(compressionHeading);
inline constexpr std::int64_t kRecordSize = sizeof(filePosRecord);

// No part can begin after this: its first block must end within the signed 64-bit range.
inline constexpr std::int64_t kLastRow0Pos = INT64_MAX - kHeadingSize - kBlockSize;

// Values of orginalPos: in the first record of an index, and in findRecord's result for a position that no block holds.
inline constexpr std::int64_t kFirstRecordMark = -100;
inline constexpr std::int64_t kNoRecord = -200;

namespace orva {

template <class Integer>
constexpr Integer swapBytes(Integer value) {
    auto bytes = std::bit_cast<std::array<unsigned char, sizeof(Integer)>>(value);
    std::reverse(bytes.begin(), bytes.end());
    return std::bit_cast<Integer>(bytes);
}

constexpr void swapHeading(compressionHeading& heading) {
    heading._caseStartPos = swapBytes(heading._caseStartPos);
    heading._indexPos = swapBytes(heading._indexPos);
    heading._size = swapBytes(heading._size);
}

constexpr void swapRecord(filePosRecord& record) {
    record.orginalPos = swapBytes(record.orginalPos);
    record.translatePos = swapBytes(record.translatePos);
    record.orginalSize = swapBytes(record.orginalSize);
    record.translateSize = swapBytes(record.translateSize);
}

}  // namespace orva
