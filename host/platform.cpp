#include <orva/platform.h>
#include <orva/platformFaults.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

static_assert(sizeof(off_t) == 8, "files past 2 GiB need 64-bit offsets");

namespace platform {
namespace {

using faults::Call;
using faults::Step;

// The longest transfer of one call on every supported system; Linux cuts a longer one to this.
constexpr unsigned int kPiece = 0x7ffff000;

// Instead of an offset: the position of the descriptor.
constexpr std::int64_t kCurrentPosition = -1;

#ifdef ORVA_FAULT_SEAM
std::atomic<faults::Hook*> gHook{nullptr};

template <class Raw>
std::int64_t hooked(faults::Hook& hook, Step step, Raw raw) {
    const int errnoBefore = errno;
    const faults::Verdict verdict = hook.before(step);
    if (verdict.error == 0 || step.call == Call::Close)
        step.result = raw(static_cast<std::size_t>(std::min(step.size, verdict.limit)));
    const int error = verdict.error != 0 ? verdict.error : errno;
    if (verdict.error != 0) step.result = -1;
    // The position afterwards tells the offset of a transfer that named none, even of an appending one.
    const bool moves = step.call == Call::Read || step.call == Call::Write;
    if (moves && step.offset < 0 && step.result > 0) step.offset = ::lseek(step.descriptor, 0, SEEK_CUR) - step.result;
    hook.after(step);
    errno = step.result < 0 ? error : errnoBefore;
    return step.result;
}
#endif

// The seam: every raw call below goes through here. `raw` gets the number of bytes it may transfer.
template <class Raw>
std::int64_t rawCall(const Step& step, Raw raw) {
#ifdef ORVA_FAULT_SEAM
    if (faults::Hook* hook = gHook.load(std::memory_order_acquire)) return hooked(*hook, step, raw);
#endif
    return raw(static_cast<std::size_t>(step.size));
}

template <class Raw>
int rawStatus(const Step& step, Raw raw) {
    return static_cast<int>(rawCall(step, [&](std::size_t) -> std::int64_t { return raw(); }));
}

int rawOpen(const char* name, int flags, mode_t mode) {
    const Step step{.call = Call::Open, .name = name, .flags = flags};
    return rawStatus(step, [&] { return ::open(name, flags, mode); });
}

std::int64_t rawRead(int descriptor, char* buffer, std::uint64_t size, std::int64_t offset) {
    const Step step{.call = Call::Read, .descriptor = descriptor, .size = size, .data = buffer, .offset = offset};
    return rawCall(step, [&](std::size_t most) {
        return offset == kCurrentPosition ? ::read(descriptor, buffer, most)
                                          : ::pread(descriptor, buffer, most, offset);
    });
}

std::int64_t rawWrite(int descriptor, const char* buffer, std::uint64_t size, std::int64_t offset) {
    const Step step{.call = Call::Write, .descriptor = descriptor, .size = size, .data = buffer, .offset = offset};
    return rawCall(step, [&](std::size_t most) {
        return offset == kCurrentPosition ? ::write(descriptor, buffer, most)
                                          : ::pwrite(descriptor, buffer, most, offset);
    });
}

int rawDuplicate(int descriptor) {
    const Step step{.call = Call::Duplicate, .descriptor = descriptor};
    return rawStatus(step, [&] { return ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); });
}

int rawClose(int descriptor) {
    return rawStatus(Step{.call = Call::Close, .descriptor = descriptor}, [&] { return ::close(descriptor); });
}

// Moves a descriptor past the numbers of the standard streams: whatever the process prints to a closed standard stream
// would go into a file that has its number.
int pastStandardStreams(int descriptor) {
    if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
    const int moved = rawDuplicate(descriptor);
    const int error = errno;
    rawClose(descriptor);
    errno = error;
    return moved;
}

int rawLock(int descriptor, int kind) {
    return rawStatus(Step{.call = Call::Lock, .descriptor = descriptor},
                     [&] { return ::flock(descriptor, kind | LOCK_NB); });
}

template <class Operation>
auto restarted(Operation operation) {
    for (;;) {
        const auto result = operation();
        if (result >= 0 || errno != EINTR) return result;
    }
}

// Calls `raw` until `count` bytes are transferred, or a call gives 0 or an error.
template <class Raw, class Byte>
int completed(Raw raw, int descriptor, Byte* bytes, unsigned int count, std::int64_t offset) {
    if (count > INT_MAX) {
        errno = EINVAL;
        return -1;
    }
    unsigned int done = 0;
    while (done < count) {
        const std::int64_t place = offset == kCurrentPosition ? kCurrentPosition : offset + done;
        const std::int64_t moved =
            restarted([&] { return raw(descriptor, bytes + done, std::min(count - done, kPiece), place); });
        if (moved < 0) return -1;
        if (moved == 0) break;
        done += static_cast<unsigned int>(moved);
    }
    return static_cast<int>(done);
}

int writeWhole(int descriptor, const void* buffer, unsigned int count, std::int64_t offset) {
    const int written = completed(rawWrite, descriptor, static_cast<const char*>(buffer), count, offset);
    if (written < 0 || static_cast<unsigned int>(written) == count) return written;
    errno = EIO;  // the system took nothing and gave no reason
    return -1;
}

bool refusesOffset(std::int64_t offset) {
    if (offset >= 0) return false;
    errno = EINVAL;
    return true;
}

// All copies of the descriptor share the lock, and forked children keep theirs until they end or run another program:
// closing this one alone would leave the file locked.
void unlockAndClose(int descriptor) {
    ::flock(descriptor, LOCK_UN);
    rawClose(descriptor);
}

// Closes after a failure, and reports that failure instead of one from closing.
int closedWith(int descriptor, int error) {
    unlockAndClose(descriptor);
    errno = error;
    return -1;
}

bool hasNoLocks(int error) {
    return error == ENOLCK || error == EOPNOTSUPP || error == ENOTSUP || error == ENOSYS || error == EINVAL;
}

int systemFlags(int oflag) {
    int flags = O_CLOEXEC | O_NOCTTY;
    flags |= (oflag & _O_RDWR) != 0 ? O_RDWR : (oflag & _O_WRONLY) != 0 ? O_WRONLY : O_RDONLY;
    if ((oflag & _O_APPEND) != 0) flags |= O_APPEND;
    if ((oflag & _O_CREAT) != 0) flags |= O_CREAT;
    if ((oflag & _O_EXCL) != 0) flags |= O_EXCL;
    if ((oflag & _O_NOFOLLOW) != 0) flags |= O_NOFOLLOW | O_NONBLOCK;
    return flags;  // never O_TRUNC: it would delete another writer's data before its lock is seen
}

// Another writer replaced or removed the file before its lock was taken. No errno has this value.
constexpr int kNameMovedOn = -1;

// Checks, locks and truncates a file just opened, as asked for. 0, an errno or kNameMovedOn.
int prepared(int descriptor, const char* name, int oflag, int shflag) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return errno;
    if (S_ISDIR(status.st_mode)) return EISDIR;
    if (S_ISREG(status.st_mode) && (oflag & (_O_WRONLY | _O_RDWR)) != 0) {
        if (shflag == _SH_DENYWR) {
            if (lockAgainstWriters(descriptor) != 0) return errno;
            if (!sameFile(descriptor, name)) return kNameMovedOn;
        }
        if ((oflag & _O_TRUNC) != 0 && truncateFile(descriptor, 0) != 0) return errno;
    }
    return 0;
}

