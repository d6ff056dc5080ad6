#include "hostTest.h"

#include <orva/platform.h>
#include <orva/platformFaults.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

using platform::faults::Call;
using platform::faults::Installed;
using platform::faults::Step;
using platform::faults::Verdict;

constexpr int kReadWrite = platform::_O_RDWR | platform::_O_CREAT;
constexpr int kTruncating = kReadWrite | platform::_O_TRUNC;

int opened(const std::string& name, int oflag) {
    return platform::openShared(name.c_str(), oflag, platform::_SH_DENYWR, 0x180);
}

// Answers the calls of one kind from a list, lets all others and those past its end go on, and keeps what was done.
class Script : public platform::faults::Hook {
public:
    Script(Call call, std::vector<Verdict> verdicts) : fCall(call), fVerdicts(std::move(verdicts)) {}

    Verdict before(Call call, int /*descriptor*/, std::uint64_t /*size*/) override {
        if (call != fCall || fNext == fVerdicts.size()) return Verdict::goOn();
        return fVerdicts[fNext++];
    }
    void after(const Step& step) override {
        steps.push_back(step);
        if (step.call == Call::Write && step.result > 0 && step.size < 100)
            written.emplace_back(static_cast<const char*>(step.data), static_cast<std::size_t>(step.result));
    }
    std::vector<std::uint64_t> sizesOf(Call call) const {
        std::vector<std::uint64_t> sizes;
        for (const Step& step : steps)
            if (step.call == call) sizes.push_back(step.size);
        return sizes;
    }

    std::vector<Step> steps;
    std::vector<std::string> written;

private:
    Call fCall;
    std::vector<Verdict> fVerdicts;
    std::size_t fNext = 0;
};

class PlatformTest : public FreshDirectory {
protected:
    static void expectOpen(int descriptor) { EXPECT_NE(fcntl(descriptor, F_GETFD), -1) << "is closed"; }
    static void expectClosed(int descriptor) { EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "is open"; }
    bool exists(const std::string& name) const { return std::filesystem::exists(path(name)); }
};

struct TransferCase {
    const char* name;
    Call call;
    std::vector<Verdict> verdicts;
    int result, error;
    std::vector<std::uint64_t> sizes;  // asked of the system, call by call; a read's last meets the end of the file
};
const TransferCase kTransfers[] = {
    {"WriteAtOnce", Call::Write, {}, 10, 0, {10}},
    {"InterruptedWriteIsRestarted", Call::Write, {Verdict::fail(EINTR), Verdict::fail(EINTR)}, 10, 0, {10, 10, 10}},
    {"ShortWriteIsCompleted", Call::Write, {Verdict::atMost(3), Verdict::atMost(1)}, 10, 0, {10, 7, 6}},
    {"WriteErrorAfterAPart", Call::Write, {Verdict::atMost(4), Verdict::fail(ENOSPC)}, -1, ENOSPC, {10, 6}},
    {"WriteThatTakesNothing", Call::Write, {Verdict::atMost(4), Verdict::atMost(0)}, -1, EIO, {10, 6}},
    {"ReadUpToTheEnd", Call::Read, {}, 10, 0, {12, 2}},
    {"InterruptedReadIsRestarted", Call::Read, {Verdict::atMost(5), Verdict::fail(EINTR)}, 10, 0, {12, 7, 7, 2}},
    {"ReadErrorAfterAPart", Call::Read, {Verdict::atMost(4), Verdict::fail(EIO)}, -1, EIO, {12, 8}},
};

TEST_F(PlatformTest, TransfersAreWholeOrFailed) {
    for (const TransferCase& row : kTransfers) {
        SCOPED_TRACE(row.name);
        const std::string file = made("data", row.call == Call::Read ? "0123456789" : "");
        const int descriptor = opened(file, kReadWrite);
        char buffer[13] = {};
        Script script(row.call, row.verdicts);
        {
            const Installed installed(script);
            errno = 0;
            EXPECT_EQ(row.call == Call::Read ? platform::_read(descriptor, buffer, 12)
                                             : platform::_write(descriptor, "0123456789", 10),
                      row.result);
            EXPECT_EQ(row.result < 0 ? errno : 0, row.error);
        }
        EXPECT_EQ(script.sizesOf(row.call), row.sizes);
        EXPECT_EQ(platform::_close(descriptor), 0);
        if (row.result < 0) continue;
        EXPECT_EQ(row.call == Call::Read ? buffer : contentOf(file), "0123456789");
    }
}

