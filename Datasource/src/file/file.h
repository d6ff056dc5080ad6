// ORVA_File: the one object that touches the disk. It owns a descriptor, the position that the last transfer reached,
// and the state of the optional cipher. There is no seek operation: every transfer names its offset, and one system
// call makes it. The descriptor's own place counts only for pipes and terminals, which take transfers in sequence
// alone.
//
// Units:   bytes and byte offsets from the start of the file. One transfer stays below 2,147,483,648 bytes.
// Owner:   streams, through RefCountPtr. Workers hold a plain pointer and end before the file does.
// Threads: Open, Read, Write, Size, Close and FinishEncryption are single steps under the object's lock and may be
//          called from several threads. The destructor and the plain questions take no lock: the questions are for the
//          thread that opens.
// Failure: FileError with the code 1003 (reading) or 1002 (writing, closing), Good() false until Clear or Open. A
//          failed Open is a false result. On a closed object everything answers 0. A process under a limit on file
//          sizes gets the error only if it ignores SIGXFSZ, which otherwise ends it.
#pragma once

#include <orva/hostdep.h>
#include <orva/ktthread.h>
#include <orva/orvaApi.h>
#include <orva/refCntObject.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

// The cipher works in blocks of this many bytes; an enciphered file is read at offsets and in sizes of its multiples.
inline constexpr int CIPHER_BLOCK_SIZE = 16;

// Whether files made from now on with ORVA_File(true) go through the process's cipher. False at first; existing
// objects keep what they have. Takes no lock.
ORVA_API void SetKeepEncrypt(bool keep);

class ORVA_API ORVA_File : public ORVA_RefCntObject {
public:
    ORVA_File();
    // Enciphered if `encrypted` and SetKeepEncrypt(true) stands at this moment.
    explicit ORVA_File(bool encrypted);
    // Files cannot be copied; this exists because RefCountPtr names it. Ends in an assertion.
    ORVA_File(const ORVA_File&);
    ORVA_File& operator=(const ORVA_File&) = delete;
    // Closes. A failure to close is swallowed: Close first to hear of it.
    ~ORVA_File() override;

