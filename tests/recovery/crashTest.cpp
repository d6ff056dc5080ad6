// A process that is killed at any of its file calls: what recover and roll-back make of the file that it leaves.
#include "recoveryTest.h"

#include <sys/wait.h>

#include <functional>

namespace recovery {

using platform::faults::Call;
using platform::faults::Verdict;

// Kills the process before its n-th file call; or, torn, in the midst of it, a write, so that half of it is done.
class KillAt : public platform::faults::Hook {
public:
    KillAt(std::size_t nth, bool torn) : fNth(nth), bTorn(torn) {}

    Verdict before(Call, int, std::uint64_t size) override {
        const std::size_t count = ++fCount;
        if (bTorn && count == fNth) return Verdict::atMost(size / 2);
        if (count == fNth + (bTorn ? 1 : 0)) ::kill(::getpid(), SIGKILL);
        return Verdict::goOn();
    }

private:
    const std::size_t fNth;
    const bool bTorn;
    std::atomic<std::size_t> fCount{0};
};

void expectKilled(std::size_t nth, bool torn, const std::function<void()>& run) {
    const pid_t child = ::fork();
    if (child == 0) {
        KillAt hook(nth, torn);
        platform::faults::install(&hook);
        run();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

// The calls that it makes, in their order.
std::vector<Call> callsOf(const std::function<void()>& run) {
    std::vector<Call> calls;
    core::CallHook hook([&](Call call, std::uint64_t) {
        calls.push_back(call);
        return Verdict::goOn();
    });
    const platform::faults::Installed installed(hook);
    run();
    return calls;
}

class CrashTest : public support::TempDir {
protected:
    // Kills `run` at each of its calls, whole and torn, each time on the files that `prepare` makes.
    void killEverywhere(const std::function<void()>& prepare, const std::function<void()>& run,
                        const std::function<void()>& check) {
        prepare();
        const std::vector<Call> calls = callsOf(run);
        for (std::size_t nth = 1; nth <= calls.size(); ++nth) {
            for (const bool torn : {false, true}) {
                if (torn && calls[nth - 1] != Call::Write) continue;
                SCOPED_TRACE((torn ? "torn at call " : "killed at call ") + std::to_string(nth));
                prepare();
                expectKilled(nth, torn, run);
                check();
                ++fKills;
            }
        }
    }

    Bytes recovered() const {
        orva::recover(fFile, path("out"), {kPart, false, true});
        return rowsOf(path("out"));
    }

    static bool holds(const Bytes& file, const Bytes& reference, const filePosRecord& r) {
        const auto place = static_cast<std::size_t>(r.translatePos);
        const auto size = static_cast<std::size_t>(r.translateSize);
        const Bytes found = support::slice(file, place, size);
        return found.size() == size && found == support::slice(reference, place, size);
    }
    static Bytes rowsIn(const Bytes& rows, const filePosRecord& r) {
        return support::slice(rows, static_cast<std::size_t>(r.orginalPos - kRow0),
                              static_cast<std::size_t>(r.orginalSize));
    }
    // The rows that the complete blocks of a file hold, as far as they join on.
    static Bytes rowsStanding(const Bytes& file, const Bytes& reference, const Bytes& rows, const Bytes& old,
                              const Bytes& oldRows) {
        const Layout layout(reference);
        const std::vector<filePosRecord> before = old.empty() ? std::vector<filePosRecord>{} : Layout(old).records;
        Bytes standing;
        for (std::size_t i = 0; i < std::max(layout.records.size(), before.size()); ++i) {
            if (i < layout.records.size() && holds(file, reference, layout.records[i])) {
                standing = standing + rowsIn(rows, layout.records[i]);
            } else if (i < before.size() && holds(file, old, before[i])) {
                return standing + rowsIn(oldRows, before[i]);
            } else {
                break;
            }
        }
        return standing;
    }

    const std::string fFile = path("file");
    int fKills = 0;
};

TEST_F(CrashTest, ANewFileKeepsItsCompleteBlocks) {
    const Append rows{"", {}, 0, {300, 500, 400, 200}};
    for (const int variant : {0, 1, 2, 3}) {
        SCOPED_TRACE(variant);
        const auto run = [&] {
            ORVA_FileStream source(fFile.c_str(), "r+b");
            zcmpsFilestr stream(source);
            stream.setMultiThread(variant & 1);
            stream.setDurable((variant & 2) != 0);
            stream.setRow0Pos(kRow0);
            stream.Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
            rows.write(stream);
            stream.Close();
        };
        const auto prepare = [&] { support::writeBytes(fFile, Bytes(kRow0, 0xD5)); };
        prepare();
        run();
        const Bytes reference = support::readBytes(fFile);
        killEverywhere(prepare, run, [&] {
            const Bytes standing = rowsStanding(support::readBytes(fFile), reference, rows.newRows(), {}, {});
            Bytes found;
            try {
                found = recovered();
            } catch (const DamagedFileError&) {  // right only where there is nothing
            }
            EXPECT_TRUE(support::sameBytes(found, standing));
        });
    }
    RecordProperty("kills", fKills);
    EXPECT_GT(fKills, 100);
}

class CrashedAppendTest : public CrashTest, public testing::WithParamInterface<Append> {};

const Append kAppends[] = {
    {"ShortLastBlock", {300, 500}, 0, {200, 90}}, {"NothingToShortBlock", {300, 500}, 0, {}},
    {"CutLastBlock", {300, 500}, 450, {20, 90}},  {"CutToShorter", {300, 500}, 450, {}},
    {"CutToBlockStart", {300, 500}, 500, {}},     {"FullLastBlock", {300, kBlock}, 0, {200, 90}},
    {"NothingToFullBlock", {300, kBlock}, 0, {}}, {"NoBlocks", {}, 0, {200, 90}},
};

INSTANTIATE_TEST_SUITE_P(, CrashedAppendTest, testing::ValuesIn(kAppends), nameOf);

TEST_P(CrashedAppendTest, KeepsCompleteBlocksOldAndNew) {
    const Append& append = GetParam();
    append.makeOld(fFile);
    const Bytes old = support::readBytes(fFile);
    append.run(fFile);
    const Bytes reference = support::readBytes(fFile);
    killEverywhere(
        [&] { support::writeBytes(fFile, old); }, [&] { append.run(fFile); },
        [&] {
            const Bytes file = support::readBytes(fFile);
            const Bytes found = recovered();
            // The new heading counts, whatever stands behind its blocks.
            if (support::slice(file, kRow0, 24) == support::slice(reference, kRow0, 24) && found == append.newRows()) {
                return;
            }
            const Bytes standing = rowsStanding(file, reference, append.newRows(), old, append.oldRows());
            EXPECT_TRUE(support::sameBytes(found, standing));
        });
    RecordProperty("kills", fKills);
    EXPECT_GT(fKills, 20);
}

TEST_P(CrashedAppendTest, IsAllOrNothingWhenSafe) {
    Append append = GetParam();
    append.safe = true;
    append.makeOld(fFile);
    const Bytes old = support::readBytes(fFile);
    append.run(fFile);
    const bool changes = support::readBytes(fFile) != old;
    int kept = 0;
    killEverywhere(
        [&] {
            support::writeBytes(fFile, old);
            std::filesystem::remove(orva::sideFileName(fFile));
        },
        [&] { append.run(fFile); },
        [&] {
            const orva::rollBackResult result = orva::rollBack(fFile);
            EXPECT_FALSE(hasSideFile(fFile));
            if (support::readBytes(fFile) == old) return;
            EXPECT_EQ(result, orva::rollBackResult::nothingToDo);
            EXPECT_TRUE(support::sameBytes(rowsOf(fFile), append.newRows()));
            ++kept;
        });
    EXPECT_EQ(kept > 0, changes);  // killed when the side file had gone
    RecordProperty("kills", fKills);
    EXPECT_GT(fKills, 40);
}

TEST_P(CrashedAppendTest, CanBeRolledBackRepeatedly) {
    Append append = GetParam();
    append.safe = true;
    append.makeOld(fFile);
    const Bytes old = support::readBytes(fFile);
    Bytes appended;
    Bytes side;
    {
        const core::Reader stream(fFile, 0, kRow0);
        append.begin(*stream.operator->());
        append.write(*stream.operator->());
        appended = support::readBytes(fFile);
        side = support::readBytes(orva::sideFileName(fFile));
        stream->abandon();
    }
    killEverywhere(
        [&] {
            support::writeBytes(fFile, appended);
            support::writeBytes(orva::sideFileName(fFile), side);
        },
        [&] { orva::rollBack(fFile); },
        [&] {
            orva::rollBack(fFile);
            EXPECT_TRUE(support::sameBytes(support::readBytes(fFile), old));
            EXPECT_FALSE(hasSideFile(fFile));
        });
    RecordProperty("kills", fKills);
    EXPECT_GT(fKills, 20);
}

}  // namespace recovery
