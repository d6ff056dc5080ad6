// platform: the low-level file calls that everything else stands on, with one meaning on every system. No other file
// of the library makes a system call on a file.
//
// A transfer here is whole or failed: interruptions are restarted, short transfers are continued, and a part that an
// error follows counts as a failure, so that a full disk is never a short count that somebody forgets to look at.
//
// Units:   bytes; offsets from the start of the file.
// Owner:   a descriptor belongs to who opened it, until _close gives 0.
// Threads: every call, from any thread. _read and _write move the position of the descriptor, which a fork shares:
//          the caller keeps them apart. readAt and writeAt know none, and may run at once.
// Failure: -1 with errno. Nothing throws.
#pragma once

#include <orva/hostApi.h>

#include <cstddef>
#include <cstdint>

namespace platform {

// The names and values are those that the callers' mode tables are written in.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
inline constexpr int _O_RDONLY = 0x0;
inline constexpr int _O_WRONLY = 0x1;
inline constexpr int _O_RDWR = 0x2;
inline constexpr int _O_APPEND = 0x8;
inline constexpr int _O_RANDOM = 0x10;
inline constexpr int _O_TEMPORARY = 0x40;
inline constexpr int _O_CREAT = 0x100;
inline constexpr int _O_TRUNC = 0x200;
inline constexpr int _O_EXCL = 0x400;
inline constexpr int _O_SHORT_LIVED = 0x1000;
inline constexpr int _O_TEXT = 0x4000;
inline constexpr int _O_BINARY = 0x8000;
inline constexpr int _O_NOFOLLOW = 0x100000;
inline constexpr int _SH_DENYWR = 0x20;
inline constexpr int _S_IWRITE = 0x80;
inline constexpr int _S_IREAD = 0x100;
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

// Opens `name` and gives its descriptor, which no program started later inherits, and which is never the number of a
// standard stream. A directory is EISDIR.
//   _O_TEMPORARY  nothing here: whoever opened the file knows its name, its process and when it is to go, and hands the
//                 name to _close.
//   _SH_DENYWR    a writer of a regular file holds a lock until _close or closeAnyway, or until its process and all
//                 children that were forked meanwhile have ended or run another program; a second writer, in this
//                 process or another, gets EWOULDBLOCK and leaves the file as it was. Readers take no lock. Where the
//                 file system has none, the writer goes on without. The file locked is the one that the name leads to
//                 then; a name that leads to another one each time it is tried is EWOULDBLOCK.
//   _O_EXCL       with _O_CREAT: EEXIST if the name is taken, by a link that leads nowhere too.
//   _O_NOFOLLOW   a link is ELOOP, and nobody is waited for at the other end of a pipe.
// Text mode is binary. The hints on access are ignored: the one that fits here best, random, would switch off the
// read-ahead of the system, which every block-wise reader profits from.
ORVA_HOST_API int openShared(const char* name, int oflag, int shflag, int pmode) noexcept;

// Takes the writer's lock on an open file, which needs no right to write: for who is going to replace it. 0, or -1 with
// EWOULDBLOCK while a writer has it. Held as openShared tells.
ORVA_HOST_API int lockAgainstWriters(int descriptor) noexcept;
// A writer has it. Takes a shared one for a moment, in which others may ask too; a writer that comes waits for its end.
ORVA_HOST_API bool hasWriter(int descriptor) noexcept;

// `origin`: 0 from the start, 1 from where it stands, 2 from the end. The new position.
ORVA_HOST_API std::int64_t _lseeki64(int descriptor, std::int64_t offset, int origin) noexcept;

// The first byte from `offset` on that the file really stores: what lies between is a hole, and reads as zeros.
// `offset` itself where the system cannot tell; the largest number when only a hole is left. The position is
// undetermined then.
ORVA_HOST_API std::int64_t nextStored(int descriptor, std::int64_t offset) noexcept;

// All of `count` bytes at `offset`, or fewer where the file ends, or -1. A count above 2,147,483,647, which the result
// could not tell, is EINVAL; a pipe or terminal, which has no offsets, is ESPIPE.
ORVA_HOST_API int readAt(int descriptor, void* buffer, unsigned int count, std::int64_t offset) noexcept;

// All of `count` bytes or -1; then any part of them may stand in the file. Limits: as for readAt. Not for a descriptor
// opened with _O_APPEND: some systems put the bytes at `offset` all the same, others at the end.
ORVA_HOST_API int writeAt(int descriptor, const void* buffer, unsigned int count, std::int64_t offset) noexcept;

// The same where the descriptor stands, for pipes, terminals and what is appended. After -1 its position is
// undetermined.
ORVA_HOST_API int _read(int descriptor, void* buffer, unsigned int count) noexcept;
ORVA_HOST_API int _write(int descriptor, const void* buffer, unsigned int count) noexcept;

// Has the system tell the failures that closing would, of writes that it had taken. The descriptor stays open, with its
// lock. Costs a second one for a moment, where there is one.
ORVA_HOST_API int flush(int descriptor) noexcept;

// 0 and the descriptor is gone, or -1 and it is still open, with its lock, so that a caller may tell of the failure and
// try again, or give up by closeAnyway. Flushes it. `temporaryName`, full, of a file that is deleted when closed:
// removed with the descriptor if it still leads to this file.
ORVA_HOST_API int _close(int descriptor, const char* temporaryName = "") noexcept;

// Closes without asking the system whether everything was stored: for a descriptor whose _close has failed.
ORVA_HOST_API void closeAnyway(int descriptor, const char* temporaryName = "") noexcept;

// Closes a descriptor that a forked child has from its parent, whose lock stays: the calls above would end it.
ORVA_HOST_API void closeInherited(int descriptor) noexcept;

// 0 once the data of the file, and its length, would survive a loss of power. A file that cannot be made durable by
// its nature, such as a pipe, counts as durable. After a failure the data is in doubt for good: a second call proves
// nothing, for the system reports such a loss once.
ORVA_HOST_API int syncData(int descriptor) noexcept;

// Makes the creation, renaming or removal of `name` durable by syncing the directory that holds it.
ORVA_HOST_API int syncDirectoryOf(const char* name) noexcept;

// Replaces `to` in one step if it exists.
ORVA_HOST_API int renameFile(const char* from, const char* to) noexcept;
// EEXIST if `to` exists. Where the system knows no such step, or a container forbids it, it is looked for just before.
ORVA_HOST_API int renameNew(const char* from, const char* to) noexcept;

ORVA_HOST_API int removeFile(const char* name) noexcept;

// `name` is a link: where it and further ones lead to, absolute, in `target` of kLongestName + 1 bytes. False if it is
// none, or leads nowhere.
inline constexpr int kLongestName = 4095;
ORVA_HOST_API bool linkTarget(const char* name, char* target) noexcept;

// Both names, or descriptor and name, lead to one file that exists.
ORVA_HOST_API bool sameFile(const char* name, const char* otherName) noexcept;
ORVA_HOST_API bool sameFile(int descriptor, const char* name) noexcept;

// Cuts the file to `length`, or extends it with zeros. The position stays.
ORVA_HOST_API int truncateFile(int descriptor, std::int64_t length) noexcept;

// Has the system copy up to `count` bytes from one file into another without bringing them into this process. Gives the
// bytes copied, which may be fewer than there are, even none; -1 where it cannot, for whatever reason: reading and
// writing them does it then, or meets what stands in the way. Neither position moves.
ORVA_HOST_API std::int64_t copyRange(int from, std::int64_t fromOffset, int to, std::int64_t toOffset,
                                     std::int64_t count) noexcept;

ORVA_HOST_API void setErrno(int error) noexcept;

// Memory that is going to be touched throughout, from a multiple of the huge page's size on, may stand on huge pages. A
// hint: nothing happens where the system has none, or none left. errno stays.
ORVA_HOST_API void preferHugePages(void* memory, std::size_t size) noexcept;

// Asks the system each time: a remembered number would be wrong after a fork, which is what callers ask about.
ORVA_HOST_API std::int64_t processId() noexcept;

// Another number in a forked child than in its parent. Costs nothing, and knows no child but of fork().
ORVA_HOST_API std::uint32_t forkCount() noexcept;

// Keeps every fork() of the process waiting while it lives: for the few instructions that make something known, since a
// child gets its copies of descriptors and of memory one after the other, while other threads go on.
class ORVA_HOST_API noFork {
public:
    noFork() noexcept;
    noFork(const noFork&) = delete;
    noFork& operator=(const noFork&) = delete;
    ~noFork();
};

}  // namespace platform
