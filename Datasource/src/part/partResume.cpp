// Resuming a finished part at its end: the rows of a short last block come back into memory, and everything that the
// append will overwrite is kept until the new heading is in its place.
#include "base/assertion.h"
#include "format/blockTransfer.h"
#include "format/indexTransfer.h"
#include "part/partWriter.h"

#include <orva/errors.h>
#include <orva/zlibCompress.h>

#include <string>

namespace orva {

namespace {

// The caller means other rows than those that the file holds now, which end at `end`: they are neither cut nor joined.
bool knowsOtherRows(const resumePoint& from, std::int64_t end) {
    return from.endpos != end && from.seenEnd.value_or(end) != end;
}

}  // namespace

partWriter::partWriter(ORVA_File& file, std::int64_t row0Pos, const resumePoint& from, const roads& taken, bool safe,
                       std::uint32_t blockLength)
    : partWriter(file, row0Pos, blockLength) {
    const tailPlan plan = resume(from);
    fSink = makeSink(next(), taken, false);
    fTail = std::make_unique<savedTail>(fFile, plan, safe);
}

tailPlan partWriter::resume(const resumePoint& from) {
    refuseSideFile(fFile.GetNameStr().GetGeneric());
    const compressionHeading chInfo =
        readHeading(fFile, fRow0Pos, from.swap, "pos == chInfo._caseStartPos && \"Analyze dictionary part error!\"");
    const std::unique_ptr<unsigned char[]> bytes = readIndex(fFile, chInfo, from.swap);
    const filePosRecord bInfo = fIndex.parseForAppend(bytes.get(), from.swap);
    const std::uint32_t count = fIndex.parsedCount();
    checkContiguous(fFile, chInfo, reinterpret_cast<const filePosRecord*>(bytes.get() + kRecordSize), count);

    tailPlan plan{fRow0Pos, 0, 0, chInfo, from.swap, false};
    fTransferEnd = chInfo._indexPos + chInfo._size;
    if (bInfo.orginalPos == kFirstRecordMark) {
        if (knowsOtherRows(from, fRow0Pos)) refuseEnd(fRow0Pos, from);
    } else if (bInfo.orginalSize >= static_cast<std::int64_t>(fBlockLength)) {
        resumeBehind(bInfo, from);
    } else {
        ORVA_ASSERT(from.filePos == from.endpos, "fFilePos == endpos");
        resumeInBlock(bInfo, count - 1, from);
        plan.rewrittenBlock = static_cast<std::uint32_t>(bInfo.translateSize);
        plan.cutsRows = from.endpos < bInfo.orginalPos + bInfo.orginalSize;
    }
    plan.untouchedEnd = next().place;
    return plan;
}

void partWriter::resumeBehind(const filePosRecord& bInfo, const resumePoint& from) {
    fIndex.addRecord(bInfo.orginalPos, bInfo.translatePos, bInfo.orginalSize, bInfo.translateSize);
    fpos = bInfo.orginalPos + bInfo.orginalSize;
    if (fpos != from.endpos) refuseEnd(fpos, from);
}

void partWriter::resumeInBlock(const filePosRecord& bInfo, std::uint32_t number, const resumePoint& from) {
    const std::int64_t end = bInfo.orginalPos + bInfo.orginalSize;
    zlibCompressBlock fCompressor;
    const blockBuffer compressed(kBlockSize);
    fRows = blockBuffer(fBlockLength);
    readBlock({fFile, fCompressor, compressed.get()}, {bInfo, number, std::nullopt, lengthOf(fFile)}, fRows.get());
    if (knowsOtherRows(from, end)) refuseEnd(end, from);
    ORVA_ASSERT(from.endpos >= bInfo.orginalPos && from.endpos <= end, "endpos inside the last block");
    fBuffer = fRows.get();
    fpos = bInfo.orginalPos;
    availBuffSize = fBlockLength - static_cast<std::uint32_t>(from.endpos - fpos);
    fTransferEnd = bInfo.translatePos + bInfo.translateSize;
}

// Another process may have written since the caller read the index, so this is no breach.
void partWriter::refuseEnd(std::int64_t end, const resumePoint& from) const {
    const DamagedFileError damage(
        fFile.GetNameStr().GetGeneric(), "fData->fpos == endpos",
        "its rows end at logical position " + std::to_string(end) + " instead of " + std::to_string(from.endpos));
    if (knowsOtherRows(from, end)) throw FileChangedError(damage);
    throw damage;
}

}  // namespace orva