TEST_F(PlatformTest, CountsPastOneCallGoInPieces) {
    SKIP_UNDER_THREAD_SANITIZER("it would shadow all of the memory written from");
    constexpr unsigned int kMost = 0x7fffffff;
    void* untouched = mmap(nullptr, kMost, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(untouched, MAP_FAILED);
    const int descriptor = opened("/dev/null", platform::_O_WRONLY | platform::_O_TRUNC);
    Script script(Call::Write, {});
    const Installed installed(script);
    EXPECT_EQ(platform::_write(descriptor, untouched, kMost), 0x7fffffff);
    EXPECT_EQ(platform::_write(descriptor, untouched, kMost + 1), -1) << "the result could not tell the count";
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(script.sizesOf(Call::Write), (std::vector<std::uint64_t>{0x7ffff000, 0xfff}));
    platform::_close(descriptor);
    munmap(untouched, kMost);
}

// What a later test needs to replay writes against a disk of its own.
TEST_F(PlatformTest, SeamTellsWhereWritesHappened) {
    const std::string file = made("data", "01234567");
    Script script(Call::Write, {Verdict::goOn(), Verdict::atMost(1)});
    const Installed installed(script);
    const int descriptor = opened(file, platform::_O_RDWR | platform::_O_APPEND);
    platform::_lseeki64(descriptor, 2, 0);
    platform::_write(descriptor, "ab", 2);
    platform::_write(descriptor, "cd", 2);
    EXPECT_EQ(script.written, (std::vector<std::string>{"ab", "c", "d"}));
    std::vector<std::int64_t> offsets;
    for (const Step& step : script.steps)
        if (step.call == Call::Write) offsets.push_back(step.offset);
    EXPECT_EQ(offsets, (std::vector<std::int64_t>{8, 10, 11})) << "an appending write goes to the end";
    EXPECT_EQ(contentOf(file), "01234567abcd");
    platform::_close(descriptor);
}

TEST_F(PlatformTest, OpensAsTheFlagsSay) {
    const int created = opened(path("new"), kReadWrite | platform::_O_RANDOM | platform::_O_TEXT);
    struct stat status {};
    ASSERT_EQ(fstat(created, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    EXPECT_NE(fcntl(created, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(platform::_write(created, "a\nb", 3), 3);
    EXPECT_EQ(platform::_close(created), 0);
    EXPECT_EQ(contentOf(path("new")), "a\nb");

    const int truncated = opened(path("new"), kTruncating);
    EXPECT_EQ(platform::_lseeki64(truncated, 0, 2), 0);
    EXPECT_EQ(platform::_close(truncated), 0);

    for (const int oflag : {platform::_O_RDONLY, platform::_O_RDWR}) {
        EXPECT_EQ(opened(fDirectory.string(), oflag), -1);
        EXPECT_EQ(errno, EISDIR);
    }
}

TEST_F(PlatformTest, SecondWriterIsRefusedAndChangesNothing) {
    const std::string file = made("data", "kept");
    const int writer = opened(file, kReadWrite);
    const auto expectRefused = [&] {
        errno = 0;
        EXPECT_EQ(opened(file, kTruncating), -1);
        EXPECT_EQ(errno, EWOULDBLOCK);
        EXPECT_EQ(contentOf(file), "kept");
        const int reader = opened(file, platform::_O_RDONLY);
        EXPECT_NE(reader, -1) << "a reader needs no lock";
        platform::_close(reader);
    };
    expectRefused();
    expectInChild(expectRefused);
    EXPECT_EQ(platform::_close(writer), 0);
    const int next = opened(file, kTruncating);
    EXPECT_NE(next, -1) << "the lock went with the descriptor";
    EXPECT_EQ(contentOf(file), "");
    platform::_close(next);
}

TEST_F(PlatformTest, LocksBeforeItTruncates) {
    Script script(Call::Lock, {Verdict::fail(EINTR), Verdict::fail(ENOLCK)});
    const Installed installed(script);
    const int descriptor = opened(made("data", "old"), kTruncating);
    EXPECT_NE(descriptor, -1) << "a file system without locks is no obstacle";
    std::vector<Call> order;
    for (const Step& step : script.steps) order.push_back(step.call);
    EXPECT_EQ(order, (std::vector<Call>{Call::Open, Call::Lock, Call::Lock, Call::Truncate}));
    EXPECT_EQ(script.steps.front().flags & O_TRUNC, 0);
    platform::_close(descriptor);
}

TEST_F(PlatformTest, FailedPreparationLeavesNothingOpen) {
    const std::string file = made("data", "old");
    for (const Call call : {Call::Lock, Call::Truncate}) {
        Script script(call, {Verdict::fail(EIO)});
        const Installed installed(script);
        EXPECT_EQ(opened(file, kTruncating), -1);
        EXPECT_EQ(errno, EIO);
        expectClosed(static_cast<int>(script.steps.front().result));
    }
}

TEST_F(PlatformTest, FailedCloseLeavesTheDescriptorOpen) {
    const int descriptor = opened(path("data"), kReadWrite | platform::_O_TEMPORARY);
    {
        Script script(Call::Close, {Verdict::fail(EIO)});
        const Installed installed(script);
        EXPECT_EQ(platform::_close(descriptor), -1);
        EXPECT_EQ(errno, EIO);
    }
    expectOpen(descriptor);
    EXPECT_TRUE(exists("data"));
    EXPECT_EQ(platform::_close(descriptor), 0);
    expectClosed(descriptor);
    EXPECT_EQ(platform::_close(descriptor), -1);
    EXPECT_EQ(errno, EBADF);
}

struct CloseCase {
    const char* name;
    Call call;
    std::vector<Verdict> verdicts;
    std::size_t syncs;
};
const CloseCase kCloses[] = {
    {"InterruptedDuplicateIsAskedAgain", Call::Close, {Verdict::fail(EINTR)}, 0},
    {"InterruptedCloseIsDone", Call::Close, {Verdict::goOn(), Verdict::fail(EINTR)}, 0},
    {"LateFailureClosesNoNumberTwice", Call::Close, {Verdict::goOn(), Verdict::fail(EIO)}, 0},
    {"NoNumberForADuplicateSyncsInstead", Call::Duplicate, {Verdict::fail(EMFILE)}, 1},
};

TEST_F(PlatformTest, ClosesEveryDescriptorOnce) {
    for (const CloseCase& row : kCloses) {
        SCOPED_TRACE(row.name);
        const int descriptor = opened(path("data"), kReadWrite);
        Script script(row.call, row.verdicts);
        const Installed installed(script);
        EXPECT_EQ(platform::_close(descriptor), 0);
        std::size_t closes = 0;
        for (const Step& step : script.steps) closes += step.call == Call::Close && step.descriptor == descriptor;
        EXPECT_EQ(closes, 1U);
        EXPECT_EQ(script.sizesOf(Call::Sync).size(), row.syncs);
        expectClosed(descriptor);
    }
}

TEST_F(PlatformTest, TemporaryFileGoesWhenItCloses) {
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(fDirectory);
    const int descriptor = opened("temporary", kReadWrite | platform::_O_TEMPORARY);
    std::filesystem::current_path(before);
    expectInChild([descriptor, this] {
        EXPECT_EQ(platform::_close(descriptor), 0);
        EXPECT_TRUE(exists("temporary")) << "deleted by a process that did not open it";
        const int own = opened(path("own"), kReadWrite | platform::_O_TEMPORARY);
        EXPECT_EQ(platform::_close(own), 0);
        EXPECT_FALSE(exists("own"));
    });
    EXPECT_TRUE(exists("temporary"));
    EXPECT_EQ(platform::_close(descriptor), 0);
    EXPECT_FALSE(exists("temporary")) << "the directory it was opened in is another one now";
}

TEST_F(PlatformTest, FileThatTookATemporaryNameStays) {
    const int descriptor = opened(path("data"), kReadWrite | platform::_O_TEMPORARY);
    ASSERT_EQ(platform::renameFile(made("other", "kept").c_str(), path("data").c_str()), 0);
    EXPECT_EQ(platform::_close(descriptor), 0);
    EXPECT_EQ(contentOf(path("data")), "kept");
}

TEST_F(PlatformTest, DurabilityTellsFailuresAndSkipsWhatHasNone) {
    const int descriptor = opened(path("data"), kReadWrite);
    EXPECT_EQ(platform::syncDirectoryOf(path("data").c_str()), 0);
    EXPECT_EQ(platform::syncDirectoryOf("nameAlone"), 0);
    EXPECT_EQ(platform::syncDirectoryOf(path("missing/data").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    Script script(Call::Sync, {Verdict::fail(EIO), Verdict::fail(EIO), Verdict::fail(EINVAL), Verdict::fail(EINTR)});
    const Installed installed(script);
    EXPECT_EQ(platform::syncData(descriptor), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(platform::syncDirectoryOf(path("data").c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(platform::syncData(descriptor), 0);
    EXPECT_EQ(platform::syncData(descriptor), 0);
    platform::_close(descriptor);
}

TEST_F(PlatformTest, TruncatesAndRemoves) {
    const std::string file = made("data", "0123456789");
    const int descriptor = opened(file, platform::_O_RDWR);
    Script script(Call::Truncate, {Verdict::fail(EINTR)});
    const Installed installed(script);
    EXPECT_EQ(platform::truncateFile(descriptor, 4), 0);
    EXPECT_EQ(contentOf(file), "0123");
    platform::_close(descriptor);
    EXPECT_EQ(platform::removeFile(file.c_str()), 0);
    EXPECT_EQ(platform::removeFile(file.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
