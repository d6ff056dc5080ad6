// ORVA_StrBaseIO: the byte-stream interface of the library. ORVA_FileStream: that interface over one file, with a
// position of its own and one large block buffer between small requests and the disk.
//
// Units:   bytes; positions count from the start of the file. One request stays below 2,147,483,648 bytes.
// Owner:   a stream owns its buffer; copies of a stream share the file and the read-ahead worker, not the buffer.
//          Buffers handed in stay the caller's.
// Threads: one at a time a stream. Streams that share a file may run on different threads; copies are made and ended
//          on one thread at a time.
// Fork:    parent and child may both read on through a stream that was open, if no thread of the parent's works on its
//          file. It is written by the parent alone: in the child, Close (0) and the destructor leave the file as it is.
//          What the child opens itself is its own.
// Failure: FileError from Read, Write, Flush, Close or the destructor; Good() is then 0 until Clear. A stream without
//          an open file answers 0, Seek -1.
#pragma once

#include <orva/blockSize.h>
#include <orva/file.h>
#include <orva/hostdep.h>
#include <orva/orvaApi.h>
#include <orva/refCntObject.h>

#include <cstdint>
#include <memory>

class multiThreadForFilestr;

class ORVA_API ORVA_StrBaseIO {
public:
    enum SeekDirection { SeekFromStart = 0, SeekFromCurrent = 1, SeekFromEnd = 2 };

    ORVA_StrBaseIO();
    ORVA_StrBaseIO(const ORVA_StrBaseIO&);
    ORVA_StrBaseIO& operator=(const ORVA_StrBaseIO&);
    virtual ~ORVA_StrBaseIO() noexcept(false);

    // Makes Good() 1 again after a failure.
    virtual void Clear() = 0;
    // 1 while no operation has failed, else 0.
    virtual std::int32_t Good() = 0;
    // The bytes delivered. Fewer than asked: the data ended.
    virtual std::uint32_t Read(void* buffer, std::uint32_t size) = 0;
    // The bytes taken.
    virtual std::uint32_t Write(const void* buffer, std::uint32_t size) = 0;
    // Moves the position, which may lie past the end. 0, or -1 when nothing moved.
    virtual std::int32_t Seek(std::int64_t offset, SeekDirection direction) = 0;
    virtual std::int64_t Tell() const = 0;
    virtual std::int32_t EndOfFile() = 0;
};

class ORVA_API ORVA_FileStream : public ORVA_StrBaseIO {
public:
    // One transfer: the caller's memory and the stream's position, both moved forward as bytes pass.
    template <class Byte>
    struct Request {
        Byte* _buffer;
        std::uint32_t _size;  // still to move
        std::int64_t& _pos;

        std::uint32_t Advance(std::uint32_t count) {
            _buffer += count;
            _size -= count;
            _pos += count;
            return count;
        }
    };
    using ReadRequest = Request<unsigned char>;
    using WriteRequest = Request<const unsigned char>;
    struct Data;

    // No file yet. `encrypted`: files that this stream opens go through the cipher, if the process keeps one
    // (SetKeepEncrypt). Every constructor allocates the block buffer, about 4 MiB.
    ORVA_FileStream();
    explicit ORVA_FileStream(bool encrypted);
    // Opens the file; Good() tells whether that worked. Modes: ORVA_File::Open.
    ORVA_FileStream(const char* name, const char* mode);
    ORVA_FileStream(const char* name, const char* mode, bool encrypted);
    // Shares the source's file and worker, at position 0. The source's pending bytes are in the file afterwards.
    ORVA_FileStream(const ORVA_FileStream& source);
    ORVA_FileStream& operator=(const ORVA_FileStream&) = delete;
    // Flushes and ends the cipher run, and may throw what that meets: call Close first to have it in hand. Throws
    // nothing while another exception is in flight. The descriptor closes with the last stream that shares the file.
    ~ORVA_FileStream() noexcept(false) override;

    // Both need a file object, so they come after an Open, whether that succeeded or not.
    void Clear() override;
    std::int32_t Good() override;

