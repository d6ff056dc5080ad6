// platform: the low-level file calls that everything else stands on, with one meaning on every system. Only they and
// platformOwner make system calls on files; the rest of the library uses these and std::filesystem.
//
// A transfer either completes or fails: interrupted calls are restarted, short transfers are continued, and an error
// after part of a transfer fails all of it. So a full disk never shows as a short count that a caller can overlook.
//
// Units:   bytes; offsets from the start of the file.
// Owner:   whoever opened a descriptor owns it until _close gives 0 or closeAnyway returns.
// Threads: any. _read, _write, _lseeki64 and nextStored move the position of the descriptor, which a forked process
//          shares: the caller keeps them apart. readAt and writeAt leave it alone and may run at once.
// Failure: -1 with errno, unless stated otherwise. Nothing throws.
#pragma once

#include <orva/hostApi.h>

#include <cstddef>
#include <cstdint>
#include <mutex>

namespace platform {

// The mode tables of the callers use these names and values.
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

// Opens `name` and returns its descriptor, which programs started later do not inherit and whose number is never that
// of a standard stream. A directory gives EISDIR.
//   _O_TEMPORARY  ignored: the opener knows name, process and time of the removal, and passes the name to _close.
//   _SH_DENYWR    a writer of a regular file locks it until _close or closeAnyway, or until its process and all
//                 children forked meanwhile have ended or run another program. A second writer, in this process or
//                 another, gets EWOULDBLOCK and leaves the file as it was. Readers take no lock. On a file system
//                 without locks the writer goes on without one. The locked file is the one that the name leads to at
//                 that moment; a name that leads to another file at each try gives EWOULDBLOCK.
//   _O_EXCL       with _O_CREAT: EEXIST if the name is taken, even by a dangling link.
//   _O_NOFOLLOW   a link gives ELOOP, and opening a pipe does not wait for its other end.
// Text mode is binary. The access hints are ignored: the one that fits best, random, would switch off the read-ahead of
// the system, from which every block-wise reader profits.
ORVA_HOST_API int openShared(const char* name, int oflag, int shflag, int pmode) noexcept;

// Takes the writer's lock on an open file, for a caller that is going to replace it; the descriptor need not be open
// for writing. 0, also on a file system without locks, or -1 with EWOULDBLOCK while a writer holds the lock. The lock
// ends as that of openShared does.
ORVA_HOST_API int lockAgainstWriters(int descriptor) noexcept;
// True if a writer holds the lock. Takes a shared lock for a moment: others may ask meanwhile, and a writer that comes
// waits until it is released. Not for a descriptor that holds the lock, which would be released.
ORVA_HOST_API bool hasWriter(int descriptor) noexcept;

// Returns the new position. `origin`: 0 is the start, 1 the current position, 2 the end.
ORVA_HOST_API std::int64_t _lseeki64(int descriptor, std::int64_t offset, int origin) noexcept;

// The first offset from `offset` on whose byte the file really stores; the bytes before it are a hole and read as
// zeros. `offset` itself if the system cannot tell; INT64_MAX if only a hole is left. Leaves the position undetermined.
ORVA_HOST_API std::int64_t nextStored(int descriptor, std::int64_t offset) noexcept;

// Reads `count` bytes at `offset`. Returns their number, which is smaller only if the file ends before, or -1. A count
// above 2,147,483,647, which the result cannot express, or a negative offset gives EINVAL; a pipe or terminal, which
// has no offsets, gives ESPIPE.
ORVA_HOST_API int readAt(int descriptor, void* buffer, unsigned int count, std::int64_t offset) noexcept;

// Writes `count` bytes at `offset`. Returns `count`, or -1, after which any part of them may be in the file. Limits as
// for readAt. Not for a descriptor opened with _O_APPEND: some systems honor `offset` even then, others append.
ORVA_HOST_API int writeAt(int descriptor, const void* buffer, unsigned int count, std::int64_t offset) noexcept;

// As readAt and writeAt, but at the position of the descriptor, which moves on: for pipes, terminals and appending.
// After -1 the position is undetermined.
ORVA_HOST_API int _read(int descriptor, void* buffer, unsigned int count) noexcept;
ORVA_HOST_API int _write(int descriptor, const void* buffer, unsigned int count) noexcept;

// Makes the system report the failures of earlier writes that closing would report. The descriptor stays open, with its
// lock. Uses a second descriptor for a moment; without one to spare, syncs the file instead.
ORVA_HOST_API int flush(int descriptor) noexcept;

// Flushes and closes. 0: the descriptor is gone. -1: it is still open, with its lock, so the caller may report the
// failure and try again, or give up by closeAnyway. `temporaryName`: the full name of a file that is deleted when
// closed; it is removed if it still leads to this file.
ORVA_HOST_API int _close(int descriptor, const char* temporaryName = "") noexcept;

// Closes a descriptor whose _close has failed, without asking the system whether everything was stored.
ORVA_HOST_API void closeAnyway(int descriptor, const char* temporaryName = "") noexcept;

// Closes a descriptor that a forked child has from its parent. The parent keeps its lock, which the calls above would
// release.
ORVA_HOST_API void closeInherited(int descriptor) noexcept;

// 0 once the data and the length of the file would survive a loss of power. A file that cannot be made durable by its
// nature, such as a pipe, counts as durable. After a failure the data stays in doubt: a second call proves nothing,
// since the system reports such a loss only once.
ORVA_HOST_API int syncData(int descriptor) noexcept;

// Makes the creation, renaming or removal of `name` durable by syncing the directory that holds it.
ORVA_HOST_API int syncDirectoryOf(const char* name) noexcept;

// Renames `from`, replacing an existing `to` in one step.
ORVA_HOST_API int renameFile(const char* from, const char* to) noexcept;
// Renames `from`; EEXIST if `to` exists. If the system has no such step, or a container forbids it, `to` is looked up
// just before the rename.
ORVA_HOST_API int renameNew(const char* from, const char* to) noexcept;

ORVA_HOST_API int removeFile(const char* name) noexcept;

// No system takes a longer name, in bytes.
inline constexpr int kLongestName = 4095;

// True if both names, or descriptor and name, lead to one file that exists.
ORVA_HOST_API bool sameFile(const char* name, const char* otherName) noexcept;
ORVA_HOST_API bool sameFile(int descriptor, const char* name) noexcept;

// Cuts the file to `length`, or extends it with zeros. The position stays.
ORVA_HOST_API int truncateFile(int descriptor, std::int64_t length) noexcept;

// Has the system copy up to `count` bytes from one file into another without bringing them into this process. Returns
// the number of bytes copied, which may be fewer than there are, even 0; -1 if the system cannot copy them, for
// whatever reason: the caller then reads and writes them, which works or meets the real error. Neither position moves.
ORVA_HOST_API std::int64_t copyRange(int from, std::int64_t fromOffset, int to, std::int64_t toOffset,
                                     std::int64_t count) noexcept;

// Lets the system back `memory`, which begins on a multiple of the huge page size and is going to be touched
// throughout, by huge pages. A hint: nothing happens if the system has none, or none left. Keeps errno.
ORVA_HOST_API void preferHugePages(void* memory, std::size_t size) noexcept;

// Asks the system each time: a cached number would be wrong after a fork, which is what callers ask about.
ORVA_HOST_API std::int64_t processId() noexcept;

// The process that makes this object: isHere() is false in a child that it forks.
class makerProcess {
public:
    makerProcess() noexcept : fId(processId()) {}
    bool isHere() const noexcept { return fId == processId(); }

private:
    std::int64_t fId;
};

// The cores that the calling thread, and whatever it starts, may run on: all that are online, or fewer where taskset, a
// container or a batch system sets an affinity. At least 1. A share of time, as a container may be given, does not
// count.
ORVA_HOST_API std::uint32_t coreCount() noexcept;

// Differs between a parent and its forked child. Costs next to nothing; sees only children made by fork().
ORVA_HOST_API std::uint32_t forkCount() noexcept;

// A number below 16 that few threads have in common. Costs next to nothing.
ORVA_HOST_API std::size_t threadNumber() noexcept;

// Holds up every fork() of the process, and every other call of this, while the lock lives. For the few instructions
// that make something known: a child gets its copies of descriptors and of memory one after the other, while other
// threads go on.
[[nodiscard]] ORVA_HOST_API std::unique_lock<std::mutex> noFork() noexcept;

}  // namespace platform
