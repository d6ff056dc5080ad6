// A loss of power, on an imagined disk: what was synced stays, of the rest any part may be missing, in any order, torn
// or not. Killing a process cannot show this, for the system keeps what a dead process wrote.
#include "recoveryTest.h"

#include <fcntl.h>

#include <functional>
#include <map>
#include <optional>
#include <set>

namespace recovery {

using platform::faults::Call;
using platform::faults::Step;
using platform::faults::Verdict;

struct Event {
    enum Kind { Create, Write, Truncate, SyncFile, SyncDirectory, Unlink } kind;
    std::string name;
    std::int64_t offset = 0;  // Truncate: the length
    Bytes data;
};

// Records what changes files.
class Recorder : public platform::faults::Hook {
public:
    std::vector<Event> events;

    Verdict before(Call, int, std::uint64_t) override { return Verdict::goOn(); }
    void after(const Step& step) override {
        if (step.result < 0) return;
        const int descriptor = step.descriptor;
        switch (step.call) {
            case Call::Open:
                fNames[static_cast<int>(step.result)] = (step.flags & O_DIRECTORY) != 0 ? "" : step.name;
                if ((step.flags & O_CREAT) != 0) events.push_back({Event::Create, step.name, 0, {}});
                break;
            case Call::Duplicate:
                fNames[static_cast<int>(step.result)] = fNames[descriptor];
                break;
            case Call::Write: {
                const auto* bytes = static_cast<const unsigned char*>(step.data);
                events.push_back({Event::Write, fNames[descriptor], step.offset, Bytes(bytes, bytes + step.result)});
                break;
            }
            case Call::Truncate:
                events.push_back({Event::Truncate, fNames[descriptor], static_cast<std::int64_t>(step.size), {}});
                break;
            case Call::Sync:
                events.push_back(
                    {fNames[descriptor].empty() ? Event::SyncDirectory : Event::SyncFile, fNames[descriptor], 0, {}});
                break;
            case Call::Unlink:
                events.push_back({Event::Unlink, step.name, 0, {}});
                break;
            default:
                break;
        }
    }

private:
    std::map<int, std::string> fNames;
};

using Files = std::map<std::string, Bytes>;  // what a directory holds

class ImaginedDisk {
public:
    explicit ImaginedDisk(const Files& files) {
        for (const auto& [name, bytes] : files) fFiles[name] = {bytes, {}, true, true};
    }

    void apply(const Event& event) {
        if (event.kind == Event::SyncDirectory) {
            for (auto& [name, file] : fFiles) file.durable = file.linked;
            return;
        }
        const bool isNew = fFiles.count(event.name) == 0;
        File& file = fFiles[event.name];
        if (event.kind == Event::Create && isNew) file.linked = true;
        if (event.kind == Event::Unlink) file.linked = false;
        if (event.kind == Event::Write || event.kind == Event::Truncate) file.pending.push_back(event);
        if (event.kind == Event::SyncFile) {
            for (const Event& done : file.pending) change(file.synced, done, 0, done.data.size());
            file.pending.clear();
        }
    }

    // What can be found after the power is back.
    std::set<Files> afterLoss() const {
        std::set<Files> states{{}};
        for (const auto& [name, file] : fFiles) {
            std::set<Files> grown;
            for (const Files& state : states) {
                if (!file.linked || !file.durable) grown.insert(state);
                if (!file.linked && !file.durable) continue;
                for (const Bytes& bytes : contents(file)) {
                    Files with = state;
                    with[name] = bytes;
                    grown.insert(with);
                }
            }
            states = std::move(grown);
        }
        return states;
    }

private:
    struct File {
        Bytes synced;
        std::vector<Event> pending;
        bool linked = false;
        bool durable = false;  // whether the disk knows the name
    };

    // The bytes `from` to `to` of the event's data.
    static void change(Bytes& bytes, const Event& event, std::size_t from, std::size_t to) {
        if (event.kind == Event::Truncate) return bytes.resize(static_cast<std::size_t>(event.offset));
        const auto offset = static_cast<std::size_t>(event.offset);
        bytes.resize(std::max(bytes.size(), offset + to));
        std::copy(event.data.begin() + static_cast<std::ptrdiff_t>(from),
                  event.data.begin() + static_cast<std::ptrdiff_t>(to),
                  bytes.begin() + static_cast<std::ptrdiff_t>(offset + from));
    }

    // Every subset of the pending changes, of long rows those that keep or drop one or a tail; each whole, and with one
    // write torn.
    static std::set<Bytes> contents(const File& file) {
        std::set<Bytes> all;
        const std::size_t count = file.pending.size();
        const std::uint64_t everything = (std::uint64_t{1} << count) - 1;
        for (std::uint64_t kept = 0; kept <= everything; ++kept) {
            const int size = __builtin_popcountll(kept);
            const bool isPrefix = (kept & (kept + 1)) == 0;
            if (count > 6 && size > 1 && size < static_cast<int>(count) - 1 && !isPrefix) continue;
            all.insert(content(file, kept, count, 0, 0));
            for (std::size_t torn = 0; torn < count; ++torn) {
                const std::size_t length = file.pending[torn].data.size();
                if ((kept >> torn & 1) == 0 || length < 2) continue;
                for (const std::size_t cut : {std::size_t{1}, std::size_t{8}, length / 2, length - 1}) {
                    if (cut >= length) continue;
                    all.insert(content(file, kept, torn, 0, cut));
                    all.insert(content(file, kept, torn, cut, length));
                }
            }
        }
        return all;
    }

