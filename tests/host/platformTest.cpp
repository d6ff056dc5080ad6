#include "support/tempDir.h"

#include <sys/file.h>

using namespace platform;
using namespace support;

constexpr int kWrite = _O_RDWR | _O_CREAT, kAppend = kWrite | _O_APPEND, kTruncate = kWrite | _O_TRUNC;
const std::string kDigits = "0123456789";

int opened(const std::string& name, int oflag) {
    return openShared(name.c_str(), oflag, _SH_DENYWR, 0x180);
}

// Logs each raw call as a word: its kind ('c' closes another descriptor than the first), the size asked for, the offset
// in the file, and the answer that the corresponding word of `dialogue` has forced: "=3" for at most 3 bytes, "=EIO"
// for that failure.
struct Script : faults::Hook {
    explicit Script(const std::string& dialogue) : fDialogue(dialogue) {}
    Verdict before(const faults::Step& /*step*/) override {
        static constexpr int errors[]{EPERM, EINTR, EIO, EBADF, EAGAIN, EACCES, EINVAL, EMFILE, EROFS, ENOLCK, ENOTSUP};
        std::string word;
        fDialogue >> word;
        fAnswer = word.substr(std::min(word.find('='), word.size()));
        if (fAnswer.empty()) return Verdict::goOn();
        const std::string answer = fAnswer.substr(1);
        const auto* const error = std::ranges::find(errors, answer, strerrorname_np);
        return error != std::end(errors) ? Verdict::fail(*error) : Verdict::atMost(std::stoul(answer));
    }
    void after(const faults::Step& step) override {
        if (descriptor == -1) descriptor = static_cast<int>(step.result);
        const bool other = step.call == Call::Close && step.descriptor != descriptor;
        log << (other ? 'c' : "OSRWDCYTLNU"[static_cast<int>(step.call)]);
        if (step.size > 0) log << step.size;
        if (step.offset >= 0) log << '@' << step.offset;
        log << fAnswer << ' ';
    }

    std::ostringstream log;
    int descriptor = -1;

private:
    std::istringstream fDialogue;
    std::string fAnswer;
    const faults::Installed fInstalled{*this};
};

// Returns how many of the requested bytes are missing, negative after a failure. The descriptor's own position is
// elsewhere.
int readDigitsAt(int descriptor) {
    std::string bytes(12, '\0');
    _lseeki64(descriptor, 4, SEEK_SET);
    const int count = readAt(descriptor, bytes.data(), 12, 1);
    return count - 9 + (count >= 0 && bytes.compare(0, 9, kDigits, 1) != 0);
}
constexpr auto writeDigitsAt = [](int d) { return writeAt(d, kDigits.data(), 10, 3) - 10; };
constexpr auto writeDigits = [](int d) { return _write(d, kDigits.data(), 10) - 10; };

constexpr auto closeFile = [](int d) { return _close(d); };
int closeTemporary(int descriptor) {
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    return _close(descriptor, std::filesystem::read_symlink(link).c_str());
}

constexpr auto openedAnew = [](int d) { return ::open(("/proc/self/fd/" + std::to_string(d)).c_str(), O_RDWR); };
// The result of a second writer's lock afterwards. A forked child has a copy of the descriptor.
template <auto step>
int lockedAfter(int descriptor) {
    const int copy = ::dup(descriptor), second = openedAnew(descriptor);
    step(descriptor);
    const int result = ::flock(second, LOCK_EX | LOCK_NB);
    ::close(copy), ::close(second);
    return result;
}
int askedBesideAnother(int descriptor) {
    const int other = openedAnew(descriptor);
    const bool found = ::flock(other, LOCK_SH) != 0 || hasWriter(descriptor);
    ::close(other);
    return found ? 1 : 0;
}

// Opens a file while the number of standard input is free.
int openedWithoutInput(int /*descriptor*/) {
    const int input = ::dup(0);
    ::close(0);
    const int other = openShared("/dev/null", _O_RDONLY, 0, 0);
    ::dup2(input, 0), ::close(input), ::close(other);
    return other > 2 ? 0 : 1;
}

