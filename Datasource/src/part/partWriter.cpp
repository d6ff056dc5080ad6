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

// Nothing is written for the heading yet: the first block just goes after its 24 bytes. Threads of the sink may have
// begun before the undo record is made, and end if that fails.
partWriter::partWriter(ORVA_File& file, std::int64_t row0Pos, const threadSettings& threads, const choices& chosen,
                       const std::optional<resumePoint>& from)
    : fFile(file),
      fRow0Pos(row0Pos),
      fChosen(chosen),
      fIndex(kBlockSize, file.GetNameStr().GetGeneric()),
      fpos(row0Pos),
      availBuffSize(chosen.blockLength),
      bNewPart(!from) {
    const appendPlan plan = from ? resume(*from) : appendPlan{};
    fSink = makeSink(nextPlace(), threads);
    if (from) guarded([&] { fUndo = std::make_unique<appendUndo>(fFile, plan, from->safe); });
}

partWriter::~partWriter() {
    try {
        abandon();
    } catch (...) {  // a caller that wants to know calls abandon before
    }
}

// A failure of the steps ends the writer.
template <class Steps>
void partWriter::guarded(Steps steps) {
    ORVA_ASSERT(fSink != nullptr, "the writer has not ended");
    try {
        steps();
    } catch (...) {
        std::rethrow_exception(endAndUndo(std::current_exception()));
    }
}

// Ends the threads and then puts back what an append has overwritten, before anybody learns of the failure. Returns the
// failure with the outcome in its text, or why the append could not be undone. A forked child leaves the file alone.
std::exception_ptr partWriter::endAndUndo(const std::exception_ptr& failure) {
    if (!fMaker.isHere()) return failure;
    endSink(true);
    return fUndo != nullptr ? std::exchange(fUndo, nullptr)->undo(failure) : failure;
}

void partWriter::endSink(bool drop) {
    if (const std::unique_ptr<blockSink> sink = std::move(fSink)) sink->end(drop);
}

void partWriter::abandon() {
    if (const std::exception_ptr failure = endAndUndo(nullptr)) std::rethrow_exception(failure);
}

