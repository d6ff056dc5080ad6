// A process that is killed at any of its file calls, and a loss of power: what recover and roll-back make of the files.
#include "recoveryTest.h"

#include <fcntl.h>

#include <optional>
#include <set>

namespace recovery {

// What was synced stays, of the rest any part may be missing, in any order, torn or not. Killing a process cannot show
// this, for the system keeps what a dead process wrote.
class ImaginedDisk : public platform::faults::Hook {
public:
    explicit ImaginedDisk(const Files& files) : now{files}, fReal(files) {}
    std::set<Files> ever, now;  // what can be found after a loss of power: at any time, and at the end

    Verdict before(const platform::faults::Step&) override { return Verdict::goOn(); }
    void after(const platform::faults::Step& step) override {
        if (step.result < 0) return;
        const std::string name = step.name != nullptr ? step.name : fNames[step.descriptor];
        const bool creates = step.call == Call::Open && (step.flags & O_CREAT) != 0;
        if (step.call == Call::Open || step.call == Call::Duplicate) fNames[static_cast<int>(step.result)] = name;
        if (step.call == Call::Unlink) change([&](Files& files) { files.erase(name); });
        if (creates) change([&](Files& files) { files[name]; });
        if (step.call == Call::Truncate) change([&](Files& files) { files[name].resize(step.size); });
        if (step.call == Call::Write)
            write(name, step.offset, static_cast<const unsigned char*>(step.data), step.result);
        if (step.call == Call::Sync) sync(name);
        ever.insert(now.begin(), now.end());
    }

private:
    // What may reach the disk or not.
    void change(const std::function<void(Files&)>& apply) {
        apply(fReal);
        std::set<Files> changed;
        for (Files files : now) {
            apply(files);
            changed.insert(files);
        }
        now.merge(changed);
    }
    // Either half without the other too, while the combinations are few.
    void write(const std::string& name, std::int64_t offset, const unsigned char* data, std::int64_t size) {
        const std::int64_t half = now.size() < 200 ? size / 2 : size;
        for (const auto& [from, to] : {std::pair(std::int64_t{0}, half), std::pair(half, size)}) {
            const Bytes part(data + from, data + to);
            change([&, at = offset + from](Files& files) {
                if (files.count(name) != 0) files[name] = with(files[name], at, part);
            });
        }
    }
    void sync(const std::string& name) {
        for (Files files : std::exchange(now, {})) {
            const auto nameOf = &Files::value_type::first;
            const bool sameNames = std::ranges::equal(files, fReal, {}, nameOf, nameOf);
            if (std::filesystem::is_directory(name) && !sameNames) continue;
            if (files.count(name) != 0) files[name] = fReal[name];
            now.insert(files);
        }
    }

