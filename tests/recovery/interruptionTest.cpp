// Kills a process at any of its file calls, or loses power: what recover and roll-back then make of the files.
#include "recoveryTest.h"

using namespace support;

// A disk that loses power. What was synced stays; of the rest any piece may be missing or torn, in any order. Killing a
// process cannot show this, since the system keeps what a dead process wrote.
struct ImaginedDisk : platform::faults::Hook {
    // `failsHeading`: fails the heading's sync, once.
    ImaginedDisk(const Files& files, bool failsHeading) : fOld(files), fFailsHeading(failsHeading) {}

    Verdict before(const Step& step) override {
        const std::lock_guard guard(fLock);
        const bool isHeadings = step.call == Call::Sync && !fChanges.empty() && fChanges.back().offset == kRow0;
        return isHeadings && std::exchange(fFailsHeading, false) ? Verdict::fail(EIO) : Verdict::goOn();
    }
    void after(const Step& step) override {
        static const std::set kinds{Call::Write, Call::Truncate, Call::Sync, Call::Rename, Call::Unlink};
        const bool creates = step.call == Call::Open && (step.flags & O_CREAT) != 0;
        if (step.result < 0 || !(creates || kinds.contains(step.call))) return;
        const std::filesystem::path held = "/proc/self/fd/" + std::to_string(step.descriptor);
        const std::string name = step.name != nullptr ? step.name : std::filesystem::read_symlink(held).string();
        const bool renames = step.call == Call::Rename, writes = step.call == Call::Write;
        const auto* data = static_cast<const unsigned char*>(step.data);
        const std::lock_guard guard(fLock);
        fChanges.push_back({step.call, name, renames ? step.newName : "", step.offset, step.size,
                            writes ? Bytes(data, data + step.result) : Bytes()});
    }

    std::size_t changes() const { return fChanges.size(); }
    // The files that can be found if power fails after the first `count` changes, in pieces of `piece` bytes. `chance`:
    // the probability, in quarters, that a piece that was not synced is there.
    Files found(std::size_t count, std::int64_t piece, std::uint64_t chance, RandomBytes& random) const {
        Files files = fOld;
        for (std::size_t i = 0; i < count; ++i) {
            const Change& change = fChanges[i];
            const bool there = files.count(change.name) != 0;
            const auto kept = [&] { return isSynced(i, count) || random.below(4) < chance; };
            if (change.call == Call::Write) {
                const std::int64_t end = change.offset + std::ssize(change.bytes);
                for (std::int64_t at = change.offset, next = 0; there && at < end; at = next) {
                    next = std::min(end, (at / piece + 1) * piece);
                    if (!kept()) continue;
                    // Some of the pieces that are there are torn.
                    const std::int64_t size = (kept() || random.oneIn(2) ? next : random.between(at + 1, next)) - at;
                    files[change.name] = with(files[change.name], at, slice(change.bytes, at - change.offset, size));
                }
            } else if (change.call != Call::Sync && kept()) {
                if (change.call == Call::Open) files[change.name];
                if (change.call == Call::Unlink) files.erase(change.name);
                if (change.call == Call::Rename && there) files[change.newName] = files.extract(change.name).mapped();
                if (change.call == Call::Truncate && there) files[change.name].resize(change.size);
            }
        }
        return files;
    }

private:
    struct Change {
        Call call;
        std::string name, newName;
        std::int64_t offset;
        std::uint64_t size;  // the new length
        Bytes bytes;
    };

    // A name is synced by its directory, bytes and length by their file.
    bool isSynced(std::size_t change, std::size_t count) const {
        const auto& [call, name, newName, offset, size, bytes] = fChanges[change];
        const bool isName = call == Call::Open || call == Call::Unlink || call == Call::Rename;
        const std::string synced = isName ? std::filesystem::path(name).parent_path().string() : name;
        return std::any_of(&fChanges[change], fChanges.data() + count,
                           [&](const Change& later) { return later.call == Call::Sync && later.name == synced; });
    }

    const Files fOld;
    bool fFailsHeading;
    std::mutex fLock;  // for several threads
    std::vector<Change> fChanges;
};

struct InterruptionTest : FileTest {
    using Run = std::function<void()>;
    using Holds = std::function<bool(bool ended)>;

    // `holds` must hold wherever `run` on these files is killed, and whatever a loss of power leaves.
    void expectHeld(const Files& files, const Run& run, const Holds& holds) {
        killEverywhere(files, run, [&] { EXPECT_TRUE(holds(false)); });
        EXPECT_EQ(lose(files, run, holds), 0);
    }

