// ORVA_File: a file that streams, workers and parts read and write. It owns a descriptor, the position that the last
// transfer reached, and the state of the optional cipher. There is no seek: every transfer names its offset. The
// position of the descriptor matters only for pipes and terminals, which take transfers in sequence only.
//
// Units:   bytes and byte offsets from the start of the file; a transfer at an offset below 0 fails with EINVAL. One
//          transfer stays below 2,147,483,648 bytes.
// Owner:   streams, through RefCountPtr. Workers hold a plain pointer and end before the file does.
// Threads: Open, Read, Write, Size, Sync, Truncate, Close and FinishEncryption each run under the object's lock and may
//          be called from several threads. The inline queries take no lock and are for the thread that opens the file.
//          In a forked child Close and the destructor take none either.
// Failure: FileError with the code 1003 (reading) or 1002 (writing, closing); Good() is then false until Clear or Open.
//          A failed Open returns false. On a closed object everything returns 0. A process under a limit on file sizes
//          gets the error only if it ignores SIGXFSZ, which otherwise ends it.
#pragma once

#include <orva/hostdep.h>
#include <orva/ktthread.h>
#include <orva/orvaApi.h>
#include <orva/platform.h>
#include <orva/refCntObject.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

// The block size of the cipher in bytes: an encrypted file is read at offsets and in sizes that are multiples of it.
inline constexpr int CIPHER_BLOCK_SIZE = 16;

// Sets whether ORVA_File(true) makes encrypted files from now on; false at first. Existing objects stay as they are.
// Takes no lock.
ORVA_API void SetKeepEncrypt(bool keep);

class ORVA_API ORVA_File : public ORVA_RefCntObject {
public:
    ORVA_File();
    // Encrypted if `encrypted` is true and SetKeepEncrypt(true) is in force now.
    explicit ORVA_File(bool encrypted);
    // An assertion failure: files cannot be copied, but RefCountPtr needs the declaration.
    ORVA_File(const ORVA_File&);
    ORVA_File& operator=(const ORVA_File&) = delete;
    // Closes the file and ignores a failure: call Close before to learn of it.
    ~ORVA_File() override;

