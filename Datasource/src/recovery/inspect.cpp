#include "base/blockBuffer.h"
#include "file/fileCodes.h"
#include "file/namedFile.h"
#include "format/blockTransfer.h"
#include "format/filePosInfo.h"
#include "format/indexTransfer.h"

#include <orva/blockSize.h>
#include <orva/errors.h>
#include <orva/file.h>
#include <orva/inspect.h>
#include <orva/zlibCompress.h>

#include <algorithm>
#include <cstring>

namespace orva {

namespace {

bool couldPointToIndex(const compressionHeading& heading) {
    return heading._size >= kRecordSize && heading._size % kRecordSize == 0 && (heading._size >> 32) == 0 &&
           heading._indexPos >= heading._caseStartPos + kHeadingSize;
}

bool pointsToIndex(ORVA_File& file, std::int64_t fileSize, const compressionHeading& heading, bool swapped) {
    filePosRecord first;
    if (heading._indexPos > fileSize - heading._size) return false;
    if (!readAll(file, &first, sizeof first, heading._indexPos)) return false;
    if (swapped) swapRecord(first);
    return first.orginalPos == kFirstRecordMark;
}

// Walks over a file and keeps the best heading seen.
class headingSearch {
public:
    explicit headingSearch(ORVA_File& file) : fFile(file), fFileSize(lengthOf(file)), fWindow(kBlockSize) {}

    std::optional<foundPart> run() {
        constexpr std::int64_t step = kBlockSize - kHeadingSize + 1;
        for (std::int64_t at = 0; at + kHeadingSize <= fFileSize && !bCertain; at += step) {
            const std::uint32_t count = fFile.Read(fWindow.get(), kBlockSize, at);
            scan(at, count);
        }
        return fBest;
    }

private:
    void scan(std::int64_t at, std::uint32_t count) {
        for (std::int64_t i = at == 0 ? 1 : 0; i + kHeadingSize <= count && !bCertain; ++i) {
            std::int64_t value = 0;
            std::memcpy(&value, fWindow.get() + i, sizeof value);
            if (value == at + i) consider(i, false);
            if (swapBytes(value) == at + i) consider(i, true);
        }
    }

    void consider(std::int64_t i, bool swapped) {
        compressionHeading heading;
        std::memcpy(&heading, fWindow.get() + i, sizeof heading);
        if (swapped) swapHeading(heading);
        if (bCertain || !couldPointToIndex(heading)) return;
        bCertain = pointsToIndex(fFile, fFileSize, heading, swapped);
        if (bCertain || !fBest) fBest = foundPart{heading._caseStartPos, swapped};
    }

    ORVA_File& fFile;
    const std::int64_t fFileSize;
    blockBuffer fWindow;
    std::optional<foundPart> fBest;
    bool bCertain = false;
};

}  // namespace

std::optional<foundPart> findPart(const std::string& name) {
    ORVA_File file;
    openOrThrow(file, name, "rb", kReadFailed);
    return headingSearch(file).run();
}

struct finishedPart::state {
    state(const std::string& name, foundPart part) : fIndex(kBlockSize, name), bSwapped(part.swapped) {
        openOrThrow(fFile, name, "rb", kReadFailed);
        fHeading = readHeading(fFile, part.row0Pos, bSwapped, "Analyze dictionary part error!");
        fIndex.limitPlaces(lengthOf(fFile));
        loadIndex(fFile, fHeading, bSwapped, fIndex);
    }

    ORVA_File fFile;
    filePosInfo fIndex;
    compressionHeading fHeading{};
    const bool bSwapped;
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
    return fState->fIndex.placeLimit();
}
std::uint32_t finishedPart::blockSize() const {
    return fState->fIndex.blockSize();
}
std::uint32_t finishedPart::blockCount() const {
    return fState->fIndex.parsedCount();
}
const filePosRecord& finishedPart::block(std::uint32_t number) const {
    return fState->fIndex.parsed(number);
}

std::int64_t finishedPart::dataSize() const {
    const std::int64_t row0 = fState->fHeading._caseStartPos;
    return fState->fIndex.dataEnd(row0) - row0;
}

void finishedPart::verifyIndex() {
    if (blockCount() != 0) checkContiguous(fState->fFile, fState->fHeading, &block(0), blockCount());
}

void finishedPart::verifyBlock(std::uint32_t number) {
    state& s = *fState;
    if (!s.fRows) {
        s.fCompressed = blockBuffer(kBlockSize);
        s.fRows = blockBuffer(kBlockSize);
    }
    readBlock({s.fFile, s.fCodec, s.fCompressed.get()}, placeOf(s.fIndex, s.fIndex.parsed(number)), s.fRows.get());
}

}  // namespace orva
