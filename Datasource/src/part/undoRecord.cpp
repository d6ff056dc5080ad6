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

}  // namespace

fileBytes bytesAt(const bytesFrom& file, std::int64_t place, std::int64_t size) {
    if (place > file.length() - size) return {};
    fileBytes bytes(static_cast<std::size_t>(size));
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

void restoreTail(ORVA_File& file, const undoRecord& tail, bool durable) {
    if (lengthOf(file) > tail.fileSize) file.Truncate(tail.fileSize);
    putBack(file, tail.block, tail.untouchedEnd);
    if (durable) file.Sync();
    putBack(file, tail.index, tail.indexPos);
    if (durable) file.Sync();
}

fileBytes serialize(const undoRecord& tail) {
    fileBytes bytes;
    append(bytes, static_cast<const sideFileHead*>(&tail), sizeof(sideFileHead));
    append(bytes, tail.index.data(), tail.index.size());
    append(bytes, tail.block.data(), tail.block.size());
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

// After the head come the index, the block, and a checksum of all before it.
std::optional<undoRecord> parse(const fileBytes& sideFile) {
    undoRecord tail;
    std::int64_t sum = 0;
    if (sideFile.size() < sizeof(sideFileHead) + sizeof sum) return {};
    const std::size_t summed = sideFile.size() - sizeof sum;
    std::memcpy(static_cast<sideFileHead*>(&tail), sideFile.data(), sizeof(sideFileHead));
    std::memcpy(&sum, sideFile.data() + summed, sizeof sum);
    if (tail.mark == swapBytes(kSideFileMark)) {
        for (auto* number : {&tail.mark, &tail.row0Pos, &tail.fileSize, &tail.untouchedEnd, &tail.untouchedSum, &sum})
            *number = swapBytes(*number);
    }
    if (tail.mark != kSideFileMark || sum != checksum(sideFile.data(), summed)) return {};
    const std::span<const unsigned char> rest(sideFile.data() + sizeof(sideFileHead), sideFile.data() + summed);
    const std::optional<partIndex> index = soundIndexOf(keptIndex(rest, tail.fileSize), tail.heading, tail.row0Pos);
    if (!index) return {};
    const std::int64_t blocksBegin = tail.row0Pos + kHeadingSize;
    const filePosRecord last = index->records.empty() ? filePosRecord{0, blocksBegin, 0, 0} : index->records.back();
    tail.indexPos = index->heading._indexPos;
    const unsigned char* const indexEnd = rest.data() + index->heading._size;
    tail.index.assign(rest.data(), indexEnd);
    tail.block.assign(indexEnd, rest.data() + rest.size());
    const std::int32_t kept = tail.block.empty() ? 0 : last.translateSize;
    const bool meets = tail.untouchedEnd == storedEnd(last) - kept;
    return meets && std::ssize(tail.block) == kept ? std::optional(tail) : std::nullopt;
}

std::optional<undoRecord> readUndoRecord(heldSideFile& side, const bytesFrom& data) {
    try {
        if (side.open() && side.isTrusted()) return parse(side.read(data.length() + kSideFileOverhead));
    } catch (const DamagedFileError&) {  // NOLINT(bugprone-empty-catch): no append has made it
    }
    return {};
}

}  // namespace orva
