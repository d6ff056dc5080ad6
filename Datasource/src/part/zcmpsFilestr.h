// zcmpsFilestr: a stream over the compressed part of a file: blocks of 4,190,208 bytes of rows (or setBlockLength),
// each a zlib stream, and an index after them. Format: docs/format.md.
//
// To write: write the dictionary part through an ORVA_FileStream, build this over that stream, setRow0Pos(S), Seek(S),
//           Write, Close.
// To read:  build this over a stream open on the file, readFilePosInfo(S), then Read and Seek, Close.
// To add:   as to read, then Seek(end), setFileToAppend(end), Write, Close.
//
// Units:   bytes; positions are logical: the first byte of rows has the row-0 position S, not 0.
// Owner:   the stream owns its buffers (12 MiB at most, and two blocks for a worker) and the index, 24 bytes a block.
//          It shares the file with the stream that it was built over.
// Threads: one at a time for each stream. It has threads of its own if setMultiThread or setThreadCount asks for them.
// Failure: FileError from the disk. DamagedFileError for bytes that cannot be true, after which sound blocks can still
//          be read; FileChangedError if that is because the file was written to since its index was read.
//          FileReopenError (a SystemFileException) if the file cannot be opened again. bad_alloc. A writer's first
//          failure is final: Write, Flush and the first Close throw it again, and the file gets no heading. Breaches of
//          a caller's duty are assertion failures.
// Never:   Open and ClearAndReset, which belong to the plain stream: another file needs another object.
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
    // Shares the file of `source`, which must have been opened. Writes the pending bytes of `source` to the file.
    explicit zcmpsFilestr(const ORVA_FileStream& source);
    zcmpsFilestr(const zcmpsFilestr&) = delete;
    zcmpsFilestr& operator=(const zcmpsFilestr&) = delete;
    // Calls Close, so an unfinished writer is finished here: call abandon() before if its rows are not worth keeping.
    // Throws only what no call has thrown yet, and nothing while another exception is in flight.
    ~zcmpsFilestr() noexcept(false) override;

    // Gives a thread of its own to: 0 nothing, 1 writing, 2 and above reading. Call it before setRow0Pos and
    // readFilePosInfo. A writer takes 0 or 1; an appender always works at 0.
    void setMultiThread(std::int32_t setting);

    // `threads` threads deflate or inflate several blocks at once beside the caller, for a writer, an appender and a
    // reader alike; files, bytes and errors stay the same. Takes 8 MiB for each thread and 16 MiB more, a reader
    // another 4 MiB. More than 256 count as 256; 0, as at first, leaves the choice to setMultiThread. Call it before
    // setRow0Pos and readFilePosInfo; the threads start with the first block.
    void setThreadCount(std::int32_t threads);

    // The next two choose what a writer or an appender makes. Call them before setRow0Pos and setFileToAppend: on a
    // stream that writes, or out of range, they throw std::invalid_argument, which names the range, and change nothing.
    // Readers work alike whatever was chosen. A full block holds `bytes` of rows, kShortestBlockLength (65,536) to
    // kBlockSize, as at first. A shorter one makes a read anywhere take less time, and both streams less memory, but
    // costs some ratio and more index. An append uses this length too, not that of the blocks in the file: a last block
    // as long or longer stays, a shorter one is filled.
    void setBlockLength(std::int64_t bytes);
    // 1, as at first, is the fastest; a higher level compresses better and slower, and is read as fast.
    void setCompressionLevel(std::int32_t level);
    // The highest level: 12, or 9 in a build without the fast engines.
    static std::int32_t bestCompressionLevel();

    // A reader keeps up to `blocks` inflated blocks, 4 MiB each, for a caller that goes back and forth: a position in
    // one of them costs neither file access nor inflating. 0 at first: the current block alone.
    void setBlockCache(std::int32_t blocks);

    // Begins a new compressed part at file offset `pos`, above 0, in an existing file, which is reopened for writing.
    // SystemFileException if that fails: the stream is then no writer, and this may be tried again. The position of the
    // stream stays. The first block written, or Close, removes a side file that an interrupted append to this very part
    // has left: its rows are being replaced.
    void setRow0Pos(std::int64_t pos);

    // Loads, or reloads, heading and index of the finished part at `posofpos`; `swap`: the file has the other byte
    // order. The position is then the first byte of rows. Rows of an unfinished writer are dropped. An assertion
    // failure while a worker of setMultiThread, or threads of a writer, are at work.
    void readFilePosInfo(std::int64_t posofpos, bool swap);

    // Resumes writing the finished part that readFilePosInfo has loaded, at logical position `endpos`, the end of its
    // rows; `swap` as there. An `endpos` inside a short last block cuts the rows there. Call Seek(endpos) before. Not
    // on a reader with a worker of setMultiThread; threads of setThreadCount are no hindrance. The setting of
    // setMultiThread is 0 afterwards. Before anything is written: DamagedFileError if the file does not allow it,
    // FileChangedError if another process has changed where the rows end, SystemFileException as from setRow0Pos. If a
    // later step fails, the rows that the file held are put back before the failure is thrown; its text says whether
    // that worked.
    void setFileToAppend(std::int64_t endpos, bool swap);

    // If on, Close returns only once the rows would survive a loss of power; the heading is stored after all that it
    // points to. Off at first. Set it before Close.
    void setDurable(bool durable);
    // If on, an append that ends at any instant, by a crash or a loss of power, can be rolled back (inspect.h): a side
    // file, NAME.orva-undo, keeps what it overwrites until Close has succeeded. Implies setDurable. Off at first. Set
    // it before setFileToAppend, which fails with FileError EEXIST while a side file exists.
    void setSafeAppend(bool safe);

    // Returns the number of bytes read: fewer than `size` if the rows end there, or the position lies outside them.
    std::uint32_t Read(void* buffer, std::uint32_t size) override;
    // Takes all bytes; after a failure Tell() says how many were taken. The position has to be the end of the rows: any
    // other is an assertion failure.
    std::uint32_t Write(const void* buffer, std::uint32_t size) override;
    // Sets the position, saturating at the ends of the 64-bit range. Always 0. SeekFromEnd is an assertion failure.
    std::int32_t Seek(std::int64_t offset, SeekDirection direction) override;
    std::int64_t Tell() const override;
    // Ends the current block short, which costs compression ratio. Always 1.
    std::int32_t Flush() const override;

    using ORVA_FileStream::Close;
    // Writer: writes the last block, the index and, last of all, the heading, and opens the file for reading, for other
    // streams to use. Returns 1, and the stream is finished; a further Close returns 1 if the file was finished, else
    // 0. Reader: ends its threads; 1. In a forked child: 0.
    std::int32_t Close() override;

    // Ends a writer without finishing the file: writes neither index nor heading, drops blocks that no thread has
    // begun, and puts an appender's old rows back, which throws if it fails. The destructor then does nothing. On a
    // reader it only ends the threads; in a forked child it does nothing.
    void abandon();

private:
    struct ORVA_LOCAL Data;

    ORVA_LOCAL void refuseWithWorker() const;
    ORVA_LOCAL void refuseEncrypted(long code);
    ORVA_LOCAL void requireChoice(const char* what, std::int64_t given, std::int64_t least, std::int64_t most) const;
    template <class Make>
    ORVA_LOCAL void beginWriting(const char* expression, std::int32_t line, Make make);
    ORVA_LOCAL void finish();

    std::unique_ptr<Data> fData;
    bool bIsWriting = false;
    std::int64_t fFilePos = 0;
};
