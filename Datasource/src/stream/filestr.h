// ORVA_StrBaseIO: the byte-stream interface of the library. ORVA_FileStream: that interface over one file, with a
// position of its own and one large block buffer between small requests and the disk.
//
// Units:   bytes; positions count from the start of the file. One request stays below 2,147,483,648 bytes.
// Owner:   a stream owns its buffer; copies of a stream share the file and the read-ahead worker, not the buffer.
//          Buffers handed in stay the caller's.
// Threads: one thread at a time uses a stream. Streams that share a file may run on different threads; copies are made
//          and destroyed on one thread at a time.
// Fork:    parent and child may both read on through a stream that was open, if no thread of the parent is at work on
//          its file. Only the parent may write it: in the child, Close, which returns 0, and the destructor leave the
//          file as it is. A file that the child opens is its own.
// Failure: FileError from Read, Write, Flush, Close or the destructor; Good() is then 0 until Clear. Without an open
//          file everything returns 0, and Seek -1.
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
    // Returns the number of bytes read: fewer than `size` if the data end there.
    virtual std::uint32_t Read(void* buffer, std::uint32_t size) = 0;
    // Returns the number of bytes taken.
    virtual std::uint32_t Write(const void* buffer, std::uint32_t size) = 0;
    // Moves the position, which may lie past the end. 0, or -1 if it has not moved.
    virtual std::int32_t Seek(std::int64_t offset, SeekDirection direction) = 0;
    virtual std::int64_t Tell() const = 0;
    virtual std::int32_t EndOfFile() = 0;
};

class ORVA_API ORVA_FileStream : public ORVA_StrBaseIO {
public:
    // One transfer: the caller's memory and the stream's position, which both advance with the bytes.
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
    // Shares the file and worker of `source`, at position 0. Writes the pending bytes of `source` to the file.
    ORVA_FileStream(const ORVA_FileStream& source);
    ORVA_FileStream& operator=(const ORVA_FileStream&) = delete;
    // Flushes and ends the cipher run; a failure is thrown, unless another exception is in flight: call Close before to
    // handle it. The descriptor closes with the last stream that shares the file.
    ~ORVA_FileStream() noexcept(false) override;

    // Both need a file object (else an assertion fails): call them after an Open, successful or not.
    void Clear() override;
    std::int32_t Good() override;

    std::uint32_t Read(void* buffer, std::uint32_t size) override;
    // After a failure Tell() says how many bytes were taken. In an `a` mode the bytes go to the end of the file,
    // whatever the position; a Read flushes them first. An encrypted file refuses bytes that its mode cannot keep in
    // place (docs/cipher.md): FileError with EINVAL, and nothing has changed.
    std::uint32_t Write(const void* buffer, std::uint32_t size) override;
    // Flushes nothing. A target below 0 or past the 64-bit range gives -1 and moves nothing. For SeekFromEnd unflushed
    // bytes count as part of the file.
    std::int32_t Seek(std::int64_t offset, SeekDirection direction) override;
    std::int64_t Tell() const override;
    // 1 if the last read of the file gave no bytes. A short count from Read is the sign that always holds.
    std::int32_t EndOfFile() override;

    // 1 if the file was opened, else 0, and the stream has a closed file of that name. Finishes the old file first, as
    // Close does; a failure there is thrown and leaves that file open. The position is 0, or the end in an `a` mode. If
    // the read-ahead thread cannot start, the stream reads without it. Copies of the stream keep the old file.
    // `password` is ignored.
    virtual std::int32_t Open(const ExtNameStr& name, const ExtNameStr& password, const char* mode);
    virtual std::int32_t Open(const char* name, const char* password, const char* mode);
    virtual std::int32_t Open(const ExtNameStr& name, const char* mode);
    virtual std::int32_t Open(const char* name, const char* mode);

    // Goes to position 0 with an empty buffer and drops unflushed bytes.
    virtual void ClearAndReset();
    // The file's name, valid until the next Open; without a file an empty one, valid until the library is unloaded.
    virtual const ExtNameStr& GetNameStr() const;
    // Flushes and ends the cipher run: 1, or 0 without an open file. The descriptor stays open and the stream usable.
    virtual std::int32_t Close() const;
    virtual std::int32_t Close();
    // Passes the pending bytes of the buffer to the system, not necessarily to the disk. Always 1.
    virtual std::int32_t Flush() const;
    // The name of the file; null without one.
    virtual const char* Name() const;
    // The memory that a stream holds, in bytes.
    virtual std::uint32_t Footprint() const;

