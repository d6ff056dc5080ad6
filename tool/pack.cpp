// pack: compresses rows into a finished file.
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

class packVerb final : public verb {
public:
    void addOptions(CLI::App& command) override {
        command.add_option("IN", fInputs, "Files of rows, in this order; - is standard input")->required();
        command.add_option("-o,--output", fOut, "The file to make; without it IN.orva, if there is one IN")
            ->option_text("FILE");
        command.add_option("--dict", fDict, "A file whose bytes become the dictionary part")->option_text("FILE");
        fChoices.addLevelTo(command);
        fChoices.addBlockTo(command);
        fOutput.addTo(command);
        fThreads.addTo(command);
        fProgress.addTo(command);
    }

    int run() override {
        chooseOutput();
        checkInputs();
        const std::vector<std::byte> dictionary = dictionaryPart();
        std::vector<orva::Path> sources(fInputs.begin(), fInputs.end());
        if (!fDict.empty()) sources.emplace_back(fDict);
        progress bar(fProgress, "pack", totalSize(fInputs));
        orva::Writer rows(fOut, {.dictionary = dictionary,
                                 .threads = fThreads.wanted,
                                 .durable = !fOutput.noSync,
                                 .replace = fOutput.force,
                                 .level = fChoices.level,
                                 .block = fChoices.block,
                                 .permissions = orva::commonPermissions(sources)});
        for (const std::string& name : fInputs) {
            input(name).readInto(rows, [&](std::int64_t count) { bar.advance(count); });
        }
        rows.finish();
        if (!fDict.empty()) noteHidden("pack", fOut, std::ssize(dictionary));
        std::error_code moved;  // if somebody has waited for the file
        const auto packed = static_cast<std::int64_t>(std::filesystem::file_size(fOut, moved));
        bar.finish(printable(fOut) + ": " + humanSize(rows.size()) + " to " + humanSize(packed) + ", " +
                   ratioText(rows.size(), packed));
        return kAllWell;
    }

private:
    bool oneNamedInput() const { return fInputs.size() == 1 && fInputs[0] != "-"; }

    void chooseOutput() {
        requireFileName(fOut);
        if (!fOut.empty()) return;
        if (!oneNamedInput()) usageError("several inputs, or standard input, need a name for the output: use -o FILE");
        fOut = fInputs[0] + ".orva";
    }

    // Runs before anything is written: a misspelt last name should not cost the work on the first ones.
    void checkInputs() const {
        if (std::ranges::count(fInputs, "-") + (fDict == "-" ? 1 : 0) > 1) {
            usageError("standard input (-) can be read only once");
        }
        for (const std::string& name : fInputs) {
            if (name != "-") checkReadable(name);
        }
        requireOtherFile(fOut, fInputs);
    }

    std::vector<std::byte> dictionaryPart() const {
        if (!fDict.empty()) return readDictionary(fDict);
        constexpr std::size_t longestName = 300;
        const std::string source = oneNamedInput() ? fInputs[0] : "";
        const std::string name = std::filesystem::path(source).filename().string();
        const std::string text = orva::makeDictionaryText(printable(name).substr(0, longestName),
                                                          source.empty() ? std::nullopt : knownSize(source));
        const auto bytes = std::as_bytes(std::span(text));
        return {bytes.begin(), bytes.end()};
    }

    std::vector<std::string> fInputs;
    std::string fOut;
    std::string fDict;
    choiceOptions fChoices;
    outputOptions fOutput;
    threadOptions fThreads;
    progressOptions fProgress;
};

}  // namespace

std::unique_ptr<verb> makePack() {
    return std::make_unique<packVerb>();
}
