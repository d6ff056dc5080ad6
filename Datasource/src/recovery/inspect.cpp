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

bool pointsToIndex(bytesFrom file, std::int64_t fileSize, const compressionHeading& heading, bool swapped) {
    filePosRecord first;
    if (heading._indexPos > fileSize - heading._size) return false;
    if (!file.read(&first, sizeof first, heading._indexPos)) return false;
    if (swapped) swapRecord(first);
    return first.orginalPos == kFirstRecordMark;
}

// The heading whose bytes these are, if it repeats `place` in this byte order and could be true.
std::optional<compressionHeading> headingOf(const unsigned char* bytes, std::int64_t place, bool swapped) {
    compressionHeading heading;
    std::memcpy(&heading, bytes, sizeof heading);
    if (swapped) swapHeading(heading);
    if (heading._caseStartPos != place || breachOf(heading) != nullptr) return std::nullopt;
    return heading;
}

}  // namespace

std::optional<foundPart> findPart(const std::string& name, std::int64_t from) {
    ORVA_File file;
    openOrThrow(file, name, "rb", kReadFailed);
    return findPart(file, from);
}

std::optional<foundPart> findPart(ORVA_File& file, std::int64_t from) {
    fileWindow window(file);
    std::optional<foundPart> best;
    window.find(from, window.fileSize(), kHeadingSize,
                [&](std::int64_t place, const unsigned char* bytes, std::uint32_t) {
                    for (const bool swapped : {false, true}) {
                        const std::optional<compressionHeading> heading = headingOf(bytes, place, swapped);
                        if (!heading) continue;
                        const bool certain = pointsToIndex(file, window.fileSize(), *heading, swapped);
                        if (certain || !best) best = foundPart{place, swapped};
                        if (certain) return true;
                    }
                    return false;
                });
    return best;
}

namespace {

std::shared_ptr<ORVA_File> openForReading(const std::string& name) {
    auto file = std::make_shared<ORVA_File>();
    openOrThrow(*file, name, "rb", kReadFailed);
    return file;
}

}  // namespace

// What copies share, read only.
struct finishedPart::content {
    content(const std::shared_ptr<ORVA_File>& file, foundPart part)
        : fFile(file),
          bSwapped(part.swapped),
          fHeading(readHeading(*file, part.row0Pos, bSwapped, "Analyze dictionary part error!")),
          fFileSize(lengthOf(*file)),
          fIndex(readRecords(*file, fHeading, bSwapped)) {}

    const std::shared_ptr<ORVA_File> fFile;
    const bool bSwapped;
    const compressionHeading fHeading;
    const std::int64_t fFileSize;
    const indexContent fIndex;
};

struct finishedPart::memory {
    zlibCompressBlock codec;
    blockBuffer compressed;
    blockBuffer rows;
};

finishedPart::finishedPart(const std::string& name, foundPart part) : finishedPart(openForReading(name), part) {}
finishedPart::finishedPart(const std::shared_ptr<ORVA_File>& file, foundPart part)
    : fContent(std::make_shared<const content>(file, part)), fMemory(new memory) {}
finishedPart::finishedPart(const finishedPart& other) : fContent(other.fContent), fMemory(new memory) {}
finishedPart::~finishedPart() = default;

const compressionHeading& finishedPart::heading() const {
    return fContent->fHeading;
}
bool finishedPart::swapped() const {
    return fContent->bSwapped;
}
std::int64_t finishedPart::fileSize() const {
    return fContent->fFileSize;
}
std::uint32_t finishedPart::blockSize() const {
    return fContent->fIndex.blockSize;
}
std::uint32_t finishedPart::blockCount() const {
    return static_cast<std::uint32_t>(fContent->fIndex.records.size());
}
const filePosRecord& finishedPart::block(std::uint32_t number) const {
    return fContent->fIndex.records[number];
}

std::int64_t finishedPart::dataSize() const {
    if (blockCount() == 0) return 0;
    const filePosRecord& last = fContent->fIndex.records.back();
    return last.orginalPos + last.orginalSize - fContent->fHeading._caseStartPos;
}

std::int64_t finishedPart::chosenLength() const {
    return orva::chosenLength(fContent->fIndex.records);
}

void finishedPart::verifyIndex() {
    checkContiguous(file(), heading(), fContent->fIndex.records);
}

// Damage that another process's append explains is told as that.
template <class Read>
auto finishedPart::reading(std::uint32_t number, Read read) {
    if (!fMemory->compressed) fMemory->compressed = compressedRoom(fContent->fIndex.records);
    try {
        return read(readRoad{file(), fMemory->codec, fMemory->compressed.get()},
                    placeOf(fContent->fIndex.records, number, fContent->fFileSize));
    } catch (const DamagedFileError& damage) {
        if (isChangedIn(file())) throw FileChangedError(damage);
        throw;
    }
}

const unsigned char* finishedPart::compressedBlock(std::uint32_t number) {
    return reading(number, [](const readRoad& road, const blockPlace& block) {
        readCompressed(road, block);
        return road.compressed;
    });
}

void finishedPart::verifyBlock(std::uint32_t number) {
    rowsOf(number);
}

void finishedPart::readBlock(std::uint32_t number, unsigned char* rows) {
    reading(number, [&](const readRoad& road, const blockPlace& block) { return orva::readBlock(road, block, rows); });
}

const unsigned char* finishedPart::rowsOf(std::uint32_t number) {
    if (!fMemory->rows) fMemory->rows = rowRoom(fContent->fIndex.records);
    readBlock(number, fMemory->rows.get());
    return fMemory->rows.get();
}

ORVA_File& finishedPart::file() {
    return *fContent->fFile;
}

bool finishedPart::isChangedIn(ORVA_File& now) const {
    return changedSince(now, heading(), swapped(), fContent->fIndex.records);
}

}  // namespace orva