    // Opens `name`, after closing what was open (a failure there is thrown, and leaves it open). False if it cannot be
    // opened: OpenErrno tells why. A mode is a set of characters: r, w, a, + as for fopen (without + an r beats w and
    // a; with it w beats a), t text, T short-lived, D deleted when closed. A writer locks the file: a second one cannot
    // open it.
    bool Open(const ExtNameStr& name, const char* mode);
    // 1 when it was open and is closed now, 0 when it was closed already. An enciphered file ends its cipher run; bytes
    // that FinishEncryption has not written are lost.
    int Close();
    // The bytes delivered; fewer than asked only at the end of the file. After a failure the buffer's bytes are
    // undefined. An enciphered file takes offsets and sizes that are multiples of 16: others are an assertion. A pipe
    // or terminal takes transfers in sequence only: others are ESPIPE.
    unsigned int Read(void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    // As Read, for bytes that nobody has asked for yet: a failure leaves Good() as it was.
    ORVA_LOCAL unsigned int ReadAhead(void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    // The bytes taken, which is byteSize, or 0 when closed. On an enciphered file the last 1 to 15 may wait in memory,
    // and only such writes are taken as leave every byte in its place (docs/cipher.md): else FileError with EINVAL.
    // In an `a` mode the system puts the bytes at the end of the file, whatever the offset.
    unsigned int Write(const void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    // Copies `size` bytes of the open file `source` to `byteOffset`, fewer only where it ends; gives their count.
    // FileError 1003 with the source's name, 1002 with this one's. Not for enciphered files.
    ORVA_LOCAL std::int64_t CopyFrom(ORVA_File& source, std::int64_t sourceOffset, std::int64_t size,
                                     std::int64_t byteOffset);
    // The length of the file on disk, with the pad of an enciphered one; -1 when the system can't tell (a pipe).
    std::int64_t Size() const;
    // The first byte from `byteOffset` on that is no part of a hole, as far as the system tells holes; the largest
    // number when there is none.
    ORVA_LOCAL std::int64_t nextStored(std::int64_t byteOffset) const;

    // The name leads to the open file.
    ORVA_LOCAL bool isNamed(const std::string& name) const;
    // The open file has another name by now.
    ORVA_LOCAL void Renamed(const ExtNameStr& name);

    // Fails as a write that the system refuses with this errno.
    [[noreturn]] ORVA_LOCAL void refuseWrite(int error);

    bool IsOpen() const { return fDescriptor != -1; }
    bool Good() const { return fGood.load(std::memory_order_relaxed); }
    void Clear() { fGood.store(true, std::memory_order_relaxed); }
    std::int64_t Tell() const { return fPosition; }
    const ExtNameStr& GetNameStr() const { return fName; }
    bool IsEncrypted() const { return fEncrypted; }
    bool Appends() const { return fAppends; }
    // Bytes in the file can be read and written again where they stand.
    ORVA_LOCAL bool Rewrites() const;
    // What is written again begins and ends on multiples of this, or with the data.
    std::uint32_t granule() const { return fEncrypted ? CIPHER_BLOCK_SIZE : 1; }
    // Where a read of a whole block begins that is to hold the position: on a multiple of 512. What has no places gives
    // only what stands behind the bytes that it has given.
    std::int64_t readPlace(std::int64_t position) const {
        const std::int64_t unit = fHasPlaces ? 512 : granule();
        return position / unit * unit;
    }
    // Where the data of an enciphered file end: behind the bytes that wait, else with the pad. Part of a block, from a
    // write that failed, is nothing. 0 for other files.
    ORVA_LOCAL std::int64_t dataEnd() const;
    // `block` has the first `count` bytes of the cipher block at `byteOffset`, and gets those that the file has behind
    // them, so that all can be written again; the count of what it has then. EINVAL where the mode gives none of them.
    ORVA_LOCAL std::uint32_t completeBlock(unsigned char* block, std::uint32_t count, std::int64_t byteOffset);
    // The errno of the last failed Open, for the message of whoever reports it.
    int OpenErrno() const { return fOpenErrno; }
    // Pads and enciphers the waiting tail and ends the cipher run; the count of the last write it made. Nothing to do
    // gives 0.
    ORVA_LOCAL unsigned int FinishEncryption();

    // Returns once what was written would survive a loss of power, the name of a new file excepted. FileError 1002;
    // a second try proves nothing then. Nothing to do when closed.
    ORVA_LOCAL void Sync();
    // Cuts the file to `length` bytes, or extends it with zeros; the position stays. FileError 1002. Not for enciphered
    // files. Nothing to do when closed.
    ORVA_LOCAL void Truncate(std::int64_t length);

private:
    class ORVA_LOCAL Cipher;  // fileCipher.h

    ORVA_LOCAL void beginTransfer(std::int64_t byteOffset, long code);
    ORVA_LOCAL unsigned int readDescriptor(void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    ORVA_LOCAL int writeDescriptor(const void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    ORVA_LOCAL unsigned int WriteEncrypted(const void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    ORVA_LOCAL bool isInherited() const;  // by a forked child: lock and name are its parent's
    [[noreturn]] ORVA_LOCAL void fail(long code, int error);

    // Guarded by fMutex while an operation runs.
    mutable ktMutex fMutex;
    std::int64_t fPosition = 0;
    ExtNameStr fName;
    std::string fMode;
    int fDescriptor = -1;           // Closed exactly when -1.
    std::atomic<bool> fGood{true};  // a worker's failure sets it while the caller asks
    bool fReadsAhead = false;       // The failure that ends this is no answer to a request, and Good() stays as it is.
    const bool fEncrypted;
    bool fEncryptStarted = false;
    unsigned char fRemainder[CIPHER_BLOCK_SIZE] = {};
    int fRemainderSize = 0;
    int fPadSize = 0;
    std::unique_ptr<Cipher> fCipher;  // an enciphered file's
    bool fAppends = false;            // The system puts every write at the end of the file, whatever its offset.
    bool fHasPlaces = true;           // Not a pipe or terminal.
    std::string fTemporaryName;       // The full name of a file that is deleted when closed, else empty.

    int fOpenErrno = 0;
    // That of its maker, or of who opened it last. In a forked child the lock may be held by a thread that isn't there.
    std::int64_t fProcess;
};

extern template class ORVA_API RefCountPtr<ORVA_File>;
