// join: the rows of finished files one behind the other, their compressed blocks copied as they are.
#include "failure.h"
#include "input.h"
#include "output.h"
#include "part.h"
#include "progress.h"
#include "text.h"
#include "threads.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <limits>
#include <memory>
#include <vector>

namespace {

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
        for (const std::string& name : fOptions.inputs) openFile("join", {name, fOptions.row0, false});
        const partOptions place{{}, fOptions.row0, false};
        orva::JoinOptions options{
            .row0 = place.place(), .durable = !fOptions.output.noSync, .replace = fOptions.output.force};
        if (!fOptions.dict.empty()) options.dictionary = readDictionary(fOptions.dict);
        if (fOptions.check) checkBlocks(place.place());
        progress bar(fOptions.progress, "join", storedSize());
        std::int64_t before = 0;
        options.progress = [&](std::int64_t done, std::int64_t) {
            bar.advance(done - before);
            before = done;
        };
        const std::vector<orva::Path> inputs(fOptions.inputs.begin(), fOptions.inputs.end());
        const orva::JoinReport report = orva::join(inputs, fOptions.out, options);
        if (!fOptions.dict.empty() || fOptions.row0 != 0) noteHidden("join", fOptions.out, report.row0);
        bar.finish(shownName(fOptions.out) + ": " + counted(report.blocks, "block") + ", " +
                   humanSize(static_cast<double>(report.size)) + " of rows in " +
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

    void checkBlocks(std::optional<std::int64_t> row0) const {
        for (const std::string& name : fOptions.inputs) {
            const orva::VerifyReport report = orva::verify(name, {.row0 = row0, .threads = fOptions.threads.count()});
            if (report.sound()) continue;
            const std::string& wrong = report.bad.empty() ? report.index : report.bad.front().text;
            throw toolFailure(kDamaged, name, failureText(wrong, name));
        }
    }

    std::int64_t storedSize() const {
        std::int64_t size = 0;
        for (const std::string& name : fOptions.inputs) size += knownSize(name).value_or(0);
        return size;
    }

    const joinRunOptions fOptions;
};

}  // namespace

verb addJoin(CLI::App& app) {
    auto options = std::make_shared<joinRunOptions>();
    CLI::App* command = app.add_subcommand("join", "Put the rows of finished files into one, without inflating them");
    command->add_option("FILE", options->inputs, "Finished files, one behind the other")->required();
    command->add_option("--row0", options->row0, "The file offset where the compressed part begins in each of them")
        ->option_text("S")
        ->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()));
    command->add_option("-o,--output", options->out, "The file to make; cannot be left out")
        ->option_text("FILE")
        ->required();
    command->add_option("--dict", options->dict, "The dictionary part to put in front; without it the first file's")
        ->option_text("FILE");
    command->add_flag("--check", options->check, "Inflate every block first, and make nothing if one is damaged");
    options->output.addTo(*command);
    options->threads.addTo(*command);
    options->progress.addTo(*command);
    return [options] { return joinRun(*options).run(); };
}
