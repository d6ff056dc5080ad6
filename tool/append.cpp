// append: more rows behind those of a finished file.
#include "choices.h"
#include "failure.h"
#include "input.h"
#include "part.h"
#include "progress.h"
#include "signals.h"
#include "system.h"
#include "text.h"
#include "threads.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <memory>

namespace {

struct appendOptions {
    partOptions part;
    std::string in = "-";
    bool noSync = false;
    choiceOptions choices;
    threadOptions threads;
    progressOptions progress;
};

// A file that stays the same whatever happens to its name.
class heldFile {
public:
    explicit heldFile(std::string name)
        : fName(std::move(name)), fDescriptor(platform::openShared(fName.c_str(), platform::_O_RDONLY, 0, 0)) {
        if (fDescriptor < 0) throwReadFailed(fName);
    }
    heldFile(const heldFile&) = delete;
    heldFile& operator=(const heldFile&) = delete;
    ~heldFile() { platform::closeAnyway(fDescriptor); }

    bool isNamed() const { return platform::sameFile(fDescriptor, fName.c_str()); }

private:
    const std::string fName;
    const int fDescriptor;
};

class appendRun {
public:
    explicit appendRun(appendOptions options) : fOptions(std::move(options)), fBuffer(new transferBuffer) {}

    int run() {
        checkInput();
        input from(fOptions.in);
        // Rows first, so that an input that fails at once, or has none, touches nothing.
        std::uint32_t count = from.read(fBuffer->bytes, kPiece);
        if (count != 0) rollBackInterrupted();
        const locatedPart located = locatePart(fOptions.part);
        noteFound("append", fOptions.part, located);
        progress bar(fOptions.progress, "append", knownSize(fOptions.in).value_or(-1));
        count != 0 ? append(located, from, count, bar) : requireSound(located);
        bar.finish(shownName(fOptions.part.file) + ": " + humanSize(static_cast<double>(fRowBytes)) + " of rows added");
        return kAllWell;
    }

private:
    void checkInput() const {
        openPart(fOptions.part.file);
        const bool named = fOptions.in != "-";
        if (named) checkReadable(fOptions.in);
        if (platform::sameFile(named ? fOptions.in.c_str() : "/dev/stdin", fOptions.part.file.c_str())) {
            usageError("\"" + shownName(fOptions.part.file) + "\" cannot be added to itself");
        }
    }

    void rollBackInterrupted() const {
        const char* ending = nullptr;
        switch (orva::rollBack(fOptions.part.file)) {
            case orva::rollBackResult::nothingToDo:
                return;
            case orva::rollBackResult::rolledBack:
                ending = "it was undone, the rows from before it are all there";
                break;
            case orva::rollBackResult::sideFileStale:
                ending = "the file is whole as it stands, and its rows stay";
                break;
            case orva::rollBackResult::completed:
                ending = "its rows were all there, and it was completed";
                break;
        }
        note("append", fOptions.part.file, std::string("an append before this one was interrupted: ") + ending);
    }

    // What an append would have refused.
    static void requireSound(const locatedPart& located) {
        orva::finishedPart part(located.file, located.part);
        part.verifyIndex();
        if (part.blockCount() != 0) part.verifyBlock(part.blockCount() - 1);
    }

    void append(const locatedPart& located, input& from, std::uint32_t count, progress& bar) {
        const orva::foundPart& part = located.part;
        const orva::finishedPart old(located.file, part);
        const std::int64_t end = part.row0Pos + old.dataSize();
        choiceOptions choices = fOptions.choices;
        choices.block = old.chosenLength();
        const namedStream source(fOptions.part.file);
        const heldFile held(fOptions.part.file);
        zcmpsFilestr rows(source);
        const signalDeferral deferral;
        try {
            rows.setThreadCount(fOptions.threads.besideThisOne());
            choices.take(rows);
            rows.readFilePosInfo(part.row0Pos, part.swapped);
            rows.Seek(end, ORVA_StrBaseIO::SeekFromStart);
            rows.setSafeAppend(!fOptions.noSync);
            rows.setFileToAppend(end, part.swapped);
            const auto passed = [&](std::int64_t size) {
                fRowBytes += size;
                bar.advance(size);
            };
            rows.Write(fBuffer->bytes, count);
            passed(count);
            from.readInto(rows, fOptions.threads.count() > 1, passed);
            throwIfEndAsked();
            rows.Close();
        } catch (const FileError& e) {
            rows.abandon();
            if (e.code().value() != ENAMETOOLONG) throw;
            throw e.withOutcome("--no-sync does without this file, and a shorter name leaves room for it");
        } catch (...) {
            rows.abandon();
            throw;
        }
        if (held.isNamed()) return;
        throw toolFailure(kOutputUnwritable, fOptions.part.file,
                          "another file took its name while rows were added: they stand in a file without that name");
    }

    const appendOptions fOptions;
    const std::unique_ptr<transferBuffer> fBuffer;
    std::int64_t fRowBytes = 0;
};

}  // namespace

verb addAppend(CLI::App& app) {
    auto options = std::make_shared<appendOptions>();
    CLI::App* command = app.add_subcommand("append", "Add rows to a finished file; a failure leaves it as it was");
    options->part.addTo(*command);
    command->add_option("IN", options->in, "A file of rows; standard input (-) without one");
    command->add_flag(
        "--no-sync", options->noSync,
        "Leave it to the system when the rows reach the disk, and do without the side file that undoes an "
        "append which a crash ends");
    options->choices.addLevelTo(*command);
    options->threads.addTo(*command);
    options->progress.addTo(*command);
    return [options] { return appendRun(*options).run(); };
}
