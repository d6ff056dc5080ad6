// pack: rows in, a finished file out.
#include "choices.h"
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

#include <algorithm>
#include <filesystem>
#include <memory>
#include <span>
#include <system_error>
#include <vector>

namespace {

struct packOptions {
    std::vector<std::string> inputs;
    std::string out;
    std::string dict;
    choiceOptions choices;
    outputOptions output;
    threadOptions threads;
    progressOptions progress;
};

class packRun {
public:
    explicit packRun(packOptions options) : fOptions(std::move(options)) {}

    int run() {
        chooseOutput();
        checkInputs();
        const std::vector<std::byte> dictionary = dictionaryPart();
        progress bar(fOptions.progress, "pack", totalSize());
        orva::Writer rows(fOptions.out, {.dictionary = dictionary,
                                         .threads = fOptions.threads.count(),
                                         .durable = !fOptions.output.noSync,
                                         .replace = fOptions.output.force,
                                         .level = fOptions.choices.level,
                                         .block = fOptions.choices.block,
                                         .permissions = orva::commonPermissions(
                                             std::vector<orva::Path>(fOptions.inputs.begin(), fOptions.inputs.end()))});
        for (const std::string& name : fOptions.inputs) {
            input(name).readInto(rows, [&](std::int64_t count) { bar.advance(count); });
        }
        rows.finish();
        if (!fOptions.dict.empty()) noteHidden("pack", fOptions.out, std::ssize(dictionary));
        std::error_code moved;  // by somebody who has waited for it
        const auto packed = static_cast<std::int64_t>(std::filesystem::file_size(fOptions.out, moved));
        bar.finish(shownName(fOptions.out) + ": " + humanSize(static_cast<double>(rows.size())) + " to " +
                   humanSize(static_cast<double>(packed)) + ", " + ratioText(rows.size(), packed));
        return kAllWell;
    }

private:
    bool oneNamedInput() const { return fOptions.inputs.size() == 1 && fOptions.inputs[0] != "-"; }

    void chooseOutput() {
        if (fOptions.out == "-") usageError("a finished file needs a name, for its heading is written last: -o FILE");
        if (!fOptions.out.empty()) return;
        if (!oneNamedInput()) usageError("several inputs and standard input need a name for the output: -o FILE");
        fOptions.out = fOptions.inputs[0] + ".orva";
    }

    // Before anything is written: a misspelt last name should not cost the work on the first ones.
    void checkInputs() const {
        if (std::count(fOptions.inputs.begin(), fOptions.inputs.end(), "-") > 1) {
            usageError("standard input (-) can be read only once");
        }
        for (const std::string& name : fOptions.inputs) {
            if (name == "-") continue;
            checkReadable(name);
            if (platform::sameFile(name.c_str(), fOptions.out.c_str())) {
                usageError("\"" + shownName(name) + "\" is input and output: name another output with -o");
            }
        }
        if (fOptions.dict.empty()) return;
        checkReadable(fOptions.dict);
    }

    std::int64_t totalSize() const {
        std::int64_t total = 0;
        for (const std::string& name : fOptions.inputs) {
            const auto size = knownSize(name);
            if (!size) return -1;
            total += *size;
        }
        return total;
    }

    std::vector<std::byte> dictionaryPart() const {
        if (!fOptions.dict.empty()) return readDictionary(fOptions.dict);
        constexpr std::size_t longestName = 300;
        const std::string source = oneNamedInput() ? fOptions.inputs[0] : "";
        const std::string name = std::filesystem::path(source).filename().string();
        const std::string text = orva::makeDictionaryText(shownName(name).substr(0, longestName),
                                                          source.empty() ? std::nullopt : knownSize(source));
        const auto bytes = std::as_bytes(std::span(text));
        return {bytes.begin(), bytes.end()};
    }

    packOptions fOptions;
};

}  // namespace

verb addPack(CLI::App& app) {
    auto options = std::make_shared<packOptions>();
    CLI::App* command = app.add_subcommand("pack", "Compress rows into a finished file");
    command->add_option("IN", options->inputs, "Files of rows, one behind the other; - is standard input")->required();
    command->add_option("-o,--output", options->out, "The file to make; without it IN.orva, if there is one IN")
        ->option_text("FILE");
    command->add_option("--dict", options->dict, "The dictionary part to put in front, byte for byte")
        ->option_text("FILE");
    options->choices.addLevelTo(*command);
    options->choices.addBlockTo(*command);
    options->output.addTo(*command);
    options->threads.addTo(*command);
    options->progress.addTo(*command);
    return [options] { return packRun(*options).run(); };
}