// EINVAL and ENOTSUP come from files that have nothing to make durable. EROFS is a failure: a file system that stopped
// after an error gives it, without having stored what was written before.
int syncedUnlessPointless(int descriptor, int (*sync)(int)) {
    const Step step{.call = Call::Sync, .descriptor = descriptor};
    if (restarted([&] { return rawStatus(step, [&] { return sync(descriptor); }); }) == 0) return 0;
    return errno == EINVAL || errno == ENOTSUP ? 0 : -1;
}

}  // namespace

// Closes a file that lost its name before it was locked: nobody could find what would be written into it.
int openShared(const char* name, int oflag, int shflag, int pmode) noexcept {
    constexpr int tries = 10;
    for (int i = 0; i < tries; ++i) {
        const int descriptor = pastStandardStreams(
            restarted([&] { return rawOpen(name, systemFlags(oflag), static_cast<mode_t>(pmode & 0777)); }));
        if (descriptor < 0) return -1;
        const int error = prepared(descriptor, name, oflag, shflag);
        if (error == 0) return descriptor;
        closedWith(descriptor, error == kNameMovedOn ? EWOULDBLOCK : error);
        if (error != kNameMovedOn) return -1;
    }
    return -1;
}

// hasWriter holds the lock for microseconds, or longer if its thread loses the core meanwhile, so this waits for it.
// The refusal comes at once while a writer holds the lock, and after a tenth of a second while anybody else shares it.
// Network file systems give an exclusive lock only to descriptors open for writing, and EBADF to others: a shared one
// keeps writers out as well.
int lockAgainstWriters(int descriptor) noexcept {
    constexpr int tries = 100;
    constexpr std::chrono::milliseconds pause(1);
    int kind = LOCK_EX;
    for (int i = 0; i < tries; ++i) {
        if (restarted([&] { return rawLock(descriptor, kind); }) == 0 || hasNoLocks(errno)) return 0;
        if (errno == EBADF && std::exchange(kind, LOCK_SH) == LOCK_EX) continue;
        if (errno != EWOULDBLOCK || hasWriter(descriptor)) return -1;
        std::this_thread::sleep_for(pause);
    }
    errno = EWOULDBLOCK;
    return -1;
}

