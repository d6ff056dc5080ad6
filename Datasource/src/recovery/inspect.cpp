#include "base/blockBuffer.h"
#include "base/fileError.h"
#include "file/namedFile.h"
#include "format/blockTransfer.h"
#include "format/indexTransfer.h"
#include "recovery/fileWindow.h"

#include <orva/blockSize.h>
#include <orva/errors.h>
#include <orva/file.h>
#include <orva/inspect.h>
#include <orva/zlibCompress.h>

#include <cstring>

namespace orva {

namespace {

bool pointsToIndex(const bytesFrom& file, std::int64_t fileSize, const compressionHeading& heading, bool swapped) {
    filePosRecord first;
    if (heading._indexPos > fileSize - heading._size) return false;
    if (!file.read(&first, sizeof first, heading._indexPos)) return false;
    if (swapped) swapRecord(first);
    return first.orginalPos == kFirstRecordMark;
}

}  // namespace

std::optional<foundPart> findPart(const std::string& name, std::int64_t from,
                                  const std::function<void(std::int64_t)>& moved) {
    ORVA_File file;
    openOrThrow(file, name, "rb", kReadFailed);
    fileWindow window(file, [&](std::int64_t place, auto...) { moved(place); });
    std::optional<foundPart> best;
    const auto isCertain = [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
        std::int64_t own = 0;  // a look at this alone passes over nearly every place
        std::memcpy(&own, bytes, sizeof own);
        if (own != place && swapBytes(own) != place) return false;
        for (const bool swapped : {false, true}) {
            const std::optional<compressionHeading> heading = headingOf(bytes, place, swapped);
            if (!heading) continue;
            const bool certain = pointsToIndex(file, window.fileSize(), *heading, swapped);
            if (certain || !best) best = foundPart{place, swapped};
            if (certain) return true;
        }
        return false;
    };
    window.find(from, window.fileSize(), kHeadingSize, isCertain);
    return best;
}

struct finishedPart::content {
    content(const std::string& name, foundPart part) : swapped(part.swapped) {
        openOrThrow(file, name, "rb", kReadFailed);
        heading = readHeading(file, part.row0Pos, swapped, "Analyze dictionary part error!");
        fileSize = bytesFrom(file).length();
        records = readRecords(file, heading, swapped);
    }

    ORVA_File file;
    const bool swapped;
    compressionHeading heading{};
    std::int64_t fileSize = 0;
    std::vector<filePosRecord> records;
    // For verifyBlock; allocated by its first call.
    zlibCompressBlock codec;
    blockBuffer compressed;
    blockBuffer rows;
};

finishedPart::finishedPart(const std::string& name, foundPart part) : fContent(new content(name, part)) {}
finishedPart::~finishedPart() = default;

const compressionHeading& finishedPart::heading() const {
    return fContent->heading;
}
std::uint32_t finishedPart::blockCount() const {
    return static_cast<std::uint32_t>(fContent->records.size());
}
const filePosRecord& finishedPart::block(std::uint32_t number) const {
    return fContent->records[number];
}

std::int64_t finishedPart::dataSize() const {
    if (blockCount() == 0) return 0;
    const filePosRecord& last = fContent->records.back();
    return rowsEnd(last) - fContent->heading._caseStartPos;
}

void finishedPart::verifyIndex() {
    checkContiguous(file(), heading(), fContent->records);
}

// Throws FileChangedError for damage that another process's append explains.
void finishedPart::verifyBlock(std::uint32_t number) {
    content& c = *fContent;
    if (!c.compressed) c.compressed = compressedRoom(c.records);
    if (!c.rows) c.rows = rowRoom(c.records);
    const readContext context{c.file, c.codec, c.compressed.get()};
    readRechecked([&] { readBlock(context, placeOf(c.records, number, c.fileSize), c.rows.get()); },
                  [&] { return changedSince(c.file, c.heading, c.swapped, c.records, number); });
}

ORVA_File& finishedPart::file() {
    return fContent->file;
}

bool finishedPart::isChangedIn(ORVA_File& now) const {
    return changedSince(now, heading(), fContent->swapped, fContent->records);
}

}  // namespace orva
