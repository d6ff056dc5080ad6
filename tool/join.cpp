// join: puts the rows of finished files one after the other; compressed blocks are copied as they are.
#include "failure.h"
#include "input.h"
#include "output.h"
#include "part.h"
#include "progress.h"
#include "text.h"
#include "threads.h"
#include "values.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <memory>
#include <vector>

namespace {

class joinVerb final : public verb {
public:
    void addOptions(CLI::App& command) override {
        command.add_option("FILE", fInputs, "Finished files, in this order")->required();
        command.add_option("--row0", fPart.row0, "The file offset where the compressed part begins in each of them")
            ->option_text("S")
            ->check(atLeastOne());
        command.add_option("-o,--output", fOut, "The file to make; required")->option_text("FILE")->required();
        command
            .add_option("--dict", fDict, "A file whose bytes become the dictionary part; without it the first file's")
            ->option_text("FILE");
        command.add_flag("--check", fCheck, "Inflate every block first, and make nothing if one is damaged");
        fOutput.addTo(command);
        fThreads.addTo(command);
        fProgress.addTo(command);
    }

    int run() override {
        requireFileName(fOut);
        requireOtherFile(fOut, fInputs);
        for (const std::string& name : fInputs) openFile("join", {name, fPart.row0, false});
        orva::JoinOptions options{.row0 = fPart.place(), .durable = !fOutput.noSync, .replace = fOutput.force};
        if (!fDict.empty()) {
            options.dictionary = readDictionary(fDict);
            options.permissions = orva::commonPermissions(std::vector<orva::Path>{fDict});
        }
        if (fCheck) checkBlocks();
        progress bar(fProgress, "join", totalSize(fInputs));
        options.progress = bar.callback();
        const std::vector<orva::Path> inputs(fInputs.begin(), fInputs.end());
        const orva::JoinReport report = orva::join(inputs, fOut, options);
        if (!fDict.empty() || fPart.row0 != 0) noteHidden("join", fOut, report.row0);
        bar.finish(printable(fOut) + ": " + counted(report.blocks, "block") + ", " + humanSize(report.size) +
                   " of rows in " + humanSize(report.stored));
        return kAllWell;
    }

private:
    void checkBlocks() const {
        for (const std::string& name : fInputs) {
            requireSound(name, orva::verify(name, {.row0 = fPart.place(), .threads = fThreads.wanted}));
        }
    }

    std::vector<std::string> fInputs;
    partOptions fPart;  // for each of them
    std::string fOut;
    std::string fDict;
    bool fCheck = false;
    outputOptions fOutput;
    threadOptions fThreads;
    progressOptions fProgress;
};

}  // namespace

std::unique_ptr<verb> makeJoin() {
    return std::make_unique<joinVerb>();
}