// flock has no query without locking, and queries for other kinds of locks do not see this one.
bool hasWriter(int descriptor) noexcept {
    if (restarted([&] { return rawLock(descriptor, LOCK_SH); }) != 0) return errno == EWOULDBLOCK;
    ::flock(descriptor, LOCK_UN);
    return false;
}

std::int64_t _lseeki64(int descriptor, std::int64_t offset, int origin) noexcept {
    const Step step{.call = Call::Seek, .descriptor = descriptor, .flags = origin, .offset = offset};
    return rawCall(step, [&](std::size_t) { return ::lseek(descriptor, offset, origin); });
}

std::int64_t nextStored(int descriptor, std::int64_t offset) noexcept {
    const std::int64_t found = _lseeki64(descriptor, offset, SEEK_DATA);
    if (found >= offset) return found;
    return errno == ENXIO ? INT64_MAX : offset;
}

int _read(int descriptor, void* buffer, unsigned int count) noexcept {
    return completed(rawRead, descriptor, static_cast<char*>(buffer), count, kCurrentPosition);
}

int _write(int descriptor, const void* buffer, unsigned int count) noexcept {
    return writeWhole(descriptor, buffer, count, kCurrentPosition);
}

int readAt(int descriptor, void* buffer, unsigned int count, std::int64_t offset) noexcept {
    if (refusesOffset(offset)) return -1;
    return completed(rawRead, descriptor, static_cast<char*>(buffer), count, offset);
}

int writeAt(int descriptor, const void* buffer, unsigned int count, std::int64_t offset) noexcept {
    return refusesOffset(offset) ? -1 : writeWhole(descriptor, buffer, count, offset);
}

