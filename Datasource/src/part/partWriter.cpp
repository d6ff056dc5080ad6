#include "part/partWriter.h"

#include "base/assertion.h"
#include "file/namedFile.h"
#include "format/blockTransfer.h"
#include "format/indexTransfer.h"

#include <orva/errors.h>
#include <orva/errtext.h>
#include <orva/zlibCompress.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace orva {

// Nothing is written for the heading yet: the first block just goes behind its 24 bytes.
partWriter::partWriter(ORVA_File& file, std::int64_t row0Pos, const threadSettings& threads, const choices& chosen,
                       const std::optional<resumePoint>& from)
    : fFile(file),
      fRow0Pos(row0Pos),
      fChosen(chosen),
      fIndex(kBlockSize, file.GetNameStr().GetGeneric()),
      fpos(row0Pos),
      availBuffSize(chosen.blockLength),
      bNewPart(!from) {
    const tailPlan plan = from ? resume(*from) : tailPlan{};
    fSink = makeSink(next(), threads);
    if (from) fTail = std::make_unique<appendUndo>(fFile, plan, from->safe);
}

partWriter::~partWriter() {
    try {
        abandon();
    } catch (...) {  // a caller that wants to know calls abandon before
    }
}

template <class Steps>
void partWriter::guarded(Steps steps) {
    ORVA_ASSERT(fSink != nullptr, "the writer has not ended");
    try {
        steps();
    } catch (...) {
        std::rethrow_exception(ended(std::current_exception()));
    }
}

// Ends the threads and then puts back what an append has overwritten, before anybody learns of the failure. Returns the
// failure with the outcome in its text, or why the append could not be undone. A forked child leaves the file alone.
std::exception_ptr partWriter::ended(const std::exception_ptr& failure) {
    if (fProcess != platform::processId()) return failure;
    endSink(true);
    return fTail != nullptr ? std::exchange(fTail, nullptr)->undo(failure) : failure;
}

void partWriter::endSink(bool drop) {
    if (const std::unique_ptr<blockSink> sink = std::move(fSink)) sink->end(drop);
}

void partWriter::abandon() {
    if (const std::exception_ptr failure = ended(nullptr)) std::rethrow_exception(failure);
}

void partWriter::write(const unsigned char* rows, std::uint64_t size) {
    guarded([&] {
        while (size != 0) {
            std::uint32_t count = fChosen.blockLength;
            if (availBuffSize == fChosen.blockLength && size >= fChosen.blockLength) {
                send(rows, count);  // a whole block needs no copy
            } else {
                const std::span<unsigned char> to = room();
                count = static_cast<std::uint32_t>(std::min<std::uint64_t>(to.size(), size));
                std::memcpy(to.data(), rows, count);
                wrote(count);
            }
            rows += count;
            size -= count;
        }
    });
}

void partWriter::writeFrom(const rowSource& source, std::int64_t size) {
    guarded([&] {
        for (std::int64_t done = 0; done < size;) {
            std::int64_t count = fChosen.blockLength;
            if (size - done < count || !sendFrom(source, done)) {
                const std::span<unsigned char> to = room();
                count = std::min<std::int64_t>(std::ssize(to), size - done);
                source(done, to.first(static_cast<std::size_t>(count)));
                wrote(static_cast<std::uint32_t>(count));
            }
            done += count;
        }
        fSink->awaitRows();
    });
}

std::span<unsigned char> partWriter::room() {
    if (fBuffer == nullptr) guarded([this] { fBuffer = newRoom(); });
    return {fBuffer + (fChosen.blockLength - availBuffSize), availBuffSize};
}

// The rows of the current block may be in memory of the old sink.
void partWriter::take(const threadSettings& threads) {
    std::unique_ptr<blockSink> sink = makeSink(next(), {threads.multiThread == 0 ? 0 : -1, threads.threadCount});
    if (fBuffer != nullptr) {
        if (!fRows) fRows = blockBuffer(fChosen.blockLength);
        std::memmove(fRows.get(), fBuffer, fChosen.blockLength - availBuffSize);
        fBuffer = fRows.get();
    }
    fSink = std::move(sink);
}

unsigned char* partWriter::newRoom() {
    if (unsigned char* const rows = fSink->room()) return rows;
    if (!fRows) fRows = blockBuffer(fChosen.blockLength);
    return fRows.get();
}

void partWriter::wrote(std::uint32_t count) {
    ORVA_ASSERT(fBuffer != nullptr && count <= availBuffSize, "count <= availBuffSize");
    availBuffSize -= count;
    if (availBuffSize == 0) flush();
}

void partWriter::flush() {
    guarded([this] { endBlock(); });
}

void partWriter::endBlock() {
    const std::uint32_t size = fChosen.blockLength - availBuffSize;
    if (size != 0) send(fBuffer, size);
}

void partWriter::send(const unsigned char* rows, std::uint32_t size) {
    availBuffSize = fChosen.blockLength - size;  // they are taken even if the sink fails
    endFormerLife();
    fSink->put(rows, size);
    sent(size);
}

// Passes on a whole block unfilled, if the sink has threads that get its rows. Not the first one of a new part: the
// side file of an earlier part stays until there are rows.
bool partWriter::sendFrom(const rowSource& source, std::int64_t offset) {
    if (bNewPart || availBuffSize != fChosen.blockLength || !fSink->putFrom(source, offset, fChosen.blockLength))
        return false;
    sent(fChosen.blockLength);
    return true;
}

