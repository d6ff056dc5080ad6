// append: more rows behind those of a finished file.
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

struct appendOptions {
    partOptions part;
    std::string in = "-";
    bool noSync = false;
    choiceOptions choices;
    threadOptions threads;
    progressOptions progress;
};

class appendRun {
public:
    explicit appendRun(appendOptions options) : fOptions(std::move(options)), fFirst(1 << 18) {}

    int run() {
        checkInput();
        input from(fOptions.in);
        // Rows first, so that an input that fails at once, or has none, touches nothing.
        fFirst.resize(from.read(fFirst.data(), static_cast<std::uint32_t>(fFirst.size())));
        if (!fFirst.empty()) rollBackInterrupted();
        const shownFile file = openFile("append", fOptions.part);
        progress bar(fOptions.progress, "append", knownSize(fOptions.in).value_or(-1));
        const std::int64_t added = fFirst.empty() ? requireSound(file) : append(file, from, bar);
        bar.finish(shownName(file.name) + ": " + humanSize(static_cast<double>(added)) + " of rows added");
        return kAllWell;
    }

private:
    void checkInput() const {
        requireName(fOptions.part.file);
        checkReadable(fOptions.part.file);
        const bool named = fOptions.in != "-";
        if (named) checkReadable(fOptions.in);
        if (platform::sameFile(named ? fOptions.in.c_str() : "/dev/stdin", fOptions.part.file.c_str())) {
            usageError("\"" + shownName(fOptions.part.file) + "\" cannot be added to itself");
        }
    }

    void rollBackInterrupted() const {
        const char* ending = nullptr;
        switch (orva::roll_back(fOptions.part.file)) {
            case orva::RollBack::nothing:
                return;
            case orva::RollBack::undone:
                ending = "it was undone, the rows from before it are all there";
                break;
            case orva::RollBack::whole:
                ending = "the file is whole as it stands, and its rows stay";
                break;
            case orva::RollBack::completed:
                ending = "its rows were all there, and it was completed";
                break;
        }
        note("append", fOptions.part.file, std::string("an append before this one was interrupted: ") + ending);
    }

    // What an append would have refused.
    static std::int64_t requireSound(const shownFile& file) {
        const orva::VerifyReport report = orva::verify(file.reader, {.first_block = std::ssize(file.info.blocks) - 1});
        const std::string& wrong = report.bad.empty() ? report.index : report.bad.front().text;
        if (!report.sound()) throw toolFailure(kDamaged, file.name, failureText(wrong, file.name));
        return 0;
    }

    // Gives the bytes added. From its last row on nothing ends it.
    std::int64_t append(const shownFile& file, input& from, progress& bar) const {
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

    orva::Writer begin(const shownFile& file) const {
        try {
            return orva::Writer::append(file.name, {.row0 = file.info.row0,
                                                    .threads = fOptions.threads.count(),
                                                    .durable = !fOptions.noSync,
                                                    .level = fOptions.choices.level,
                                                    .any_order = true});
        } catch (const orva::SystemError& e) {
            if (e.code() != std::errc::filename_too_long) throw;
            throw toolFailure(kOutputUnwritable, file.name,
                              failureText(e.what(), file.name) +
                                  "; --no-sync does without this file, and a shorter name leaves room for it");
        }
    }

    const appendOptions fOptions;
    std::vector<std::byte> fFirst;
};

}  // namespace

verb addAppend(CLI::App& app) {
    auto options = std::make_shared<appendOptions>();
    CLI::App* command = app.add_subcommand("append", "Add rows to a finished file; a failure leaves it as it was");
    options->part.addTo(*command);
    command->add_option("IN", options->in, "A file of rows; - or nothing is standard input");
    command->add_flag(
        "--no-sync", options->noSync,
        "Leave it to the system when the rows reach the disk, and do without the side file by which an append that a "
        "crash has ended is undone");
    options->choices.addLevelTo(*command);
    options->threads.addTo(*command);
    options->progress.addTo(*command);
    return [options] { return appendRun(*options).run(); };
}