// A failed close leaves its descriptor unusable, so the close that may fail is that of a duplicate. Without a number to
// spare, syncing finds the same failures.
int flush(int descriptor) noexcept {
    for (;;) {
        const int duplicate = rawDuplicate(descriptor);
        if (duplicate < 0) return errno == EBADF ? -1 : syncData(descriptor);
        if (rawClose(duplicate) == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

int _close(int descriptor, const char* temporaryName) noexcept {
    if (flush(descriptor) != 0) return -1;
    closeAnyway(descriptor, temporaryName);
    return 0;
}

// The descriptor is gone afterwards whatever the system says, and flush has reported the failure. If this reported
// another one, the caller would close the number again, which may be that of another file by then.
//
// The name is removed while the lock is still held, so no other writer gets in between. A file that has taken over the
// name meanwhile is somebody else's and stays.
void closeAnyway(int descriptor, const char* temporaryName) noexcept {
    if (*temporaryName != '\0' && sameFile(descriptor, temporaryName)) removeFile(temporaryName);
    unlockAndClose(descriptor);
}

void closeInherited(int descriptor) noexcept {
    rawClose(descriptor);
}

int syncData(int descriptor) noexcept {
    return syncedUnlessPointless(descriptor, ::fdatasync);
}

// fsync, since the entries of a directory count as metadata. A caller that may write to the directory but not read it
// syncs the whole file system, through a file without a name there.
int syncDirectoryOf(const char* name) noexcept try {
    std::string directory = std::filesystem::path(name).parent_path().string();
    if (directory.empty()) directory = ".";
    const auto opened = [&](int flags) {
        return restarted([&] { return rawOpen(directory.c_str(), flags | O_CLOEXEC, S_IRUSR); });
    };
    int descriptor = opened(O_RDONLY | O_DIRECTORY);
    const bool unreadable = descriptor < 0 && errno == EACCES;
    if (unreadable && (descriptor = opened(O_WRONLY | O_TMPFILE)) < 0) errno = EACCES;
    if (descriptor < 0) return -1;
    if (syncedUnlessPointless(descriptor, unreadable ? ::syncfs : ::fsync) != 0) return closedWith(descriptor, errno);
    rawClose(descriptor);
    return 0;
} catch (...) {
    errno = ENOMEM;
    return -1;
}

int renameFile(const char* from, const char* to) noexcept {
    return rawStatus(Step{.call = Call::Rename, .name = from, .newName = to}, [&] { return std::rename(from, to); });
}

int renameNew(const char* from, const char* to) noexcept {
    const Step step{.call = Call::Rename, .name = from, .newName = to};
    const int result = rawStatus(step, [&] { return ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE); });
    const bool isKnown = errno != EINVAL && errno != ENOSYS && errno != ENOTSUP && errno != EPERM;
    if (result == 0 || isKnown) return result;
    struct stat taken {};
    if (::lstat(to, &taken) != 0) return renameFile(from, to);
    errno = EEXIST;
    return -1;
}

int removeFile(const char* name) noexcept {
    return rawStatus(Step{.call = Call::Unlink, .name = name}, [&] { return ::unlink(name); });
}

int truncateFile(int descriptor, std::int64_t length) noexcept {
    const Step step{.call = Call::Truncate, .descriptor = descriptor, .size = static_cast<std::uint64_t>(length)};
    return restarted([&] { return rawStatus(step, [&] { return ::ftruncate(descriptor, length); }); });
}

std::int64_t copyRange(int from, std::int64_t fromOffset, int to, std::int64_t toOffset, std::int64_t count) noexcept {
    return restarted(
        [&] { return ::copy_file_range(from, &fromOffset, to, &toOffset, static_cast<std::size_t>(count), 0); });
}

void preferHugePages(void* memory, std::size_t size) noexcept {
    const int error = errno;
    ::madvise(memory, size, MADV_HUGEPAGE);
    errno = error;
}

#ifdef ORVA_FAULT_SEAM
faults::Hook* faults::install(Hook* hook) noexcept {
    return gHook.exchange(hook, std::memory_order_acq_rel);
}
bool faults::refuses(Call call) noexcept {
    return rawStatus(Step{.call = call}, [] { return 0; }) < 0;
}
#endif

}  // namespace platform
