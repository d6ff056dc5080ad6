// partWriter: writes one compressed part, a new one or more rows of a finished one. It takes rows in any sizes and
// passes whole blocks to a sink; finish() makes a finished part. Format: docs/format.md.
//
// Units:   bytes; positions are logical: the first byte of rows has the row-0 position.
// Owner:   the caller owns the file, open for reading and writing, and keeps it until the writer is gone. The writer
//          owns the index, 24 bytes a block, one to two blocks of memory and those of its threads.
// Threads: one caller at a time. Threads of the writer's own (`threadSettings`) end in finish, abandon or on a failure.
// Failure: FileError, bad_alloc, and what a thread that cannot start throws. A failure is final: only the destructor
//          may follow. It is thrown once what an append has overwritten is put back; its text says whether that worked.
//          DamagedFileError from resuming, before anything is written.
// Fork:    in a process other than its maker's a writer can only be destroyed, which leaves the file alone.
#pragma once

#include "base/blockBuffer.h"
#include "format/filePosInfo.h"
#include "part/appendUndo.h"
#include "part/blockPipeline.h"

#include <orva/blockSize.h>
#include <orva/compressedLayout.h>
#include <orva/file.h>
#include <orva/platform.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

namespace orva {

// How a finished part is resumed.
struct resumePoint {
    bool swap;                            // heading and index have the other byte order
    std::int64_t endpos;                  // where the new rows go: the end of the rows, or inside a short last block
    std::int64_t filePos;                 // the caller's position; has to be endpos if that block is short
    std::optional<std::int64_t> seenEnd;  // where the rows ended when the caller read the index
    bool safe;                            // keep what will be overwritten in a side file first
};

class partWriter {
public:
    // Begins a new part at file offset `row0Pos`, 1 to kLastRow0Pos. Writes nothing before the first block, which
    // removes the side file of an earlier part there. With `from`, resumes the finished part at `row0Pos`:
    // DamagedFileError also if its rows do not end where the caller expects.
    partWriter(ORVA_File& file, std::int64_t row0Pos, const threadSettings& threads, const choices& chosen = {},
               const std::optional<resumePoint>& from = {});
    partWriter(const partWriter&) = delete;
    partWriter& operator=(const partWriter&) = delete;
    // Abandons an unfinished part and ignores failures.
    ~partWriter();

    // The logical position after the rows.
    std::int64_t end() const { return fpos + filled(); }
    void write(const unsigned char* rows, std::uint64_t size);
    // Writes the first `size` rows of `source`, which is not called any more when this returns or throws.
    void writeFrom(const rowSource& source, std::int64_t size);
    // room() gives memory for the next rows, at least one byte, valid until the next call. wrote() takes its first
    // `count` bytes as rows.
    std::span<unsigned char> room();
    void wrote(std::uint32_t count);
    // Ends the current block short.
    void flush();
    // Writes the last block, the index and, last of all, the heading; then closes the file, unless `staysOpen`.
    // `durable`: returns only once the part would survive a loss of power.
    void finish(bool durable, bool staysOpen = false);
    // True once the part is finished: a failure after that loses no rows.
    bool isFinished() const { return bFinished; }
    // Ends the threads, drops what they have not begun, and puts back what an append has overwritten; throws if that
    // fails. Does nothing on a finished part.
    void abandon();

    // Applies settings made after the beginning, for which setMultiThread gets no thread any more. No thread may be at
    // work. If this throws, nothing has changed.
    void setThreads(const threadSettings& threads);
    bool hasThreads() const { return fSink != nullptr && fSink->hasThreads(); }

private:
    template <class Steps>
    void guarded(Steps steps);
    std::exception_ptr endAndUndo(const std::exception_ptr& failure);
    void endSink(bool drop);
    // Bytes of rows in the current block.
    std::uint32_t filled() const { return fChosen.blockLength - availBuffSize; }
    sinkPlace nextPlace() { return {fFile, fIndex, fChosen, fpos, fIndex.writtenEnd(fRow0Pos + kHeadingSize)}; }
    unsigned char* newRoom();
    void endBlock();
    void send(const unsigned char* rows, std::uint32_t size);
    bool sendFrom(const rowSource& source, std::int64_t offset);
    void beginBlock(std::int64_t pos);
    void removeOldSideFile();
    void commit(bool durable, bool staysOpen);
    compressionHeading writeIndex();
    appendPlan resume(const resumePoint& from);
    void resumeInBlock(const filePosRecord& last, std::uint32_t number, const resumePoint& from);
    void requireEnd(std::int64_t end, const resumePoint& from, bool onlyThere) const;

    ORVA_File& fFile;
    const std::int64_t fRow0Pos;
    const choices fChosen;
    filePosInfo fIndex;
    std::int64_t fpos;                 // logical position of the current block
    std::int64_t fReadEnd = 0;         // of what resuming has read, for the index; 0 once a block is written
    unsigned char* fBuffer = nullptr;  // rows of the current block, in memory of the sink or in fRows
    std::uint32_t availBuffSize;       // its free bytes
    blockBuffer fRows;
    bool bNewPart;  // a new part of which nothing is in the file yet
    bool bFinished = false;
    std::unique_ptr<appendUndo> fUndo;  // while an append is unfinished
    std::unique_ptr<blockSink> fSink;   // null once the writer has ended or failed
    const platform::makerProcess fMaker;
};

}  // namespace orva
