// zcmpsFilestr: a stream over the compressed part of a file: blocks of 4,190,208 bytes of rows, or what setBlockLength
// says, each one zlib stream, with an index behind them. Format: docs/format.md.
//
// To write: write the dictionary part through an ORVA_FileStream, build this over that stream, setRow0Pos(S),
//           Seek(S), Write, Close.
// To read:  build this over a stream open on the file, readFilePosInfo(S), then Read and Seek, Close.
// To add:   as to read, then Seek(end), setFileToAppend(end), Write, Close.
//
// Units:   bytes; positions are logical: the first byte of rows has the row-0 position S, not 0.
// Owner:   the stream owns its buffers (12 MiB at most, and two blocks for a worker) and the index, 24 bytes a block.
//          It shares the file with the stream that it was built over.
// Threads: one at a time a stream. Work goes to a thread of the stream's own when setMultiThread asks for it.
// Failure: FileError from the disk; DamagedFileError for bytes that cannot be true, after which sound blocks can still
//          be read, FileChangedError where that is because the file was written to since its index was read;
//          FileReopenError (a SystemFileException) when the file cannot be opened again; bad_alloc. A writer's first
//          failure is final: Write, Flush and the first Close throw it again, and the file gets no heading. Breaches
//          of a caller's duty are assertions.
// Never:   Open and ClearAndReset, which are the plain stream's: another file needs another object.
#pragma once

#include <orva/blockSize.h>
#include <orva/errors.h>
#include <orva/filestr.h>
#include <orva/orvaApi.h>

#include <cstdint>
#include <memory>

namespace orva {
class partReader;
}

class ORVA_API zcmpsFilestr : public ORVA_FileStream {
public:
    // Shares the source's file; the source's pending bytes are in it afterwards. The source must have been opened.
    explicit zcmpsFilestr(const ORVA_FileStream& source);
    zcmpsFilestr(const zcmpsFilestr&) = delete;
    zcmpsFilestr& operator=(const zcmpsFilestr&) = delete;
    // Closes, so an unfinished writer is finished here: call abandon() first if its rows are not worth keeping. Throws
    // only what no call has thrown yet, and nothing while another exception is in flight.
    ~zcmpsFilestr() noexcept(false) override;

    // Which work goes to a thread of its own: 0 none, 1 writing, 2 and above reading. Comes before setRow0Pos and
    // readFilePosInfo. A writer takes 0 or 1; an appender always works at 0.
    void setMultiThread(std::int32_t setting);

    // Several blocks at once: `threads` threads deflate or inflate beside the caller, for a writer, an appender and a
    // reader alike, and files, bytes and errors stay the same. Costs eight MiB for each thread and sixteen more, and
    // four to a reader. 0, as at first, leaves the work to setMultiThread's setting. Comes before setRow0Pos and
    // readFilePosInfo; the threads start with the first block.
    void setThreadCount(std::int32_t threads);

    // What a writer or an appender makes. Each comes before setRow0Pos and setFileToAppend, which take it: out of
    // range, or on a stream that writes, it is std::invalid_argument, which names the range, and changes nothing. Files
    // are read alike whatever was chosen. A full block holds `bytes` of rows, kShortestBlockLength (65,536) to
    // kBlockSize, as at first. A shorter one costs a read at any place less time, and both streams less memory; it
    // costs some ratio and more index. An append goes by this number too, not by the blocks of the file: a last block
    // as long or longer stays, a shorter one is filled.
    void setBlockLength(std::int64_t bytes);
    // 1, as at first, is the fastest; a higher level compresses better and slower, and reading stays as fast.
    void setCompressionLevel(std::int32_t level);
    // 12, or 9 in a build without the fast engines.
    static std::int32_t bestCompressionLevel();

    // A reader keeps up to `blocks` inflated blocks, 4 MiB each, for a caller that goes back and forth: a position in
    // one of them costs neither file access nor inflating. 0 at first: the current block alone.
    void setBlockCache(std::int32_t blocks);