// Opens a file of the digits and does one thing with it.
struct CallCase {
    const char* name;
    int oflag;
    int (*run)(int descriptor);
    const char* dialogue;
    int error = 0;
    std::string content = kDigits;  // afterwards
};
const CallCase kCalls[] = {
    {"WriteIsCompleted", kAppend, writeDigits, "O L W10=EINTR W10@10=3 W7=EINTR W7@13=1 W6@14 ", 0, kDigits + kDigits},
    {"WriteErrorAfterAPart", kWrite, writeDigits, "O L W10@0=4 W6=EIO ", EIO},
    {"WriteThatTakesNothing", kWrite, writeDigits, "O L W10=0 ", EIO},
    {"ALongWriteGoesInPieces", kWrite, [](int d) { return _write(d, kDigits.data(), 0x7fffffff); },
     "O L W2147479552=EINVAL ", EINVAL},
    {"ReadAtAPlace", _O_RDONLY, readDigitsAt, "O S@4 R12@1=5 R7@6=EINTR R7@6 R3@10 "},
    {"WriteAtAPlace", kWrite, writeDigitsAt, "O L W10@3=4 W6@7=EINTR W6@7 ", 0, "012" + kDigits},
    {"NoPlaceBeforeTheFile", kWrite, [](int d) { return writeAt(d, "a", 1, -1); }, "O L ", EINVAL},
    {"ATakenNameIsNotMadeAnew", kWrite | _O_EXCL, nullptr, "O ", EEXIST},
    {"NoFileIsAStandardStream", kWrite, openedWithoutInput, "O L O D c "},
    {"LocksBeforeItTruncates", kTruncate, nullptr, "O L=EINTR L T ", 0, ""},
    {"GoesOnWithoutLocks", kTruncate, nullptr, "O L=ENOLCK T ", 0, ""},
    {"WhoAsksForAWriterIsNone", kTruncate, nullptr, "O L=EAGAIN L L T ", 0, ""},
    {"AWriterIsNotWaitedFor", kTruncate, nullptr, "O L=EAGAIN L=EAGAIN C ", EAGAIN},
    {"WhereOnlyWhoWritesMayLockAlone", _O_RDONLY, lockedAfter<lockAgainstWriters>, "O L=EBADF L ", EAGAIN},
    {"AndNobodyElseMay", _O_RDONLY, lockAgainstWriters, "O L=EBADF L=ENOLCK "},
    {"OthersMayAskAtOnce", _O_RDONLY, askedBesideAnother, "O L "},
    {"ACloseUnlocksTheCopies", kWrite, lockedAfter<+closeFile>, "O L D c C "},
    {"AFailedCloseKeepsTheLock", kWrite, lockedAfter<+closeFile>, "O L D c=EIO ", EAGAIN},
    {"ACopysCloseKeepsTheLock", kWrite, lockedAfter<closeInherited>, "O L C ", EAGAIN},
    {"FailedLock", kTruncate, nullptr, "O L=EIO C ", EIO},
    {"FailedTruncation", kTruncate, nullptr, "O L T=EIO C ", EIO},
    {"TemporaryGoesUnderItsLock", kWrite, closeTemporary, "O L D c=EINTR D c U C ", 0, ""},
    {"FailedClose", kWrite, closeTemporary, "O L D c=EIO ", EIO},
    {"LateFailureClosesNoNumberTwice", kWrite, closeFile, "O L D c C=EIO "},
    {"NoNumberToSpareSyncs", kWrite, closeFile, "O L D=EMFILE Y C "},
    {"FailedSync", kWrite, syncData, "O L Y=EINTR Y=EIO ", EIO},
    {"NothingToSync", kWrite, syncData, "O L Y=EINVAL "},
    {"SyncOfAFileSystemThatHasStopped", kWrite, syncData, "O L Y=EROFS ", EROFS},
    {"SyncOfADirectory", kWrite, [](int) { return syncDirectoryOf("a"); }, "O L O Y=EINTR Y=EIO c ", EIO},
    {"OfOneThatMayNotBeRead", kWrite, [](int) { return syncDirectoryOf("a"); }, "O L O=EACCES O Y c "},
    {"NorHasFilesWithoutAName", kWrite, [](int) { return syncDirectoryOf("a"); }, "O L O=EACCES O=EOPNOTSUPP ", EACCES},
    {"ARenameThatKnowsNoRefusal", kWrite, [](int) { return renameNew("a", "b"); }, "O L N=EOPNOTSUPP N ", ENOENT},
    {"OneThatIsForbidden", kWrite, [](int) { return renameNew("a", "b"); }, "O L N=EPERM N ", ENOENT},
    {"Truncation", kWrite, [](int d) { return truncateFile(d, 4); }, "O L T4=EINTR T4 ", 0, "0123"},
};

using PlatformTest = TempDir;

TEST_F(PlatformTest, CallsAreWholeOrFailed) {
    for (const CallCase& row : kCalls) {
        SCOPED_TRACE(row.name);
        const std::string file = made("data", {kDigits.begin(), kDigits.end()});
        Script script(row.dialogue);
        errno = 0;
        const int descriptor = opened(file, row.oflag);
        const int result = row.run == nullptr ? std::min(descriptor, 0) : row.run(descriptor);
        EXPECT_EQ(result < 0 ? errno : result, row.error);
        EXPECT_EQ(script.log.str(), row.dialogue);
        const bool staysOpen = script.descriptor >= 0 && script.log.str().find(" C") == std::string::npos;
        EXPECT_EQ(fcntl(script.descriptor, F_GETFD), staysOpen ? FD_CLOEXEC : -1);
        EXPECT_EQ(readBytes(file), Bytes(row.content.begin(), row.content.end()));
        if (staysOpen) _close(script.descriptor);
    }
}

TEST_F(PlatformTest, NeitherANameWithAZeroByteNorADirectoryOpens) {
    ExtNameStr name;
    name.SetGeneric(made("data", {}) + std::string("\0tail", 5));
    EXPECT_TRUE(name.Sopen(_O_RDONLY, _SH_DENYWR, 0x180) == -1 && errno == ENOENT);
    EXPECT_TRUE(opened(path("."), _O_RDONLY) == -1 && errno == EISDIR);
}

// Another file takes the name before each of the first `times` locks.
TEST_F(PlatformTest, AWriterLocksTheFileThatItsNameLeadsTo) {
    const std::string name = made("data", {});
    int times = 3;
    const CallHook hook([&](const Step& step) {
        if (step.call == Call::Lock && times-- > 0) {
            std::ofstream(name + "2") << kDigits;
            std::filesystem::rename(name + "2", name);
        }
    });
    const int descriptor = opened(name, kTruncate);
    EXPECT_EQ(_write(descriptor, "mine", 4), 4);
    EXPECT_EQ(std::filesystem::file_size(name), 4U);
    EXPECT_EQ(_close(descriptor), 0);
    times = 1000;
    EXPECT_TRUE(opened(name, kTruncate) == -1 && errno == EWOULDBLOCK);
    EXPECT_EQ(std::filesystem::file_size(name), 10U) << "truncated though it was never locked";
}