void partWriter::write(const unsigned char* rows, std::uint64_t size) {
    guarded([&] {
        while (size != 0) {
            std::uint32_t count = fChosen.blockLength;
            if (filled() == 0 && size >= fChosen.blockLength) {
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
    return {fBuffer + filled(), availBuffSize};
}

// The rows of the current block may be in memory of the old sink.
void partWriter::setThreads(const threadSettings& threads) {
    std::unique_ptr<blockSink> sink = makeSink(nextPlace(), {threads.multiThread == 0 ? 0 : -1, threads.threadCount});
    if (fBuffer != nullptr) {
        if (!fRows) fRows = blockBuffer(fChosen.blockLength);
        std::memmove(fRows.get(), fBuffer, filled());
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
    if (filled() != 0) send(fBuffer, filled());
}

void partWriter::send(const unsigned char* rows, std::uint32_t size) {
    availBuffSize = fChosen.blockLength - size;  // they are taken even if the sink fails
    removeOldSideFile();
    fSink->put(rows, size);
    beginBlock(fpos + size);
}

// Passes on a whole block unfilled, if the sink has threads that get its rows. Not the first one of a new part: the
// side file of an earlier part stays until there are rows.
bool partWriter::sendFrom(const rowSource& source, std::int64_t offset) {
    if (bNewPart || filled() != 0 || !fSink->putFrom(source, offset, fChosen.blockLength)) return false;
    beginBlock(fpos + fChosen.blockLength);
    return true;
}

// Begins the next block, once one has been passed on.
void partWriter::beginBlock(std::int64_t pos) {
    fReadEnd = 0;
    fpos = pos;
    fBuffer = nullptr;
    availBuffSize = fChosen.blockLength;
}

// Before the first byte of a new part is written, removes the side file of an earlier part there. Until then that
// part's rows could still be brought back.
void partWriter::removeOldSideFile() {
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
    const bool safe = fUndo != nullptr && fUndo->isSafe();
    removeOldSideFile();
    const compressionHeading heading = writeIndex();
    if (durable || safe) fFile.Sync();
    writeAll(fFile, &heading, sizeof heading, fRow0Pos);
    if (durable || safe) {
        fFile.Sync();
        syncName(fFile.GetNameStr().GetGeneric());
    }
    if (safe) {
        bFinished = true;
        std::exchange(fUndo, nullptr)->commit();
    }
    try {
        if (!staysOpen) fFile.Close();
    } catch (const FileError& error) {
        if (safe) throw error.withOutcome("the append itself is complete");
        throw;
    }
    fUndo.reset();
    bFinished = true;
}

compressionHeading partWriter::writeIndex() {
    std::uint32_t stLength = 0;
    const unsigned char* bytes = fIndex.serialize(stLength);
    ORVA_ASSERT(stLength != 0, "stLength!=0");
    ORVA_ASSERT(fFile.IsOpen(), "fData->pRealFile.IsOpen() == true");
    ORVA_ASSERT(fSink == nullptr, "fData->fpIOThread == 0");
    const compressionHeading heading{fRow0Pos, std::max(fReadEnd, fIndex.writtenEnd(fRow0Pos + kHeadingSize)),
                                     stLength};
    writeAll(fFile, bytes, stLength, heading._indexPos);
    return heading;
}

// Reads heading and index again, decides where the new rows go, and returns what they will overwrite.
appendPlan partWriter::resume(const resumePoint& from) {
    refuseSideFile(fFile.GetNameStr().GetGeneric());
    const compressionHeading heading =
        readHeading(fFile, fRow0Pos, from.swap, "pos == chInfo._caseStartPos && \"Analyze dictionary part error!\"");
    std::vector<filePosRecord> index = readIndex(fFile, heading, from.swap);
    const filePosRecord last = fIndex.parseForAppend(reinterpret_cast<unsigned char*>(index.data()), false);
    const std::span<const filePosRecord> records = std::span(index).subspan(1);
    checkContiguous(fFile, heading, records);

    appendPlan plan{0, 0, heading, false};
    fReadEnd = heading._indexPos + heading._size;
    if (records.empty()) {
        requireEnd(fRow0Pos, from, false);
    } else if (last.orginalSize >= static_cast<std::int64_t>(fChosen.blockLength)) {
        fIndex.addRecord(last.orginalPos, last.translatePos, last.orginalSize, last.translateSize);
        fpos = rowsEnd(last);
        requireEnd(fpos, from, true);
    } else {
        ORVA_ASSERT(from.filePos == from.endpos, "fFilePos == endpos");
        resumeInBlock(last, static_cast<std::uint32_t>(records.size() - 1), from);
        plan.rewrittenBlock = static_cast<std::uint32_t>(last.translateSize);
        plan.cutsRows = from.endpos < rowsEnd(last);
    }
    plan.untouchedEnd = nextPlace().place;
    return plan;
}

// Takes the rows of a short last block back into memory, up to the caller's endpos.
void partWriter::resumeInBlock(const filePosRecord& last, std::uint32_t number, const resumePoint& from) {
    const std::int64_t end = rowsEnd(last);
    zlibCompressBlock codec;
    const blockBuffer compressed(static_cast<std::size_t>(last.translateSize));
    fRows = {fChosen.blockLength, static_cast<std::size_t>(last.orginalSize)};
    readBlock({fFile, codec, compressed.get()}, {last, number, std::nullopt, bytesFrom(fFile).length()}, fRows.get());
    requireEnd(end, from, false);
    ORVA_ASSERT(from.endpos >= last.orginalPos && from.endpos <= end, "endpos inside the last block");
    fBuffer = fRows.get();
    fpos = last.orginalPos;
    availBuffSize = fChosen.blockLength - static_cast<std::uint32_t>(from.endpos - fpos);
    fReadEnd = storedEnd(last);
}

// Another process may have written since the caller read the index. The caller then means other rows, which are neither
// cut nor added to, and has breached no duty. `onlyThere`: the new rows can go nowhere but to the end.
void partWriter::requireEnd(std::int64_t end, const resumePoint& from, bool onlyThere) const {
    if (from.endpos == end) return;
    const bool hasChanged = from.seenEnd && *from.seenEnd != end;
    if (!hasChanged && !onlyThere) return;
    const DamagedFileError damage(
        fFile.GetNameStr().GetGeneric(), "fData->fpos == endpos",
        "its rows end at logical position " + std::to_string(end) + " instead of " + std::to_string(from.endpos));
    if (hasChanged) throw FileChangedError(damage);
    throw damage;
}

}  // namespace orva
