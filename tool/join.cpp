// join: the rows of finished files one behind the other, their compressed blocks copied as they are.
#include "dictionary.h"
#include "failure.h"
#include "input.h"
#include "part.h"
#include "pendingFile.h"
#include "progress.h"
#include "text.h"
#include "threads.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <vector>

namespace {

constexpr std::int64_t kLongestOwnDictionary = 1 << 20;

struct joinRunOptions {
    std::vector<std::string> inputs;
    std::int64_t row0 = 0;
    std::string out;
    std::string dict;
    bool check = false;
    outputOptions output;
    threadOptions threads;
    progressOptions progress;
};

class joinRun {
public:
    explicit joinRun(joinRunOptions options) : fOptions(std::move(options)) {}

    int run() {
        checkUsage();
        for (const std::string& name : fOptions.inputs) locate(name);
        if (!fOptions.dict.empty()) checkReadable(fOptions.dict);
        if (fOptions.check) checkBlocks();
        pendingFile pending(fOptions.out, fOptions.output, fOptions.inputs);
        progress bar(fOptions.progress, "join", storedSize());
        orva::joinReport report;
        bool hidden = false;
        pending.during([&] {
            report = write(pending.temporaryName(), bar);
            hidden = needsRow0(pending.temporaryName(), report.part.row0Pos);
            pending.commit();
        });
        if (hidden) {
            note("join", fOptions.out,
                 "its dictionary part looks like another compressed part: the rows are found by --row0 " +
                     std::to_string(report.part.row0Pos));
        }
        bar.finish(shownName(fOptions.out) + ": " + counted(report.blocks, "block") + ", " +
                   humanSize(static_cast<double>(report.rows)) + " of rows in " +
                   humanSize(static_cast<double>(report.stored)));
        return kAllWell;
    }

private:
    void checkUsage() const {
        if (fOptions.out == "-") usageError("a finished file needs a name, for its heading is written last: -o FILE");
        for (const std::string& name : fOptions.inputs) {
            if (platform::sameFile(name.c_str(), fOptions.out.c_str())) {
                usageError("\"" + shownName(name) + "\" is input and output: name another output with -o");
            }
        }
    }

    void locate(const std::string& name) {
        const partOptions part{name, fOptions.row0, false};
        const locatedPart located = locatePart(part);
        noteFound("join", part, located);
        if (fInputs.empty()) {
            bOwnDictionary = located.how == locatedPart::byDictionary;
        } else if (located.part.swapped != fInputs[0].part.swapped) {
            usageError(
                "\"" + shownName(fInputs[0].name) + "\" and \"" + shownName(name) +
                "\" have different byte orders, and a file has one: join them apart, or pack the rows of one anew");
        }
        fInputs.push_back({name, located.part});
    }

    // Each thread takes the next block that nobody has taken.
    void checkBlocks() const {
        for (const orva::joinInput& input : fInputs) {
            orva::finishedPart whole(input.name, input.part);
            whole.verifyIndex();
            const std::uint32_t blocks = whole.blockCount();
            std::atomic<std::uint32_t> next{0};
            const auto work = [&] {
                orva::finishedPart part(whole);
                for (std::uint32_t number = next++; number < blocks; number = next++) part.verifyBlock(number);
            };
            runOnThreads(static_cast<std::int32_t>(
                             std::min<std::uint32_t>(static_cast<std::uint32_t>(fOptions.threads.count()), blocks)),
                         work);
        }
    }

    std::int64_t storedSize() const {
        std::int64_t size = 0;
        for (const std::string& name : fOptions.inputs) size += knownSize(name).value_or(0);
        return size;
    }

    orva::joinReport write(const std::string& name, progress& bar) const {
        orva::joinOptions options;
        options.row0Pos = writeDictionary(name);
        options.copied = [&](std::int64_t bytes) { bar.advance(bytes); };
        return orva::join(fInputs, name, options);
    }

    // The dictionary part where it is not the first input's as it stands there. Gives its length, or 0.
    std::int64_t writeDictionary(const std::string& name) const {
        const std::int64_t row0Pos = fInputs[0].part.row0Pos;
        const bool outlived = bOwnDictionary && fInputs.size() > 1 && row0Pos <= kLongestOwnDictionary;
        if (fOptions.dict.empty() && !outlived) return 0;
        ORVA_FileStream file(name.c_str(), "r+b");
        if (file.Good() == 0) throwWriteFailed(name);
        if (fOptions.dict.empty()) {
            const std::string text = joinedDictionary(fInputs[0].name, row0Pos);
            file.Write(text.data(), static_cast<std::uint32_t>(text.size()));
        } else {
            copyDictionary(file);
        }
        const std::int64_t length = file.Tell();
        file.Close();
        return length;
    }

    void copyDictionary(ORVA_FileStream& file) const {
        const std::unique_ptr<transferBuffer> buffer(new transferBuffer);
        input from(fOptions.dict);
        while (const std::uint32_t count = from.read(buffer->bytes, kPiece)) file.Write(buffer->bytes, count);
        if (file.Tell() != 0) return;
        usageError("the dictionary part \"" + shownName(fOptions.dict) +
                   "\" is empty: rows begin behind at least one byte");
    }

    const joinRunOptions fOptions;
    std::vector<orva::joinInput> fInputs;
    bool bOwnDictionary = false;
};

}  // namespace

verb addJoin(CLI::App& app) {
    auto options = std::make_shared<joinRunOptions>();
    CLI::App* command = app.add_subcommand("join", "Put the rows of finished files into one, without inflating them");
    command->add_option("FILE", options->inputs, "Finished files, one behind the other")->required();
    command->add_option("--row0", options->row0, "The file offset where the compressed part begins in each of them")
        ->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()));
    command->add_option("-o,--output", options->out, "The file to make")->required();
    command->add_option("--dict", options->dict, "The dictionary part to put in front; the first file's without it");
    command->add_flag("--check", options->check, "Inflate every block first, and make nothing if one is damaged");
    options->output.addTo(*command);
    options->threads.addTo(*command);
    options->progress.addTo(*command);
    return [options] { return joinRun(*options).run(); };
}