void partWriter::sent(std::uint32_t size) {
    fTransferEnd = 0;
    fpos += size;
    fBuffer = nullptr;
    availBuffSize = fChosen.blockLength;
}

// Drops the side file of an earlier part, whose rows could be brought back until the first byte of the new part is
// written.
void partWriter::endFormerLife() {
    if (std::exchange(bNewPart, false)) dropSideFile(fFile);
}

void partWriter::finish(bool durable, bool staysOpen) {
    guarded([&] {
        endBlock();
        endSink(false);
        commit(durable, staysOpen);
    });
}

// Writes the heading last, since it makes the part a finished one. A safe append is complete with it. Any other can
// still be undone if closing the file fails, where a full disk shows first on some file systems.
void partWriter::commit(bool durable, bool staysOpen) {
    const bool safe = fTail != nullptr && fTail->isSafe();
    endFormerLife();
    const compressionHeading heading = writeIndex();
    if (durable || safe) fFile.Sync();
    writeAll(fFile, &heading, sizeof heading, fRow0Pos);
    if (durable || safe) {
        fFile.Sync();
        syncName(fFile.GetNameStr().GetGeneric());
    }
    bFinished = safe;
    if (safe) std::exchange(fTail, nullptr)->commit();
    try {
        if (!staysOpen) fFile.Close();
    } catch (const FileError& error) {
        if (safe) throw error.withOutcome("the append itself is complete");
        throw;
    }
    fTail.reset();
    bFinished = true;
}

compressionHeading partWriter::writeIndex() {
    std::uint32_t stLength = 0;
    const unsigned char* bytes = fIndex.serialize(stLength);
    ORVA_ASSERT(stLength != 0, "stLength!=0");
    ORVA_ASSERT(fFile.IsOpen(), "fData->pRealFile.IsOpen() == true");
    ORVA_ASSERT(fSink == nullptr, "fData->fpIOThread == 0");
    const compressionHeading heading{fRow0Pos, std::max(fTransferEnd, fIndex.writtenEnd(fRow0Pos + kHeadingSize)),
                                     stLength};
    writeAll(fFile, bytes, stLength, heading._indexPos);
    return heading;
}

// Takes the rows of a short last block back into memory.
tailPlan partWriter::resume(const resumePoint& from) {
    refuseSideFile(fFile.GetNameStr().GetGeneric());
    const compressionHeading chInfo =
        readHeading(fFile, fRow0Pos, from.swap, "pos == chInfo._caseStartPos && \"Analyze dictionary part error!\"");
    std::vector<filePosRecord> index = readIndex(fFile, chInfo, from.swap);
    const filePosRecord bInfo = fIndex.parseForAppend(reinterpret_cast<unsigned char*>(index.data()), from.swap);
    const std::span<const filePosRecord> records = std::span(index).subspan(1);
    checkContiguous(fFile, chInfo, records);

    tailPlan plan{0, 0, chInfo, false};
    fTransferEnd = chInfo._indexPos + chInfo._size;
    if (bInfo.orginalPos == kFirstRecordMark) {
        requireEnd(fRow0Pos, from, false);
    } else if (bInfo.orginalSize >= static_cast<std::int64_t>(fChosen.blockLength)) {
        fIndex.addRecord(bInfo.orginalPos, bInfo.translatePos, bInfo.orginalSize, bInfo.translateSize);
        fpos = bInfo.orginalPos + bInfo.orginalSize;
        requireEnd(fpos, from, true);
    } else {
        ORVA_ASSERT(from.filePos == from.endpos, "fFilePos == endpos");
        resumeInBlock(bInfo, static_cast<std::uint32_t>(records.size() - 1), from);
        plan.rewrittenBlock = static_cast<std::uint32_t>(bInfo.translateSize);
        plan.cutsRows = from.endpos < bInfo.orginalPos + bInfo.orginalSize;
    }
    plan.untouchedEnd = next().place;
    return plan;
}

void partWriter::resumeInBlock(const filePosRecord& bInfo, std::uint32_t number, const resumePoint& from) {
    const std::int64_t end = bInfo.orginalPos + bInfo.orginalSize;
    zlibCompressBlock fCompressor;
    const blockBuffer compressed(static_cast<std::size_t>(bInfo.translateSize));
    fRows = {fChosen.blockLength, static_cast<std::size_t>(bInfo.orginalSize)};
    readBlock({fFile, fCompressor, compressed.get()}, {bInfo, number, std::nullopt, lengthOf(fFile)}, fRows.get());
    requireEnd(end, from, false);
    ORVA_ASSERT(from.endpos >= bInfo.orginalPos && from.endpos <= end, "endpos inside the last block");
    fBuffer = fRows.get();
    fpos = bInfo.orginalPos;
    availBuffSize = fChosen.blockLength - static_cast<std::uint32_t>(from.endpos - fpos);
    fTransferEnd = bInfo.translatePos + bInfo.translateSize;
}

// Another process may have written since the caller read the index. The caller then means other rows, which are neither
// cut nor added to, and has breached no duty.
void partWriter::requireEnd(std::int64_t end, const resumePoint& from, bool goesOnThere) const {
    const bool otherRows = from.endpos != end && from.seenEnd.value_or(end) != end;
    if (!otherRows && (!goesOnThere || from.endpos == end)) return;
    const DamagedFileError damage(
        fFile.GetNameStr().GetGeneric(), "fData->fpos == endpos",
        "its rows end at logical position " + std::to_string(end) + " instead of " + std::to_string(from.endpos));
    if (otherRows) throw FileChangedError(damage);
    throw damage;
}

}  // namespace orva
