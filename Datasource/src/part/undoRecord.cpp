#include "part/undoRecord.h"

#include "format/blockTransfer.h"
#include "format/indexTransfer.h"

#include <orva/errors.h>
#include <orva/errtext.h>

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

namespace orva {

namespace {

constexpr std::int64_t kSideFileMark = sideFileHead().mark;
constexpr std::int64_t kSummedBytes = 4096;

std::int64_t checksum(const void* bytes, std::size_t size) {
    return static_cast<std::int64_t>(crc32_z(0, static_cast<const unsigned char*>(bytes), size));
}

// The data file as it was before the append, of which only the index is kept. The first read is that of the index.
class keptIndex final : public storedBytes {
public:
    keptIndex(std::span<const unsigned char> bytes, std::int64_t fileSize) : fBytes(bytes), fFileSize(fileSize) {}
    const std::string& name() const override { return fName; }
    std::int64_t length() const override { return std::max<std::int64_t>(fFileSize, 0); }
    bool read(void* to, std::uint64_t size, std::int64_t place) const override {
        if (fBegin == 0) fBegin = place;
        const auto from = static_cast<std::uint64_t>(place - fBegin);
        if (from > fBytes.size() || size > fBytes.size() - from) return false;
        std::memcpy(to, fBytes.data() + from, static_cast<std::size_t>(size));
        return true;
    }

private:
    const std::span<const unsigned char> fBytes;
    const std::int64_t fFileSize;
    const std::string fName;
    mutable std::int64_t fBegin = 0;  // where the index stood
};

// Allocates nothing: memory may be what has run out.
bool areInFile(const bytesFrom& file, std::span<const unsigned char> bytes, std::int64_t place) {
    std::array<unsigned char, 4096> found;
    for (; !bytes.empty(); place += std::ssize(found)) {
        const auto piece = bytes.first(std::min(bytes.size(), found.size()));
        if (!file.read(found.data(), piece.size(), place)) return false;
        if (!std::equal(piece.begin(), piece.end(), found.begin())) return false;
        bytes = bytes.subspan(piece.size());
    }
    return true;
}

void append(fileBytes& bytes, const void* from, std::size_t size) {
    const auto* begin = static_cast<const unsigned char*>(from);
    bytes.insert(bytes.end(), begin, begin + size);
}

// Reads the head, in either byte order, and returns what is between it and the checksum of all: the index and the
// block. Nothing if the mark or the checksum is wrong.
std::optional<std::span<const unsigned char>> checkedContent(const fileBytes& sideFile, sideFileHead& head) {
    std::int64_t sum = 0;
    if (sideFile.size() < sizeof head + sizeof sum) return {};
    const std::size_t summed = sideFile.size() - sizeof sum;
    std::memcpy(&head, sideFile.data(), sizeof head);
    std::memcpy(&sum, sideFile.data() + summed, sizeof sum);
    if (head.mark == swapBytes(kSideFileMark)) {
        for (auto* number : {&head.mark, &head.row0Pos, &head.fileSize, &head.untouchedEnd, &head.untouchedSum, &sum})
            *number = swapBytes(*number);
    }
    if (head.mark != kSideFileMark || sum != checksum(sideFile.data(), summed)) return {};
    return std::span(sideFile).first(summed).subspan(sizeof head);
}

}  // namespace

fileBytes bytesAt(const bytesFrom& file, std::int64_t place, std::int64_t size) {
    if (place > file.length() - size) return {};
    fileBytes bytes(sizeInMemory(size));
    if (!file.read(bytes.data(), bytes.size(), place)) bytes.clear();
    return bytes;
}

std::optional<std::int64_t> untouchedSum(const bytesFrom& file, std::int64_t row0Pos, std::int64_t untouchedEnd) {
    const std::int64_t begin = std::max(row0Pos + kHeadingSize, untouchedEnd - kSummedBytes);
    const fileBytes bytes = bytesAt(file, begin, untouchedEnd - begin);
    if (std::ssize(bytes) != untouchedEnd - begin) return {};
    return checksum(bytes.data(), bytes.size());
}

void putBack(ORVA_File& file, std::span<const unsigned char> kept, std::int64_t place) try {
    writeAll(file, kept.data(), kept.size(), place);
} catch (const FileError&) {
    if (!areInFile(file, kept, place)) throw;
}

void restoreTail(ORVA_File& file, const undoRecord& undo, bool durable) {
    if (bytesFrom(file).length() > undo.fileSize) file.Truncate(undo.fileSize);
    putBack(file, undo.block, undo.untouchedEnd);
    if (durable) file.Sync();
    putBack(file, undo.index, undo.indexPos);
    if (durable) file.Sync();
}

fileBytes serialize(const undoRecord& undo) {
    fileBytes bytes;
    append(bytes, static_cast<const sideFileHead*>(&undo), sizeof(sideFileHead));
    append(bytes, undo.index.data(), undo.index.size());
    append(bytes, undo.block.data(), undo.block.size());
    const std::int64_t sum = checksum(bytes.data(), bytes.size());
    append(bytes, &sum, sizeof sum);
    return bytes;
}

// A loss of power may lose the first bytes and keep later ones: then zeros stand in place of the mark.
bool isForeign(const fileBytes& sideFile) {
    const auto begins = [&](std::int64_t mark) {
        return std::memcmp(sideFile.data(), &mark, std::min(sideFile.size(), sizeof mark)) == 0;
    };
    return !sideFile.empty() && !begins(kSideFileMark) && !begins(swapBytes(kSideFileMark)) && !begins(0);
}

std::optional<undoRecord> parse(const fileBytes& sideFile) {
    undoRecord undo;
    const auto kept = checkedContent(sideFile, undo);
    if (!kept) return {};
    const std::optional<partIndex> index = soundIndexOf(keptIndex(*kept, undo.fileSize), undo.heading, undo.row0Pos);
    if (!index) return {};
    const std::span block = kept->subspan(static_cast<std::size_t>(index->heading._size));
    undo.indexPos = index->heading._indexPos;
    undo.index.assign(kept->begin(), block.begin());
    undo.block.assign(block.begin(), block.end());
    const std::int64_t blocksBegin = undo.row0Pos + kHeadingSize;
    const filePosRecord last = index->records.empty() ? filePosRecord{0, blocksBegin, 0, 0} : index->records.back();
    const bool isLast = block.empty() || std::ssize(block) == last.translateSize;
    return isLast && undo.untouchedEnd == storedEnd(last) - std::ssize(block) ? std::optional(undo) : std::nullopt;
}

std::optional<undoRecord> readUndoRecord(heldSideFile& side, const bytesFrom& data) {
    try {
        if (side.open() && side.isTrusted()) return parse(side.read(data.length() + kSideFileOverhead));
    } catch (const DamagedFileError&) {  // NOLINT(bugprone-empty-catch): no append has made it
    }
    return {};
}

}  // namespace orva
