// pack: rows in, a finished file out.
#include "choices.h"
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
#include <filesystem>
#include <memory>
#include <vector>

namespace fs = std::filesystem;

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
    explicit packRun(packOptions options) : fOptions(std::move(options)), fBuffer(new transferBuffer) {}

    int run() {
        chooseOutput();
        checkInputs();
        pendingFile pending(fOptions.out, fOptions.output, fOptions.inputs);
        progress bar(fOptions.progress, "pack", totalSize());
        pending.during([&] {
            writeFile(pending.temporaryName(), bar);
            if (!fOptions.dict.empty()) bHidden = needsRow0(pending.temporaryName(), fRow0Pos);
            fPackedSize = static_cast<std::int64_t>(fs::file_size(pending.temporaryName()));
            pending.commit();
        });
        if (bHidden) {
            note("pack", fOptions.out,
                 "its dictionary part looks like another compressed part: the rows are found by --row0 " +
                     std::to_string(fRow0Pos));
        }
        bar.finish(shownName(fOptions.out) + ": " + humanSize(static_cast<double>(fRowBytes)) + " to " +
                   humanSize(static_cast<double>(fPackedSize)) + ", " + ratioText(fRowBytes, fPackedSize));
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

    void writeFile(const std::string& name, progress& bar) {
        ORVA_FileStream file(name.c_str(), "r+b");
        if (file.Good() == 0) throwWriteFailed(name);
        fRow0Pos = writeDictionary(file);
        file.Close();
        zcmpsFilestr rows(file);
        try {
            rows.setThreadCount(fOptions.threads.besideThisOne());
            fOptions.choices.take(rows);
            rows.setRow0Pos(fRow0Pos);
            rows.Seek(fRow0Pos, ORVA_StrBaseIO::SeekFromStart);
            for (const std::string& input : fOptions.inputs) copyRows(input, rows, bar);
            rows.Close();
        } catch (...) {
            rows.abandon();
            throw;
        }
    }

    // Gives the row-0 position, which is its length.
    std::int64_t writeDictionary(ORVA_FileStream& file) {
        if (fOptions.dict.empty()) {
            const std::string source = oneNamedInput() ? fOptions.inputs[0] : "";
            const std::string text = makeDictionary(source, source.empty() ? std::nullopt : knownSize(source));
            file.Write(text.data(), static_cast<std::uint32_t>(text.size()));
        } else {
            input from(fOptions.dict);
            while (const std::uint32_t count = from.read(fBuffer->bytes, kPiece)) file.Write(fBuffer->bytes, count);
            if (file.Tell() == 0) {
                usageError("the dictionary part \"" + shownName(fOptions.dict) +
                           "\" is empty: rows begin behind at least one byte");
            }
        }
        return file.Tell();
    }

    void copyRows(const std::string& name, zcmpsFilestr& rows, progress& bar) {
        input from(name);
        from.readInto(rows, fOptions.threads.count() > 1, [&](std::int64_t count) {
            fRowBytes += count;
            bar.advance(count);
        });
    }

    packOptions fOptions;
    const std::unique_ptr<transferBuffer> fBuffer;
    std::int64_t fRow0Pos = 0;
    std::int64_t fRowBytes = 0;
    std::int64_t fPackedSize = 0;
    bool bHidden = false;  // another part is found first
};

}  // namespace

verb addPack(CLI::App& app) {
    auto options = std::make_shared<packOptions>();
    CLI::App* command = app.add_subcommand("pack", "Compress rows into a finished file");
    command->add_option("IN", options->inputs, "Files of rows, one behind the other; - is standard input")->required();
    command->add_option("-o,--output", options->out, "The file to make; IN.orva where there is one IN");
    command->add_option("--dict", options->dict, "The dictionary part to put in front, byte for byte");
    options->choices.addLevelTo(*command);
    options->choices.addBlockTo(*command);
    options->output.addTo(*command);
    options->threads.addTo(*command);
    options->progress.addTo(*command);
    return [options] { return packRun(*options).run(); };
}