    Files fReal;
    std::map<int, std::string> fNames;
};

class InterruptionTest : public FileTest {
protected:
    // Kills `run`, begun on these files, before each of its calls and in the midst of each of its writes.
    void killEverywhere(const Files& files, const std::function<void()>& run, const std::function<void()>& check) {
        constexpr int kNoWrite = 3;
        for (std::uint64_t step = 2;; ++step) {
            SCOPED_TRACE("killed at half-call " + std::to_string(step));
            lay(files);
            const pid_t child = ::fork();
            if (child == 0) {
                const support::CallHook hook([=](Call call, std::int64_t, std::uint64_t number) {
                    const bool tears = 2 * number + 1 == step;
                    if (tears && call != Call::Write) ::_exit(kNoWrite);
                    if (number == (step + 1) / 2) ::kill(::getpid(), SIGKILL);
                    return tears ? Verdict::atMost(kTorn) : Verdict::goOn();
                });
                ::_exit(failureOf(run).empty() ? 0 : 1);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            if (WIFEXITED(status) && WEXITSTATUS(status) == kNoWrite) continue;
            if (!WIFSIGNALED(status)) {
                EXPECT_EQ(status, 0);
                return RecordProperty("kills", fKills);
            }
            ++fKills;
            check();
        }
    }

    // Loses the power behind each change that `run` makes. How many of the states of
    // the disk did not hold?
    int lose(const Files& files, const std::function<void()>& run, const std::function<bool(bool ended)>& holds) {
        lay(files);
        ImaginedDisk disk(files);
        {
            const platform::faults::Installed installed(disk);
            run();
        }
        int failures = 0;
        for (const bool ended : {false, true}) {
            for (const Files& state : ended ? disk.now : disk.ever) {
                lay(state);
                ++fReplays;
                failures += holds(ended) ? 0 : 1;
            }
        }
        RecordProperty("replays", fReplays);
        return failures;
    }

    // Nothing for a file that says that it is not finished.
    std::optional<Bytes> rowsIfFinished() const {
        std::optional<Bytes> rows;
        failureOf([&] { rows = rowsOf(fFile); });
        return rows;
    }

    void expectCompleteBlocks() const {
        Bytes recovered;  // nothing where nothing can be found
        failureOf([&] { orva::recover(fFile, fOut, {kPart, false, true}), recovered = rowsOf(fOut); });
        EXPECT_TRUE(sameBytes(recovered, standingRows(bytes())));
    }

    int fKills = 0;
    int fReplays = 0;
};

TEST_F(InterruptionTest, ANewFileKeepsItsCompleteBlocksAndIsFinishedOnceItSaysSo) {
    const std::vector<Bytes> blocks = blocksOf({300, 500, 400});
    const Files empty{{fFile, {}}};
    for (const bool durable : {false, true}) {
        for (const int thread : {0, 1}) {
            killEverywhere(
                empty, [&] { makeFile(fFile, blocks, kRow0, thread, durable); }, [&] { expectCompleteBlocks(); });
        }
        const auto finishedWhole = [&](bool ended) {
            const std::optional<Bytes> found = rowsIfFinished();
            if (found) return *found == support::joined(blocks);
            // A heading that is there may not come before what it points to.
            const Bytes file = std::filesystem::exists(fFile) ? bytes() : Bytes();
            const Bytes heading = support::slice(file, kRow0, kHeadingSize);
            const bool whole = heading.size() == kHeadingSize && heading[0] != 0 && heading[kHeadingSize - 8] != 0;
            return !ended && !(durable && whole);
        };
        // Without the setting the heading may reach the disk first: this disk can tell the two apart.
        EXPECT_EQ(lose(
                      {}, [&] { makeFile(fFile, blocks, kRow0, 0, durable); }, finishedWhole) == 0,
                  durable);
    }
    EXPECT_GT(fKills, 100);
}

INSTANTIATE_TEST_SUITE_P(, InterruptionTest, testing::Range(0, kEnding));

TEST_P(InterruptionTest, AnAppendKeepsCompleteBlocksAndIsAllOrNothingWhenSafe) {
    Append append = kAppends[GetParam()];
    makeFile(fFile, blocksOf(append.old));
    const Files old = present();
    const auto run = [&] { append.run(fFile); };
    const auto allOrNothing = [&](bool ended) {
        orva::rollBack(fFile);
        const std::optional<Bytes> found = rowsIfFinished();
        return found && (*found == append.newRows() || (!ended && *found == append.oldRows()));
    };
    killEverywhere(old, run, [&] {
        // The new heading counts, whatever stands behind its blocks.
        if (rowsIfFinished() != append.newRows()) expectCompleteBlocks();
    });
    // The same disk costs an append that is not safe its old rows.
    EXPECT_TRUE(lose(old, run, allOrNothing) > 0 || GetParam() >= kWriting);
    append.road = 1;
    killEverywhere(old, run, [&] { EXPECT_TRUE(allOrNothing(false)); });
    EXPECT_EQ(lose(old, run, allOrNothing), 0);
    const auto oldRows = [&](bool) { return orva::rollBack(fFile), rowsIfFinished() == append.oldRows(); };
    EXPECT_EQ(lose(
                  old, [&] { interrupted(append); }, oldRows),
              0);

    lay(old);
    const Files during = interrupted(append);
    const auto rollBack = [&] { orva::rollBack(fFile); };
    killEverywhere(during, rollBack, [&] {
        rollBack();
        EXPECT_EQ(present(), old);
    });
    EXPECT_EQ(lose(during, rollBack, oldRows), 0);
    EXPECT_GT(fKills, 80);
    EXPECT_GT(fReplays, 10);
}

}  // namespace recovery
