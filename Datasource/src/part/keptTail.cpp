#include "part/keptTail.h"

#include "format/blockTransfer.h"
#include "format/indexTransfer.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

namespace orva {

namespace {

constexpr std::int64_t kSideFileMark = 0x3250504156524f2e;  // ".ORVAPP2" on disk; another byte order reads otherwise
constexpr std::int64_t kSummedBytes = 4096;

struct sideFileHead {
    std::int64_t mark;
    std::int64_t row0Pos;
    std::int64_t fileSize;
    std::int64_t untouchedEnd;
    std::int64_t untouchedSum;
    rawHeading heading;
};

std::int64_t checksum(const void* bytes, std::size_t size) {
    return static_cast<std::int64_t>(crc32_z(0, static_cast<const unsigned char*>(bytes), size));
}

void append(fileBytes& bytes, const void* from, std::size_t size) {
    const std::size_t at = bytes.size();
    bytes.resize(at + size);
    if (size != 0) std::memcpy(bytes.data() + at, from, size);
}

// A loss of power may have cost it its first bytes and left others: then zeros stand in the place of the mark.
bool isForeign(const fileBytes& bytes) {
    constexpr unsigned char lost[sizeof kSideFileMark] = {};
    const std::size_t marked = std::min(bytes.size(), sizeof kSideFileMark);
    return marked != 0 && std::memcmp(bytes.data(), &kSideFileMark, marked) != 0 &&
           std::memcmp(bytes.data(), lost, marked) != 0;
}

// The bytes behind the head, without the checksum at the end, are the index and then the block.
bool takePlaces(const sideFileHead& head, fileBytes rest, keptTail& tail) {
    const auto inside = [&](std::int64_t, std::size_t size) {
        return fileBytes(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(std::min(size, rest.size())));
    };
    const std::optional<soundIndex> index = soundIndexOf(head.heading, head.row0Pos, head.fileSize, inside);
    if (!index) return false;
    const std::int64_t behindHeading = head.row0Pos + kHeadingSize;
    const filePosRecord last = index->records.empty() ? filePosRecord{0, behindHeading, 0, 0} : index->records.back();
    const std::int64_t blockSize = std::ssize(rest) - index->heading._size;
    if (blockSize == 0 && head.untouchedEnd != last.translatePos + last.translateSize) return false;
    if (blockSize != 0 && (head.untouchedEnd != last.translatePos || blockSize != last.translateSize)) return false;
    tail = {head.row0Pos,
            head.fileSize,
            head.untouchedEnd,
            head.untouchedSum,
            index->heading._indexPos,
            head.heading,
            {},
            {}};
    tail.block.assign(rest.begin() + index->heading._size, rest.end());
    rest.resize(static_cast<std::size_t>(index->heading._size));
    tail.index = std::move(rest);
    return true;
}

}  // namespace

fileBytes bytesAt(bytesFrom file, std::int64_t place, std::size_t size) {
    if (place > file.length() - static_cast<std::int64_t>(size)) return {};
    fileBytes bytes(size);
    if (!file.read(bytes.data(), size, place)) bytes.clear();
    return bytes;
}

rawHeading rawHeadingAt(bytesFrom file, std::int64_t row0Pos) {
    rawHeading heading{};
    const fileBytes bytes = bytesAt(file, row0Pos, heading.size());
    std::copy(bytes.begin(), bytes.end(), heading.begin());
    return heading;
}

std::optional<std::int64_t> untouchedSum(bytesFrom file, std::int64_t row0Pos, std::int64_t untouchedEnd) {
    const std::int64_t begin = std::max(row0Pos + kHeadingSize, untouchedEnd - kSummedBytes);
    const fileBytes bytes = bytesAt(file, begin, static_cast<std::size_t>(untouchedEnd - begin));
    if (std::ssize(bytes) != untouchedEnd - begin) return {};
    return checksum(bytes.data(), bytes.size());
}

void restoreTail(ORVA_File& file, const keptTail& tail, bool durable) {
    if (lengthOf(file) > tail.fileSize) file.Truncate(tail.fileSize);
    if (!tail.block.empty()) writeAll(file, tail.block.data(), tail.block.size(), tail.untouchedEnd);
    if (durable) file.Sync();
    writeAll(file, tail.index.data(), tail.index.size(), tail.indexPos);
    if (durable) file.Sync();
}

fileBytes serialize(const keptTail& tail) {
    const sideFileHead head{kSideFileMark,     tail.row0Pos,      tail.fileSize,
                            tail.untouchedEnd, tail.untouchedSum, tail.heading};
    fileBytes bytes;
    append(bytes, &head, sizeof head);
    append(bytes, tail.index.data(), tail.index.size());
    append(bytes, tail.block.data(), tail.block.size());
    const std::int64_t sum = checksum(bytes.data(), bytes.size());
    append(bytes, &sum, sizeof sum);
    return bytes;
}

sideFileState parse(const fileBytes& bytes, keptTail& tail) {
    if (isForeign(bytes)) return sideFileState::foreign;
    sideFileHead head{};
    std::int64_t sum = 0;
    if (bytes.size() < sizeof head + sizeof sum) return sideFileState::torn;
    const std::size_t summed = bytes.size() - sizeof sum;
    std::memcpy(&head, bytes.data(), sizeof head);
    std::memcpy(&sum, bytes.data() + summed, sizeof sum);
    if (head.mark != kSideFileMark || sum != checksum(bytes.data(), summed)) return sideFileState::torn;
    fileBytes rest(bytes.begin() + sizeof head, bytes.end() - sizeof sum);
    return takePlaces(head, std::move(rest), tail) ? sideFileState::whole : sideFileState::torn;
}

}  // namespace orva
