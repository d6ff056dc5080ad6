// append: adds rows to a finished file.
#include "choices.h"
#include "failure.h"
#include "input.h"
#include "part.h"
#include "progress.h"
#include "signals.h"
#include "text.h"
#include "threads.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <memory>
#include <vector>

namespace {

class appendVerb final : public verb {
public:
    void addOptions(CLI::App& command) override {
        fPart.addTo(command);
        command.add_option("IN", fIn, "A file of rows; - or nothing is standard input");
        command.add_flag("--no-sync", fNoSync,
                         "Let the system decide when the rows reach the disk, and make no side file, which could "
                         "undo an append that a crash interrupts");
        fChoices.addLevelTo(command);
        fThreads.addTo(command);
        fProgress.addTo(command);
    }

    int run() override {
        checkInput();
        input from(fIn);
        // Reads rows first: an input that fails at once, or has none, changes nothing.
        fFirst.resize(from.read(fFirst.data(), static_cast<std::uint32_t>(fFirst.size())));
        if (!fFirst.empty()) rollBackInterrupted();
        const openedPart file = openFile("append", fPart);
        progress bar(fProgress, "append", knownSize(fIn).value_or(-1));
        const std::int64_t added = fFirst.empty() ? addNothing(file) : append(file, from, bar);
        bar.finish(printable(file.name) + ": " + humanSize(added) + " of rows added");
        return kAllWell;
    }

private:
    void checkInput() const {
        requireName(fPart.file);
        checkReadable(fPart.file);
        const bool named = fIn != "-";
        if (named) checkReadable(fIn);
        if (platform::sameFile(named ? fIn.c_str() : "/dev/stdin", fPart.file.c_str())) {
            usageError("cannot append \"" + printable(fPart.file) + "\" to itself");
        }
    }

    void rollBackInterrupted() const {
        constexpr const char* ends[] = {"", "it was undone, and all rows from before it are there",
                                        "the file is complete as it is, and keeps all its rows",
                                        "its rows were all there, so it was completed"};
        const orva::RollBack found = orva::roll_back(fPart.file);
        if (found == orva::RollBack::nothing) return;
        note("append", fPart.file,
             std::string("an earlier append was interrupted: ") + ends[static_cast<std::size_t>(found)]);
    }

    // Refuses files that an append would have refused.
    static std::int64_t addNothing(const openedPart& file) {
        requireSound(file.name, orva::verify(file.reader, {.first_block = std::ssize(file.info.blocks) - 1}));
        return 0;
    }

    // Returns the bytes added. Signals end it only until its last row is written.
    std::int64_t append(const openedPart& file, input& from, progress& bar) const {
        const signalDeferral deferral;
        orva::Writer rows = begin(file);
        const std::int64_t before = rows.size();
        rows.write(fFirst);
        bar.advance(std::ssize(fFirst));
        from.readInto(rows, [&](std::int64_t size) { bar.advance(size); });
        throwIfEndAsked();
        rows.finish();
        return rows.size() - before;
    }

    orva::Writer begin(const openedPart& file) const {
        try {
            return orva::Writer::append(file.name, {.row0 = file.info.row0,
                                                    .threads = fThreads.wanted,
                                                    .durable = !fNoSync,
                                                    .level = fChoices.level,
                                                    .any_order = true});
        } catch (const orva::SystemError& e) {
            if (e.code() != std::errc::filename_too_long) throw;
            throw toolFailure(kOutputUnwritable, file.name,
                              e.reason() + "; use --no-sync, which needs no side file, or a shorter name");
        }
    }

    partOptions fPart;
    std::string fIn = "-";
    bool fNoSync = false;
    choiceOptions fChoices;
    threadOptions fThreads;
    progressOptions fProgress;
    std::vector<std::byte> fFirst{std::size_t{1} << 18};  // rows of the input
};

}  // namespace

std::unique_ptr<verb> makeAppend() {
    return std::make_unique<appendVerb>();
}
