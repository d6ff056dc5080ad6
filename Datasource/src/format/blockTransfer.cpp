#include "format/blockTransfer.h"

#include "base/assertion.h"
#include "base/fileError.h"
#include "file/namedFile.h"

#include <orva/blockSize.h>
#include <orva/errors.h>

#include <algorithm>
#include <new>
#include <string>

namespace orva {

namespace {

// Returns the length of the stream that the codec made; asserts that it is whole.
std::uint32_t wholeStream(const blockOutcome& outcome) {
    requireMemory(outcome);
    ORVA_ASSERT(outcome.end == blockOutcome::complete, "ret != 0");
    return outcome.produced;
}

void addRecord(filePosInfo& index, std::int64_t pos, std::int64_t place, std::uint32_t size, std::uint32_t length) {
    index.addRecord(pos, place, static_cast<std::int32_t>(size), static_cast<std::int32_t>(length));
}

[[noreturn]] void refuse(const readContext& context, const blockPlace& block, const char* check,
                         const std::string& what) {
    const filePosRecord& r = block.record;
    throw DamagedFileError(context.file.name(), check,
                           "block " + std::to_string(block.number) + " (logical positions " +
                               std::to_string(r.orginalPos) + " to " + std::to_string(rowsEnd(r)) + ", file offset " +
                               std::to_string(r.translatePos) + ") " + what,
                           {block.number, r.translatePos});
}

bool liesInside(const filePosRecord& r, std::int64_t fileEnd) {
    return isBlockSize(r.translateSize) && r.translatePos >= 0 && r.translatePos <= fileEnd - r.translateSize;
}

// All records of the index and the length of the file, against which a record is checked.
struct allBlocks {
    std::span<const filePosRecord> records;
    std::int64_t fileEnd;

