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

struct finishedPart::state {
    state(const std::string& name, foundPart part) : bSwapped(part.swapped) {
        openOrThrow(fFile, name, "rb", kReadFailed);
        fHeading = readHeading(fFile, part.row0Pos, bSwapped, "Analyze dictionary part error!");
        fFileSize = lengthOf(fFile);
        fIndex = readRecords(fFile, fHeading, bSwapped);
    }

    readRoad road() {
        if (!fCompressed) fCompressed = blockBuffer(kBlockSize);
        return {fFile, fCodec, fCompressed.get()};
    }
    blockPlace placeOf(std::uint32_t number) const { return orva::placeOf(fIndex.records, number, fFileSize); }

    ORVA_File fFile;
    std::int64_t fFileSize = 0;
    compressionHeading fHeading{};
    const bool bSwapped;
    indexContent fIndex;
    zlibCompressBlock fCodec;
    blockBuffer fCompressed;
    blockBuffer fRows;
};

finishedPart::finishedPart(const std::string& name, foundPart part) : fState(new state(name, part)) {}
finishedPart::~finishedPart() = default;

const compressionHeading& finishedPart::heading() const {
    return fState->fHeading;
}
bool finishedPart::swapped() const {
    return fState->bSwapped;
}
std::int64_t finishedPart::fileSize() const {
    return fState->fFileSize;
}
std::uint32_t finishedPart::blockSize() const {
    return fState->fIndex.blockSize;
}
std::uint32_t finishedPart::blockCount() const {
    return static_cast<std::uint32_t>(fState->fIndex.records.size());
}
const filePosRecord& finishedPart::block(std::uint32_t number) const {
    return fState->fIndex.records[number];
}

std::int64_t finishedPart::dataSize() const {
    if (blockCount() == 0) return 0;
    const filePosRecord& last = fState->fIndex.records.back();
    return last.orginalPos + last.orginalSize - fState->fHeading._caseStartPos;
}

void finishedPart::verifyIndex() {
    checkContiguous(fState->fFile, fState->fHeading, fState->fIndex.records.data(), blockCount());
}

const unsigned char* finishedPart::compressedBlock(std::uint32_t number) {
    const readRoad road = fState->road();
    readCompressed(road, fState->placeOf(number));
    return road.compressed;
}

void finishedPart::verifyBlock(std::uint32_t number) {
    if (!fState->fRows) fState->fRows = blockBuffer(kBlockSize);
    readBlock(number, fState->fRows.get());
}

void finishedPart::readBlock(std::uint32_t number, unsigned char* rows) {
    orva::readBlock(fState->road(), fState->placeOf(number), rows);
}

ORVA_File& finishedPart::file() {
    return fState->fFile;
}

}  // namespace orva