    // Buffered reading, on at first. When off, each Read is one read of the file, of exactly its size.
    void EnablePreReading() { fPreReading = 1; }
    void DisablePreReading() { fPreReading = 0; }

    // When on, a thread reads the next block while the caller works on this one. Starts once a file is open. The worker
    // is made once, keeps a second block of memory, and ends with the last stream that shares it. It does not see the
    // writes of copies made before it: make copies afterwards. std::system_error if the thread cannot start; the stream
    // then reads on without it. When off, the worker stays idle.
    void EnableMultiThreadReading();
    void DisableMultiThreadReading();

    // True if another stream shares the file.
    bool IsShared() const;

protected:
    bool DataReady() const;
    // The file, valid until the next Open. An assertion failure without one.
    ORVA_File& GetFile();
    // False in a forked child, which leaves the stream alone: its threads and locks belong to the parent.
    ORVA_LOCAL bool inOwnProcess() const { return fMaker.isHere(); }
    // True if a destructor may throw: no further exception has come into flight since construction.
    ORVA_LOCAL bool mayThrowNow() const;

private:
    // Read and Write when a copy within the buffer is not enough. Out of line, so that such a copy saves no registers.
    [[gnu::noinline]] ORVA_LOCAL std::uint32_t readRequest(void* buffer, std::uint32_t size);
    [[gnu::noinline]] ORVA_LOCAL std::uint32_t writeRequest(const void* buffer, std::uint32_t size);

    std::unique_ptr<Data> fData;
    std::int32_t fMultiThreadReading = 0;
    std::int32_t fPreReading = 1;
    std::int64_t fStreamPos = 0;
    platform::makerProcess fMaker;
    int fUncaught;
};

// The stream's state behind one pointer: the block buffer and the file. For the library's own layers; hosts use the
// stream.
struct ORVA_API ORVA_FileStream::Data {
    ORVA_LOCAL explicit Data(bool encrypted);
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;
    ORVA_LOCAL ~Data();

    // Writes the bytes put into the buffer since the last flush, as one range, which on an encrypted file is widened
    // to whole cipher blocks, or up to the end of the buffer. After a failure the bytes stay pending.
    void Flush();
    // Serves a request of a block or more: writes the pending bytes, reads up to a multiple of 512 straight into the
    // caller's memory, and advances `request` by what came. Leaves a smaller request alone. Needs an open file.
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
    // True if the buffer holds bytes to be appended: their place is not known yet, so they serve no read.
    bool holdsAppended() const { return bDirty && pRealFile->Appends(); }
    // The fast path of Read: the first requested byte in the buffer, or null if more than a copy is to be done. One
    // unsigned compare checks both ends of a range here; a size of 0 is in none.
    const unsigned char* servedFromBuffer(std::int64_t position, std::uint32_t size) const {
        const std::uint64_t offset = offsetOf(position);
        const bool held = offset < buffered() && size - 1U < buffered() - offset;
        return held && pRealFile->IsOpen() && !holdsAppended() ? fBuffer + offset : nullptr;
    }
    // The fast path of Write: where to copy the bytes, or null. They have to follow those written last and end before
    // the end of the buffer, where it is flushed.
    unsigned char* takenByBuffer(std::int64_t position, std::uint32_t size) {
        const std::uint64_t offset = offsetOf(position);
        const bool taken = position == fDirtyEnd && size != 0 && offset + size < kBlockSize;
        return taken && pRealFile->IsOpen() ? fBuffer + offset : nullptr;
    }

    alignas(kBufferAlignment) unsigned char fBuffer[kBlockSize];
    unsigned char* fBufferEnd = fBuffer;
    std::int64_t fpos = -1;   // file offset of fBuffer's first byte; -1 without a block
    std::int64_t fIOPos = 0;  // file offset that the last transfer reached
    RefCountPtr<ORVA_File> pRealFile;
    bool bDirty = false;  // fBuffer holds bytes that the file lacks
    bool bEndOfFile = false;
    const bool bEncrypted;
    // File offsets of the first byte written since the last flush and past the last one; -1 if there is none.
    std::int64_t fDirtyBegin = -1;
    std::int64_t fDirtyEnd = -1;
    // Last, so destroyed first: it reads through a plain pointer to the file.
    RefCountPtr<multiThreadForFilestr> fpIOThread;
};