    // Kills `run` on these files before each of its calls and in the middle of each of its writes.
    void killEverywhere(const Files& files, const Run& run, const Run& check) {
        constexpr int kNoWrite = 3;
        for (std::uint64_t step = 2;; ++step) {
            SCOPED_TRACE("killed at half-call " + std::to_string(step));
            lay(files);
            const pid_t child = ::fork();
            if (child == 0) {
                const CallHook hook([=](const Step& called, std::uint64_t number) {
                    const bool tears = 2 * number + 1 == step;
                    if (tears && called.call != Call::Write) ::_exit(kNoWrite);
                    if (number == (step + 1) / 2) ::kill(::getpid(), SIGKILL);
                    return tears ? Verdict::atMost(kHeadingSize / 2) : Verdict::goOn();
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

    // Loses power after each change that `run` makes: with all that was not synced, with nothing of it, and with random
    // parts. Returns how many states of the disk did not hold.
    int lose(const Files& files, const Run& run, const Holds& holds, bool failsHeading = false) {
        static const std::uint64_t chances = numberFrom("ORVA_REPLAY_CHANCES", kSanitized ? 4 : 24);
        lay(files);
        ImaginedDisk disk(files, failsHeading);
        {
            const platform::faults::Installed installed(disk);
            run();
        }
        RandomBytes random(61);
        std::set<Files> seen;
        int failures = 0;
        for (std::size_t count = 0; count <= disk.changes(); ++count) {
            const bool ended = count == disk.changes();
            for (const std::int64_t piece : {std::int64_t{512}, std::int64_t{4096}}) {
                for (std::uint64_t chance = 0; chance < chances + 2; ++chance) {
                    const std::uint64_t quarters = chance < 2 ? 4 * chance : 1 + chance % 3;
                    const Files state = disk.found(count, piece, quarters, random);
                    if (!ended && !seen.insert(state).second) continue;
                    lay(state);
                    ++fReplays;
                    failures += holds(ended) ? 0 : 1;
                }
            }
        }
        RecordProperty("replays", fReplays);
        return failures;
    }

    // The rows, or nothing if the file says that it is not finished, in either byte order.
    std::optional<Bytes> rowsIfFinished() const {
        std::optional<Bytes> rows;
        for (const bool swap : {false, true}) {
            if (!rows) failureOf([&] { rows = rowsOf(fFile, swap); });
        }
        return rows;
    }

    void expectCompleteBlocks() const {
        Bytes recovered;  // empty if nothing can be found
        failureOf([&] { orva::recover(fFile, fOut, kDropLost), recovered = rowsOf(fOut); });
        EXPECT_TRUE(sameBytes(recovered, standingRows(bytes(), kRow0 + kHeadingSize)));
    }

    int fKills = 0, fReplays = 0;
};

TEST_F(InterruptionTest, ANewFileKeepsItsCompleteBlocksAndIsFinishedOnceItSaysSo) {
    const std::vector<Bytes> blocks = blocksOf({300, 500, 400});
    for (const bool durable : {false, true}) {
        const auto make = [&](int threading) { makeFile(fFile, blocks, kRow0, threading, durable); };
        for (const int threading : {0, 1})
            killEverywhere(
                {{fFile, {}}}, [&] { make(threading); }, [&] { expectCompleteBlocks(); });
        const auto finishedWhole = [&](bool ended) {
            const std::optional<Bytes> found = rowsIfFinished();
            if (found) return *found == joined(blocks);
            // A heading must not reach the disk before what it points to.
            const Bytes heading = slice(bytes(), kRow0, kHeadingSize);
            const bool whole = heading.size() == kHeadingSize && heading[0] != 0 && heading[kHeadingSize - 8] != 0;
            return !ended && !(durable && whole);
        };
        // Without `durable` the heading may reach the disk first: this disk can show the difference.
        EXPECT_EQ(lose(
                      {}, [&] { make(0); }, finishedWhole) == 0,
                  durable);
    }
    EXPECT_GT(fKills, 100);
}

// No file, or the rows of one flush_rows(), and at the end all rows.
TEST_F(InterruptionTest, WhatTheFaceMakesIsWholeOrAsItWas) {
    const Bytes rows[] = {RandomBytes(71).rows(700), Bytes(90'000, 'b'), RandomBytes(72).rows(70'000)};
    const auto write = [](orva::Writer writer, std::span<const Bytes> pieces) {
        for (const Bytes& piece : pieces) {
            writer.write(spanOf(piece));
            &piece == &pieces.back() ? writer.finish() : writer.flush_rows();
        }
    };
    const auto expectSteps = [&](const Files& before, const std::string& made, const Run& run,
                                 const std::vector<std::optional<Bytes>>& steps) {
        expectHeld(before, run, [&](bool ended) {
            std::optional<Bytes> found;
            if (std::filesystem::exists(made)) {
                orva::roll_back(made);
                found = allRows(orva::Reader{orva::Path(made)});
            }
            return ended ? found == steps.back() : std::ranges::find(steps, found) != steps.end();
        });
    };
    const std::span<const Bytes> all(rows), more = all.subspan(1);
    const Bytes two = rows[0] + rows[1], three = two + rows[2];
    write(orva::Writer(fFile), all.first(1));
    const Files old = present();
    expectSteps({}, fFile, [&] { write(orva::Writer(fFile), all); }, {std::nullopt, rows[0], two, three});
    expectSteps(old, fFile, [&] { write(orva::Writer::append(fFile), more); }, {rows[0], two, three});
    const auto replace = [&] { write(orva::Writer(fFile, {.replace = true}), more); };
    expectSteps(old, fFile, replace, {rows[0], rows[1], rows[1] + rows[2]});
    const orva::Path twice[] = {fFile, fFile};
    // At another place in a page: the imagined disk does not see what the system copies by itself.
    const orva::JoinOptions elsewhere{.dictionary = std::vector<std::byte>(100, std::byte{1})};
    expectSteps(old, fOut, [&] { orva::join(twice, fOut, elsewhere); }, {std::nullopt, rows[0] + rows[0]});
    EXPECT_GT(fKills, 200);
}

INSTANTIATE_TEST_SUITE_P(, InterruptionTest, testing::Range<std::size_t>(0, std::size(kAppends)));

TEST_P(InterruptionTest, AnAppendKeepsCompleteBlocksAndIsAllOrNothingWhenSafe) {
    Append append = kAppends[GetParam()];
    const Files old{{fFile, finished(blocksOf(append.old))}};
    const auto run = [&] { append.run(fFile); };
    run();
    EXPECT_EQ(Layout(bytes()).sizes, append.sizes);
    const auto allOrNothing = [&](bool ended) {
        orva::rollBack(fFile);
        const std::optional<Bytes> found = rowsIfFinished();
        return found && (*found == append.newRows() || (!ended && *found == append.oldRows()));
    };
    killEverywhere(old, run, [&] {
        // Once the new heading is there, it counts, whatever follows its blocks.
        if (rowsIfFinished() != append.newRows()) expectCompleteBlocks();
    });
    // On the same disk an append that is not safe loses old rows.
    EXPECT_TRUE(lose(old, run, allOrNothing) > 0 || GetParam() >= kWriting);
    append.variant = 5;  // safe, by two threads
    EXPECT_EQ(lose(old, run, allOrNothing), 0);
    append.variant = 1;
    expectHeld(old, run, allOrNothing);
    const auto runSwapped = [&] { append.run(fFile, true); };
    EXPECT_EQ(lose({{fFile, swapped(old.at(fFile), kRow0)}}, runSwapped, allOrNothing), 0);
    const auto oldRows = [&](bool) { return orva::rollBack(fFile), rowsIfFinished() == append.oldRows(); };
    const auto interrupt = [&] { interrupted(append); };
    EXPECT_EQ(lose(old, interrupt, oldRows), 0);

    // An append that learns of a failing disk when its heading may already be on it is undone all the same.
    const auto fail = [&] {
        const Reader stream(fFile);
        EXPECT_THAT(failureOf([&] { append.write(stream), stream->Close(); }), testing::HasSubstr(" errno 5 "));
    };
    const auto undone = [&](bool ended) { return allOrNothing(false) && (!ended || oldRows(true)); };
    EXPECT_EQ(lose(old, fail, undone, true), 0);

    lay(old);
    const auto asItWas = [&](bool) { return orva::rollBack(fFile), present() == old; };
    const auto rollBack = [&] { orva::rollBack(fFile); };
    Files late = interrupted(append);
    expectHeld(late, rollBack, asItWas);

    // Killed between writing its heading and the sync.
    lay(old);
    run();
    const Bytes heading = slice(bytes(), kRow0, kHeadingSize);
    late[fFile] = with(bytes(), kRow0, slice(old.at(fFile), kRow0, kHeadingSize));
    const auto endAtOnce = [&] {
        const int file = platform::openShared(fFile.c_str(), platform::_O_WRONLY, 0, 0);
        EXPECT_EQ(platform::writeAt(file, heading.data(), kHeadingSize, kRow0), kHeadingSize);
        platform::closeAnyway(file);
        orva::rollBack(fFile);
    };
    EXPECT_EQ(lose(late, endAtOnce, allOrNothing), 0);
    EXPECT_GT(fKills, 80);
    EXPECT_GT(fReplays, 10);
}