    static Bytes content(const File& file, std::uint64_t kept, std::size_t torn, std::size_t from, std::size_t to) {
        Bytes bytes = file.synced;
        for (std::size_t i = 0; i < file.pending.size(); ++i) {
            if ((kept >> i & 1) == 0) continue;
            const Event& event = file.pending[i];
            i == torn ? change(bytes, event, from, to) : change(bytes, event, 0, event.data.size());
        }
        return bytes;
    }

    std::map<std::string, File> fFiles;
};

class PowerLossTest : public support::TempDir {
protected:
    Files present() const {
        Files files;
        for (const std::string& name : {fFile, fSide}) {
            if (std::filesystem::exists(name)) files[name] = support::readBytes(name);
        }
        return files;
    }
    void lay(const Files& files) const {
        for (const std::string& name : {fFile, fSide}) std::filesystem::remove(name);
        for (const auto& [name, bytes] : files) support::writeBytes(name, bytes);
    }

    // Runs it, then loses the power behind each of its changes. `holds` is asked of every state that the disk may be
    // in, with whether `run` had come to its end. Gives how many did not hold.
    int lose(const std::function<void()>& run, const std::function<bool(bool ended)>& holds) {
        ImaginedDisk disk(present());
        Recorder recorder;
        {
            const platform::faults::Installed installed(recorder);
            run();
        }
        int failures = 0;
        std::set<Files> seen;
        for (std::size_t i = 0; i < recorder.events.size(); ++i) {
            disk.apply(recorder.events[i]);
            const bool ended = i + 1 == recorder.events.size();
            for (const Files& state : disk.afterLoss()) {
                if (!seen.insert(state).second && !ended) continue;
                lay(state);
                ++fStates;
                failures += holds(ended) ? 0 : 1;
            }
        }
        return failures;
    }

    // The rows, or nothing for a file that says that it is not finished.
    std::optional<Bytes> rowsIfFinished() const {
        try {
            return rowsOf(fFile);
        } catch (const std::exception&) {
            return std::nullopt;
        }
    }

    const std::string fFile = path("file");
    const std::string fSide = orva::sideFileName(fFile);
    int fStates = 0;
};

const Append kAppends[] = {
    {"ShortLastBlock", {300, 500}, 0, {200, 90}},
    {"CutLastBlock", {300, 500}, 450, {20, 90}},
    {"FullLastBlock", {300, kBlock}, 0, {200, 90}},
    {"NoBlocks", {}, 0, {200, 90}},
};

TEST_F(PowerLossTest, ADurableFileIsFinishedOrSaysThatItIsNot) {
    const Append rows{"", {}, 0, {300, 500, 400}};
    for (const bool durable : {true, false}) {
        std::filesystem::remove(fFile);
        const int failures = lose(
            [&] {
                ORVA_FileStream source(fFile.c_str(), "w+b");
                core::write(source, Bytes(kRow0, 0xD5));
                zcmpsFilestr stream(source);
                stream.setDurable(durable);
                stream.setRow0Pos(kRow0);
                stream.Seek(kRow0, ORVA_StrBaseIO::SeekFromStart);
                rows.write(stream);
                stream.Close();
            },
            [&](bool ended) {
                const std::optional<Bytes> found = rowsIfFinished();
                return found ? *found == rows.newRows() : !ended;
            });
        // Without the setting the heading may reach the disk first: this disk can tell the two apart.
        EXPECT_EQ(failures == 0, durable) << failures;
    }
    RecordProperty("states", fStates);
}

TEST_F(PowerLossTest, ASafeAppendIsAllOrNothing) {
    for (Append append : kAppends) {
        for (const bool safe : {true, false}) {
            SCOPED_TRACE(append.name);
            append.safe = safe;
            std::filesystem::remove(fSide);
            append.makeOld(fFile);
            const int failures =
                lose([&] { append.run(fFile); },
                     [&](bool ended) {
                         orva::rollBack(fFile);
                         const std::optional<Bytes> found = rowsIfFinished();
                         return found && (*found == append.newRows() || (!ended && *found == append.oldRows()));
                     });
            EXPECT_EQ(failures == 0, safe) << failures;
        }
    }
    RecordProperty("states", fStates);
    EXPECT_GT(fStates, 1000);
}

TEST_F(PowerLossTest, ARollBackCanBeRepeated) {
    for (Append append : kAppends) {
        SCOPED_TRACE(append.name);
        append.safe = true;
        append.makeOld(fFile);
        Files interrupted;
        {
            const core::Reader stream(fFile, 0, kRow0);
            append.begin(*stream.operator->());
            append.write(*stream.operator->());
            interrupted = present();
            stream->abandon();
        }
        lay(interrupted);
        const int failures = lose([&] { orva::rollBack(fFile); },
                                  [&](bool) {
                                      orva::rollBack(fFile);
                                      return rowsIfFinished() == append.oldRows();
                                  });
        EXPECT_EQ(failures, 0);
    }
    RecordProperty("states", fStates);
}

}  // namespace recovery