    std::uint32_t Read(void* buffer, std::uint32_t size) override;
    // After a failure Tell() says how many were taken. In an `a` mode the bytes go to the end of the file, whatever the
    // position; a Read flushes them first. An enciphered file refuses what its mode cannot keep in place: FileError
    // with EINVAL, nothing changed (docs/cipher.md).
    std::uint32_t Write(const void* buffer, std::uint32_t size) override;
    // Flushes nothing. A target below 0 or past the 64-bit range: -1, nothing moves. From the end: unflushed bytes
    // count as part of the file.
    std::int32_t Seek(std::int64_t offset, SeekDirection direction) override;
    std::int64_t Tell() const override;
    // 1 when the last read of the file delivered nothing. A short count from Read is the sign that always holds.
    std::int32_t EndOfFile() override;

    // 1 when the file was opened, else 0; the stream then has a closed file of that name. Finishes the old file first,
    // as Close does: a failure there is thrown and leaves the old one open. Position 0, or the end in an `a` mode.
    // Where the read-ahead thread of the new file cannot start, the stream reads without. Copies of the stream keep the
    // old file. Passwords are not used.
    virtual std::int32_t Open(const ExtNameStr& name, const ExtNameStr& password, const char* mode);
    virtual std::int32_t Open(const char* name, const char* password, const char* mode);
    virtual std::int32_t Open(const ExtNameStr& name, const char* mode);
    virtual std::int32_t Open(const char* name, const char* mode);

    // To position 0 with an empty buffer. Unflushed bytes are dropped.
    virtual void ClearAndReset();
    // Stays valid until the next Open; the empty name of a stream without a file until the library unloads.
    virtual const ExtNameStr& GetNameStr() const;
    // Flushes and ends the cipher run: 1; 0 without an open file. The descriptor stays open and the stream usable.
    virtual std::int32_t Close() const;
    virtual std::int32_t Close();
    // Writes what waits in the buffer. Always 1. The bytes reach the system, not necessarily the disk.
    virtual std::int32_t Flush() const;
    // The name of the file, or null without one.
    virtual const char* Name() const;
    // The bytes of memory that a stream holds.
    virtual std::uint32_t Footprint() const;

    // Buffered reading, on at first. Off: each Read is one read of the file of exactly its size.
    void EnablePreReading() { fPreReading = 1; }
    void DisablePreReading() { fPreReading = 0; }

    // Reads the next block on a thread of its own while the caller works on this one. For an open stream: the worker
    // is made once, keeps a second block of memory, and ends with the last stream that shares it. It does not see what
    // a copy writes that was made before it: copies come after. Off: the worker stays, idle. A thread that cannot start
    // is a std::system_error, and the stream reads on without.
    void EnableMultiThreadReading();
    void DisableMultiThreadReading();

    // Another stream shares the file.
    bool IsShared() const;

protected:
    bool DataReady() const;
    // Needs the file object: an assertion without. Valid until the next Open.
    ORVA_File& GetFile();
    // False in a forked child: the stream's threads and locks are its parent's, so it is left alone there.
    ORVA_LOCAL bool inOwnProcess() const;
    // A destructor may throw: no further exception has come into flight since construction.
    ORVA_LOCAL bool mayThrowNow() const;

private:
    // What Read and Write do beyond a copy within the buffer. Kept out of them, so that the copy saves no registers.
    [[gnu::noinline]] ORVA_LOCAL std::uint32_t readRequest(void* buffer, std::uint32_t size);
    [[gnu::noinline]] ORVA_LOCAL std::uint32_t writeRequest(const void* buffer, std::uint32_t size);

    std::unique_ptr<Data> fData;
    std::int32_t fMultiThreadReading = 0;
    std::int32_t fPreReading = 1;
    std::int64_t fStreamPos = 0;
    std::int64_t fProcess;
    int fUncaught;
};

// The stream's state behind one pointer: the block buffer and the file. For the library's own layers; hosts use the
// stream.
struct ORVA_API ORVA_FileStream::Data {
    ORVA_LOCAL explicit Data(bool encrypted);
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;
    ORVA_LOCAL ~Data();