    // Closes the open file (a failure there is thrown, and leaves it open), then opens `name`. False if it cannot be
    // opened: OpenErrno tells why. A mode is a set of characters: r, w, a, + as for fopen (without + an r beats w and
    // a; with it w beats a), t text, T short-lived, D deleted when closed. A writer locks the file: a second one cannot
    // open it.
    bool Open(const ExtNameStr& name, const char* mode);
    // 1 if this closed the file, 0 if it was closed already. An encrypted file ends its cipher run; bytes that
    // FinishEncryption has not written are lost.
    int Close();
    // Returns the number of bytes read, fewer than `byteSize` only at the end of the file. After a failure the content
    // of `buffer` is undefined. On an encrypted file, offsets and sizes that are not multiples of 16 are an assertion
    // failure. A pipe or terminal takes transfers in sequence only: others fail with ESPIPE.
    unsigned int Read(void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    // As Read, for bytes that nobody has asked for yet: a failure leaves Good() as it was.
    ORVA_LOCAL unsigned int ReadAhead(void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    // Returns the number of bytes taken: `byteSize`, or 0 if closed. On an encrypted file the last 1 to 15 may wait in
    // memory, and a write that would not leave every byte in its place (docs/cipher.md) fails with EINVAL. In an `a`
    // mode the system puts the bytes at the end of the file, whatever the offset.
    unsigned int Write(const void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    // Copies `size` bytes of the open file `source` to `byteOffset` and returns their number, which is smaller only if
    // `source` ends before. FileError 1003 names the source, 1002 this file. Not for encrypted files.
    ORVA_LOCAL std::int64_t CopyFrom(ORVA_File& source, std::int64_t sourceOffset, std::int64_t size,
                                     std::int64_t byteOffset);
    // The length of the file on disk, including the pad of an encrypted one; -1 if the system cannot tell (a pipe).
    std::int64_t Size() const;
    // The first offset from `byteOffset` on that is in no hole, if the system knows holes; the largest number if none
    // is.
    ORVA_LOCAL std::int64_t nextStored(std::int64_t byteOffset) const;

    // True if `name` leads to the open file.
    ORVA_LOCAL bool isNamed(const std::string& name) const;
    // Notes that the open file has been renamed.
    ORVA_LOCAL void Renamed(const ExtNameStr& name);

    // Throws the failure of a write that the system refuses with this errno.
    [[noreturn]] ORVA_LOCAL void refuseWrite(int error);

    // Keeps other threads from the file while it lives; this one may use it.
    ORVA_LOCAL ktGuard locked() const { return ktGuard(fMutex, ktMutex::Recursive); }

    bool IsOpen() const { return fDescriptor != -1; }
    bool Good() const { return fGood.load(std::memory_order_relaxed); }
    void Clear() { fGood.store(true, std::memory_order_relaxed); }
    std::int64_t Tell() const { return fPosition; }
    const ExtNameStr& GetNameStr() const { return fName; }
    bool IsEncrypted() const { return fEncrypted; }
    // True in an `a` mode: the system puts every write at the end of the file, whatever its offset.
    bool Appends() const { return (fAccess & platform::_O_APPEND) != 0; }
    // True if the mode allows bytes of the file to be read and written again in place.
    bool Rewrites() const { return (fAccess & (platform::_O_WRONLY | platform::_O_APPEND)) == 0; }
    // A rewrite begins and ends on multiples of this, or ends with the data.
    std::uint32_t granule() const { return fEncrypted ? CIPHER_BLOCK_SIZE : 1; }
    // The offset at which the read of a whole block that holds `position` begins: a multiple of 512. A pipe or terminal
    // gives only the bytes that follow those it has given, so there it is `position`, rounded down to the granule.
    std::int64_t readPlace(std::int64_t position) const {
        const std::int64_t unit = fSeekable ? 512 : granule();
        return position / unit * unit;
    }
    // The end of the data of an encrypted file: that of the waiting bytes, or else that of the pad. Part of a block,
    // left by a failed write, does not count. 0 for other files.
    ORVA_LOCAL std::int64_t dataEnd() const;
    // `block` has the first `count` bytes of the cipher block at `byteOffset`; adds those that the file has after
    // them, so that all can be rewritten, and returns how many `block` then has. EINVAL if the mode cannot read them.
    ORVA_LOCAL std::uint32_t completeBlock(unsigned char* block, std::uint32_t count, std::int64_t byteOffset);
    // The errno of the last Open, 0 if it succeeded.
    int OpenErrno() const { return fOpenErrno; }
    // Pads, encrypts and writes the waiting bytes and ends the cipher run. Returns the size of the last write that it
    // made, 0 if there was none.
    ORVA_LOCAL unsigned int FinishEncryption();

    // Returns once the bytes written would survive a loss of power, but not the name of a new file. FileError 1002,
    // after which a second try proves nothing. Does nothing if closed.
    ORVA_LOCAL void Sync();
    // Cuts the file to `length` bytes, or extends it with zeros; the position stays. FileError 1002. Not for encrypted
    // files. Does nothing if closed.
    ORVA_LOCAL void Truncate(std::int64_t length);

private:
    class ORVA_LOCAL Cipher;  // fileCipher.h

    ORVA_LOCAL void beginTransfer(std::int64_t byteOffset, long code);
    ORVA_LOCAL unsigned int readDescriptor(void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    ORVA_LOCAL unsigned int writeDescriptor(const void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    ORVA_LOCAL unsigned int WriteEncrypted(const void* buffer, unsigned int byteSize, std::int64_t byteOffset);
    [[noreturn]] ORVA_LOCAL void fail(long code, int error);

    // Guarded by fMutex while an operation runs.
    mutable ktMutex fMutex;
    std::int64_t fPosition = 0;
    ExtNameStr fName;
    std::string fMode;
    int fDescriptor = -1;           // Closed exactly when -1.
    std::atomic<bool> fGood{true};  // a worker may clear it while the caller reads it
    bool fReadsAhead = false;       // During ReadAhead: a failure then leaves fGood as it is.
    const bool fEncrypted;
    bool fEncryptStarted = false;
    unsigned char fRemainder[CIPHER_BLOCK_SIZE] = {};
    int fRemainderSize = 0;
    int fPadSize = 0;
    std::unique_ptr<Cipher> fCipher;  // null unless encrypted
    int fAccess = 0;                  // Flags of platform, by the mode.
    bool fSeekable = true;            // False for a pipe or terminal.
    std::string fTemporaryName;       // The full name of a file that is deleted when closed, else empty.

    int fOpenErrno = 0;
    // The process that made it or opened it last. In a forked child lock and name are its parent's, and a thread that
    // is not there may hold the lock.
    platform::makerProcess fMaker;
};

extern template class ORVA_API RefCountPtr<ORVA_File>;
