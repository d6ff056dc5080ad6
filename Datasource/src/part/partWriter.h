// partWriter: one compressed part on its way into a file, as a new one or behind the rows of a finished one. Rows come
// in any sizes; whole blocks go on to a sink, and finish() makes a finished part of it. Format: docs/format.md.
//
// Units:   bytes; positions are logical: the first byte of rows has the row-0 position.
// Owner:   the caller owns the file, open for reading and writing, and keeps it until the writer is gone. The writer
//          owns the index, 24 bytes a block, one to two blocks of memory and those of its threads.
// Threads: one caller at a time. Threads of the writer's own, as `roads` says, end in finish, abandon or on a failure.
// Failure: FileError, bad_alloc, what a thread could not be started with. A failure is final: what an append has
//          overwritten is put back before the failure is thrown, whose text says so; then only the destructor may
//          follow. DamagedFileError from resuming, before anything is written.
// Fork:    in another process than its maker's a writer can only be destroyed, which leaves the file alone.
#pragma once

#include "base/blockBuffer.h"
#include "format/filePosInfo.h"
#include "part/blockRoads.h"
#include "part/savedTail.h"

#include <orva/blockSize.h>
#include <orva/compressedLayout.h>
#include <orva/file.h>
#include <orva/platform.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

namespace orva {

// Where a finished part is resumed.
struct resumePoint {
    bool swap;                            // heading and index have the other byte order
    std::int64_t endpos;                  // where the rows go on: their end, or a place in a short last block
    std::int64_t filePos;                 // where the caller is going to write; has to be endpos if that block is short
    std::optional<std::int64_t> seenEnd;  // where the rows ended when the caller read the index
    bool safe;                            // what is going to be overwritten stands in a side file first
};

class partWriter {
public:
    // Begins a new part at file offset `row0Pos`, 1 to kLastRow0Pos. Nothing is written until the first block; a side
    // file of the part's former life goes then. With `from` it resumes the finished part there. DamagedFileError then
    // too if the rows do not end where the caller takes them to.
    partWriter(ORVA_File& file, std::int64_t row0Pos, const roads& taken, const choices& chosen = {},
               const std::optional<resumePoint>& from = {});
    partWriter(const partWriter&) = delete;
    partWriter& operator=(const partWriter&) = delete;
    // Abandons what is not finished, and swallows what that meets.
    ~partWriter();

    // Logical position behind the rows.
    std::int64_t end() const { return fpos + (fChosen.blockLength - availBuffSize); }
    void write(const unsigned char* rows, std::uint64_t size);
    // The first `size` rows of a source, which is asked for nothing any more when this returns or throws.
    void writeFrom(const rowSource& source, std::int64_t size);
    // Room for the next rows, to be filled in place: at least one byte, until the next call. `wrote` takes the first
    // `count` bytes of it.
    std::span<unsigned char> room();
    void wrote(std::uint32_t count);
    // Ends the current block short.
    void flush();
    // The last block, the index and, last of all, the heading; then the file is closed, unless it is to stay open.
    // `durable`: it returns only when the part would survive a loss of power.
    void finish(bool durable, bool staysOpen = false);
    // The heading is in the file: what still fails then is no loss of rows.
    bool isFinished() const { return bFinished; }
    // Ends the threads, gives up what they have not begun, and puts back what an append has overwritten. Throws if that
    // fails. Nothing to do on one that is finished.
    void abandon();

    // For settings that come after the beginning, when no thread is made for setMultiThread any more. Needs that none
    // is at work. If that throws, nothing has changed.
    void take(const roads& taken);
    bool hasThreads() const { return fSink != nullptr && fSink->hasThreads(); }

private:
    template <class Steps>
    void guarded(Steps steps);
    std::exception_ptr ended(const std::exception_ptr& failure);
    void endSink(bool drop);
    sinkPlace next() { return {fFile, fIndex, fChosen, fpos, fIndex.writtenEnd(fRow0Pos + kHeadingSize)}; }
    unsigned char* newRoom();
    void endBlock();
    void send(const unsigned char* rows, std::uint32_t size);
    bool sendFrom(const rowSource& source, std::int64_t offset);
    void sent(std::uint32_t size);
    void endFormerLife();
    void commit(bool durable, bool staysOpen);
    compressionHeading writeIndex();
    tailPlan resume(const resumePoint& from);
    void resumeInBlock(const filePosRecord& last, std::uint32_t number, const resumePoint& from);
    void requireEnd(std::int64_t end, const resumePoint& from, bool goesOnThere) const;

    ORVA_File& fFile;
    const std::int64_t fRow0Pos;
    const choices fChosen;
    filePosInfo fIndex;
    std::int64_t fpos;                 // logical position of the current block
    std::int64_t fTransferEnd = 0;     // where the last transfer ended, before a block is written; 0 afterwards
    unsigned char* fBuffer = nullptr;  // the current block's rows, in memory of the sink or of fRows
    std::uint32_t availBuffSize;       // free bytes of it
    blockBuffer fRows;
    bool bNewPart;  // nothing of a new part is in the file yet
    bool bFinished = false;
    std::unique_ptr<savedTail> fTail;  // of an append that is not through
    std::unique_ptr<blockSink> fSink;  // none once the writer has ended or failed
    const std::int64_t fProcess = platform::processId();
};

}  // namespace orva