    // Begins a new compressed part at file offset `pos`, above 0, in an existing file. Reopens the file for writing.
    // SystemFileException if that fails: the stream is then no writer, and this may be tried again. Does not move the
    // stream's position. A side file that an interrupted append to this very part has left goes with the first block
    // that is written, or in Close: its rows are being replaced.
    void setRow0Pos(std::int64_t pos);

    // Loads, or loads again, heading and index of the finished part at `posofpos`; `swap`: the file has the other byte
    // order. The position is then the first byte of rows. Rows that a writer has not finished are dropped. A breach
    // while a worker of setMultiThread, or a writer's threads, are at work.
    void readFilePosInfo(std::int64_t posofpos, bool swap);

    // Resumes writing at logical position `endpos`, the end of the rows, of the finished part that readFilePosInfo has
    // loaded; `swap` as there. An `endpos` inside a short last block cuts the rows there. Seek(endpos) comes before it.
    // A reader with a worker of setMultiThread cannot come here; one with setThreadCount can. The setting of
    // setMultiThread is 0 afterwards. Before anything is written: DamagedFileError if the file does not allow it, as
    // FileChangedError if another process has changed where the rows end; SystemFileException as in setRow0Pos. When a
    // later step fails, the rows that the file held are put back before the failure is thrown; its text says whether
    // that worked.
    void setFileToAppend(std::int64_t endpos, bool swap);

    // Close returns only when the rows would survive a loss of power, the heading after all that it points to. Off at
    // first. Set before Close.
    void setDurable(bool durable);
    // An append that ends at any instant, by a crash or a loss of power, can be rolled back (inspect.h): what it
    // overwrites is kept in a side file, NAME.orva-undo, until Close is through. Implies setDurable. Off at first. Set
    // before setFileToAppend. While a side file exists, setFileToAppend is refused: FileError, EEXIST.
    void setSafeAppend(bool safe);

    // The bytes delivered; fewer than asked: the rows end there, or the position lies outside them.
    std::uint32_t Read(void* buffer, std::uint32_t size) override;
    // Takes all bytes, strictly in sequence: a Seek to anywhere but the end of the rows before it is a breach.
    std::uint32_t Write(const void* buffer, std::uint32_t size) override;
    // Always 0; only moves a number, saturating at the ends of the 64-bit range. Not from the end.
    std::int32_t Seek(std::int64_t offset, SeekDirection direction) override;
    std::int64_t Tell() const override;
    // Ends the current block short; costs compression ratio. Always 1.
    std::int32_t Flush() const override;

    using ORVA_FileStream::Close;
    // Writer: writes the last block, the index and, last of all, the heading, and opens the file for reading, for
    // other streams to use. The stream itself is finished then. 1; a further Close gives 1 if the file was finished,
    // else 0. Reader: ends the worker, 1.
    std::int32_t Close() override;

    // Ends a writer without finishing the file: no index, no heading; blocks that no thread has begun are given up, and
    // an appender's old rows are put back, which throws when it fails. The destructor then does nothing. On a reader it
    // only ends the threads; in a forked child nothing.
    void abandon();

private:
    struct ORVA_LOCAL Data;

    ORVA_LOCAL void refuseWithWorker() const;
    ORVA_LOCAL void refuseEncrypted(long code);
    ORVA_LOCAL void requireChoice(const char* what, std::int64_t given, std::int64_t least, std::int64_t most) const;
    template <class Make>
    ORVA_LOCAL void beginWriting(const char* expression, std::int32_t line, Make make);
    ORVA_LOCAL void reopenForWriting(const char* expression, std::int32_t line);
    ORVA_LOCAL void finish();
    ORVA_LOCAL void reopenForReading();

    std::unique_ptr<Data> fData;
    bool bIsWriting = false;
    std::int64_t fFilePos = 0;
};