    // Writes what the buffer took since it was written last, as one range; on an enciphered file widened to whole
    // cipher blocks, or up to the buffer's end. On failure it stays pending.
    void Flush();
    // A request of a block or more: pending bytes go to the file, then one read straight into the caller's memory, up
    // to a multiple of 512; `request` moves on by what came. A smaller one is left alone. Needs an open file.
    void ReadUnbuffered(ReadRequest& request);

private:
    friend class ORVA_FileStream;

    ORVA_LOCAL std::uint32_t ReadFromBuffer(ReadRequest& request);
    ORVA_LOCAL void ReadBuffered(ReadRequest& request);
    ORVA_LOCAL void ReadDirect(ReadRequest& request, std::uint32_t size);
    ORVA_LOCAL void emptyBuffer();
    ORVA_LOCAL void placeBlock(std::int64_t block, std::uint32_t count);
    ORVA_LOCAL void ReadThreaded(ReadRequest& request);
    ORVA_LOCAL void LoadBlock(std::int64_t position);
    ORVA_LOCAL void Write(WriteRequest& request);
    ORVA_LOCAL bool joinsBuffer(std::int64_t position) const;
    ORVA_LOCAL void copyIn(WriteRequest& request);
    ORVA_LOCAL std::uint32_t sizePastBuffer(const WriteRequest& request);
    ORVA_LOCAL void writeDirect(WriteRequest& request, std::uint32_t size);
    ORVA_LOCAL void startBuffer(std::int64_t position);
    ORVA_LOCAL void writeFile(WriteRequest& request, std::uint32_t size);
    ORVA_LOCAL void fillGap(std::int64_t position);

    // The buffered range: file offsets fpos up to fpos + buffered().
    std::uint32_t buffered() const { return static_cast<std::uint32_t>(fBufferEnd - fBuffer); }
    std::uint64_t offsetOf(std::int64_t position) const {
        return static_cast<std::uint64_t>(position) - static_cast<std::uint64_t>(fpos);
    }
    bool holds(std::int64_t position) const { return position >= fpos && offsetOf(position) < buffered(); }
    ORVA_LOCAL void dropBuffer();
    ORVA_LOCAL void markClean();
    // The buffer's bytes are going to the end of the file, wherever that will be: they serve no read.
    bool holdsAppended() const { return bDirty && pRealFile->Appends(); }
    // For the requests that end in the buffer: where the first of the bytes stands, or null where more is to be done
    // than to copy them. One unsigned compare tells both sides of a range here; a size of 0 is in none.
    const unsigned char* servedFromBuffer(std::int64_t position, std::uint32_t size) const {
        const std::uint64_t offset = offsetOf(position);
        const bool held = offset < buffered() && size - 1U < buffered() - offset;
        return held && pRealFile->IsOpen() && !holdsAppended() ? fBuffer + offset : nullptr;
    }
    // Right behind the bytes written last, and short of the end of the buffer, where it is flushed.
    unsigned char* takenByBuffer(std::int64_t position, std::uint32_t size) {
        const std::uint64_t offset = offsetOf(position);
        const bool taken = position == fDirtyEnd && size != 0 && offset + size < kBlockSize;
        return taken && pRealFile->IsOpen() ? fBuffer + offset : nullptr;
    }

    alignas(kBufferAlignment) unsigned char fBuffer[kBlockSize];
    unsigned char* fBufferEnd = fBuffer;
    std::int64_t fpos = -1;   // file offset of fBuffer's first byte; -1 while no block was placed
    std::int64_t fIOPos = 0;  // file offset that the latest transfer reached
    RefCountPtr<ORVA_File> pRealFile;
    bool bDirty = false;  // fBuffer holds bytes that the file lacks
    bool bEndOfFile = false;
    const bool bEncrypted;
    // File offsets of the first byte that was written since the last flush, and past the last one; -1 without such.
    std::int64_t fDirtyBegin = -1;
    std::int64_t fDirtyEnd = -1;
    // Reads through a plain pointer to the file: it goes first, as the last field.
    RefCountPtr<multiThreadForFilestr> fpIOThread;
};