    // The record of that number, if it exists and can be true.
    std::optional<filePosRecord> credible(std::int64_t number) const {
        if (number < 0 || number >= std::ssize(records)) return std::nullopt;
        const filePosRecord& r = records[static_cast<std::size_t>(number)];
        if (!liesInside(r, fileEnd)) return std::nullopt;
        return r;
    }
    // Counts the ends of a record that do not meet its neighbours: no writer leaves gaps between blocks.
    int mismatchedEnds(std::int64_t number, const filePosRecord& r) const {
        const std::optional<filePosRecord> before = credible(number - 1);
        const std::optional<filePosRecord> next = credible(number + 1);
        const bool mismatchedBegin = before ? r.translatePos != storedEnd(*before)
                                            : number == 0 && r.translatePos - kHeadingSize != r.orginalPos;
        const bool mismatchedEnd = next && next->translatePos != storedEnd(r);
        return (mismatchedBegin ? 1 : 0) + (mismatchedEnd ? 1 : 0);
    }
    // Of two records with bytes in common one is wrong: the one that fits its neighbours less well, else the one that
    // begins first, since its end passes the other's beginning.
    bool overlaps(std::int64_t number, std::int64_t other) const {
        const std::optional<filePosRecord> a = credible(number);
        const std::optional<filePosRecord> b = credible(other);
        if (!a || !b || a->translatePos >= storedEnd(*b) || b->translatePos >= storedEnd(*a)) return false;
        const int more = mismatchedEnds(number, *a) - mismatchedEnds(other, *b);
        return more > 0 || (more == 0 && a->translatePos <= b->translatePos);
    }
};

// Memory for rows has room for the longest block only.
void checkRows(const readContext& context, const blockPlace& block) {
    if (isBlockSize(block.record.orginalSize)) return;
    refuse(context, block, "orginalSize in 1..4190208", "has a record with an impossible size");
}

void checkRecord(const readContext& context, const blockPlace& block) {
    const filePosRecord& r = block.record;
    checkRows(context, block);
    if (!isBlockSize(r.translateSize)) {
        refuse(context, block, "translateSize in 1..4190208",
               "has a record with the compressed size " + std::to_string(r.translateSize));
    }
    if (!liesInside(r, block.fileEnd)) {
        refuse(context, block, "translatePos inside the file", "lies outside the file");
    }
    if (block.nextStart && *block.nextStart != rowsEnd(r)) {
        refuse(context, block, "orginalPos + orginalSize == next orginalPos",
               "does not end where the next one begins, at " + std::to_string(*block.nextStart));
    }
    if (block.overlaps) {
        refuse(context, block, "translatePos + translateSize <= next translatePos",
               "overlaps its neighbour in the file");
    }
}

}  // namespace

const blockOutcome& requireMemory(const blockOutcome& outcome) {
    if (outcome.end == blockOutcome::notStarted || outcome.end == blockOutcome::noMemory) throw std::bad_alloc();
    return outcome;
}

std::uint32_t deflateRoom(std::uint32_t size) {
    return std::max(zlibCompressBlock::compressRoom(size), 2 * zlibCompressBlock::compressRoom((size + 1) / 2));
}

// Both halves of a block fit even if the block does not: deflate adds some thousands of bytes at most, and a half
// leaves room for two millions.
deflatedBlock deflateBlock(zlibCompressBlock& codec, std::int32_t level, const unsigned char* block, std::uint32_t size,
                           unsigned char* scratch) {
    const auto roomFor = &zlibCompressBlock::compressRoom;
    const auto store = [&](const unsigned char* rows, std::uint32_t count, unsigned char* to) {
        return wholeStream(codec.storeWhole(rows, count, to, roomFor(count)));
    };
    const bool noise =
        level == zlibCompressBlock::kFastestLevel && zlibCompressBlock::looksLikeNoise(block, size, scratch);
    if (noise && roomFor(size) <= kBlockSize) return {size, store(block, size, scratch), 0, 0};
    if (!noise) {
        const std::uint32_t whole = wholeStream(codec.deflateWhole(block, size, scratch, roomFor(size), level));
        if (whole <= kBlockSize) return {size, whole, 0, 0};
    }
    const std::uint32_t half = size / 2;
    const std::uint32_t first = store(block, half, scratch);
    const std::uint32_t second = store(block + half, size - half, scratch + first);
    return {half, first, size - half, second};
}

std::int64_t writeDeflated(ORVA_File& file, filePosInfo& index, const deflatedBlock& deflated,
                           const unsigned char* scratch, std::int64_t pos, std::int64_t place) {
    writeAll(file, scratch, deflated.length + deflated.secondLength, place);
    const std::int64_t secondPlace = place + deflated.length;
    addRecord(index, pos, place, deflated.rows, deflated.length);
    if (deflated.secondRows != 0) {
        addRecord(index, pos + deflated.rows, secondPlace, deflated.secondRows, deflated.secondLength);
    }
    return secondPlace + deflated.secondLength;
}

std::int64_t writeBlock(const writeContext& context, const unsigned char* block, std::uint32_t size, std::int64_t pos,
                        std::int64_t place) {
    const deflatedBlock deflated = deflateBlock(context.codec, context.level, block, size, context.scratch);
    return writeDeflated(context.file, context.index, deflated, context.scratch, pos, place);
}

void writeAll(ORVA_File& file, const void* bytes, std::uint64_t size, std::int64_t place) {
    const bool whole = inPieces(
        static_cast<const unsigned char*>(bytes), size, place,
        [&](const unsigned char* from, std::uint32_t piece, std::int64_t at) { return file.Write(from, piece, at); });
    if (!whole) throwClosed(file, kWriteFailed);
}

blockBuffer compressedRoom(std::span<const filePosRecord> records) {
    return {kBlockSize, longest(records, &filePosRecord::translateSize)};
}

blockBuffer rowRoom(std::span<const filePosRecord> records) {
    return {kBlockSize, longest(records, &filePosRecord::orginalSize)};
}

blockPlace placeOf(std::span<const filePosRecord> records, std::uint32_t number, std::int64_t fileEnd) {
    const allBlocks all{records, fileEnd};
    const std::int64_t n = number;
    std::optional<std::int64_t> nextStart;
    if (n + 1 < std::ssize(records)) nextStart = records[number + 1].orginalPos;
    return {records[number], number, nextStart, fileEnd, all.overlaps(n, n - 1) || all.overlaps(n, n + 1)};
}

std::uint32_t blockAt(const filePosInfo& index, std::int64_t pos) {
    const std::optional<std::uint32_t> number = index.find(pos);
    ORVA_ASSERT(number && index.parsed(*number).orginalPos == pos, "fpos == bInfo.orginalPos");
    return *number;
}

void readCompressed(const readContext& context, const blockPlace& block) {
    checkRecord(context, block);
    const auto deflated = static_cast<std::uint32_t>(block.record.translateSize);
    if (!context.file.read(context.compressed, deflated, block.record.translatePos)) {
        refuse(context, block, "ret == bInfo.translateSize", "is cut short by the end of the file");
    }
}

std::uint32_t inflateBlock(const readContext& context, const blockPlace& block, unsigned char* dest) {
    checkRows(context, block);
    const auto deflated = static_cast<std::uint32_t>(block.record.translateSize);
    const auto size = static_cast<std::uint32_t>(block.record.orginalSize);
    const blockOutcome outcome = requireMemory(context.codec.inflateWhole(context.compressed, deflated, dest, size));
    if (outcome.produced == 0) refuse(context, block, "ret!= 0", "does not inflate");
    if (outcome.produced != size) {
        refuse(context, block, "0: outCount == bInfo.orginalSize",
               "inflates to only " + std::to_string(outcome.produced) + " bytes");
    }
    if (outcome.end != blockOutcome::complete || outcome.consumed != deflated) {
        refuse(context, block, "0: Z_STREAM_END at the last byte",
               "fails its checksum or does not end where it should");
    }
    return size;
}

std::uint32_t readBlock(const readContext& context, const blockPlace& block, unsigned char* dest) {
    readCompressed(context, block);
    return inflateBlock(context, block, dest);
}

}  // namespace orva
