// recover: what can be read of a damaged or unfinished file, as a new finished one.
#include "appendState.h"
#include "dictionary.h"
#include "failure.h"
#include "json.h"
#include "output.h"
#include "part.h"
#include "pendingFile.h"
#include "text.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>

namespace {

struct recoverRunOptions {
    partOptions part;
    std::string out;
    bool committed = false;
    bool drop = false;
    bool rollBack = false;
    bool json = false;
    outputOptions output;
};

class recoverRun {
public:
    explicit recoverRun(recoverRunOptions options) : fOptions(std::move(options)) {}

    int run() {
        checkUsage();
        if (fOptions.rollBack) return rollBack();
        openPart(fOptions.part.file);
        if (const std::string append = appendState(fOptions.part.file); !append.empty()) {
            note("recover", fOptions.part.file, append);
        }
        pendingFile pending(fOptions.out, fOptions.output, {fOptions.part.file});
        pending.during([&] {
            fReport = orva::recover(fOptions.part.file, pending.temporaryName(),
                                    {knownPart(), fOptions.committed, fOptions.drop});
            pending.commit();
        });
        tell();
        if (fReport.lost.empty()) return kAllWell;
        throw toolFailure(kPartial, fOptions.part.file,
                          counted(static_cast<std::int64_t>(fReport.lost.size()), "range") + " of rows lost; \"" +
                              shownName(fOptions.out) + "\" holds the others");
    }

private:
    void checkUsage() const {
        if (fOptions.rollBack != fOptions.out.empty()) {
            usageError("name the file to make with -o, or undo an interrupted append in place with --roll-back");
        }
        if (fOptions.out == "-") usageError("a finished file needs a name, for its heading is written last: -o FILE");
        if (platform::sameFile(fOptions.part.file.c_str(), fOptions.out.c_str())) {
            usageError("rows are never recovered in place: name another file with -o");
        }
    }

    int rollBack() const {
        const std::string& file = fOptions.part.file;
        switch (orva::rollBack(file)) {
            case orva::rollBackResult::rolledBack:
                note("recover", file, "the interrupted append was undone: the rows from before it are all there");
                break;
            case orva::rollBackResult::sideFileStale:
                note("recover", file, "it is whole as it stands, and its rows stay; the side file was removed");
                break;
            case orva::rollBackResult::completed:
                note("recover", file,
                     "the append was complete but for its heading, which was written: all rows are there");
                break;
            case orva::rollBackResult::nothingToDo:
                note("recover", file, "no append to undo: it has no side file");
                break;
        }
        return kAllWell;
    }

    // Without the user's word or the tool's own dictionary part, the library looks further than for a heading.
    std::optional<orva::foundPart> knownPart() const {
        if (fOptions.part.row0 == 0 && !readDictionary(*openPart(fOptions.part.file))) return {};
        return locatePart(fOptions.part).part;
    }

    // What was lost is told whatever becomes of standard output: nothing else shows it.
    void tell() const {
        try {
            output out;
            out.write(fOptions.json ? jsonText(asJson()) : asText());
            out.finish();
        } catch (const FileError& e) {
            if (fReport.lost.empty()) throw e.withOutcome("\"" + fOptions.out + "\" is complete");
            for (const orva::lostRange& lost : fReport.lost) note("recover", fOptions.part.file, line(lost));
            note("recover", e.fileName(), failureText(e, e.fileName()));
        }
    }

    std::string asText() const {
        const std::string file = shownName(fOptions.part.file) + ": ";
        std::string text = file + counted(fReport.blocks, "block") + " with " + grouped(fReport.rows) +
                           " bytes of rows recovered into " + shownName(fOptions.out) + '\n';
        if (!fReport.hadHeading) {
            text += file + "no heading: the file was never finished, or its heading is damaged\n";
        } else if (!fReport.hadIndex) {
            text += file + "no index: the blocks were found one behind the other\n";
        }
        if (fReport.hadHeading && fReport.rows > fReport.committedRows) {
            text += file + "rows from byte " + std::to_string(fReport.committedRows) +
                    " on come from an append that was not finished\n";
        }
        if (fReport.lastRewritten) {
            text += file + "the last block before them was already rewritten and may hold such rows too\n";
        }
        for (const orva::lostRange& lost : fReport.lost) text += file + line(lost) + '\n';
        return text;
    }

    std::string line(const orva::lostRange& lost) const {
        const std::int64_t row0 = fReport.part.row0Pos;
        return "bytes " + std::to_string(lost.begin - row0) + " to " + std::to_string(lost.end - row0) +
               " of the rows are lost" + (lost.estimated ? " (a guess)" : "") + ": " + lost.why;
    }

    nlohmann::ordered_json asJson() const {
        const std::int64_t row0 = fReport.part.row0Pos;
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const orva::lostRange& lost : fReport.lost) {
            list.push_back({{"offset", lost.begin - row0},
                            {"size", lost.end - lost.begin},
                            {"fileOffset", lost.place},
                            {"estimated", lost.estimated},
                            {"why", lost.why}});
        }
        return {{"schema", kJsonSchema},
                {"file", fOptions.part.file},
                {"output", fOptions.out},
                {"row0", row0},
                {"swapped", fReport.part.swapped},
                {"hadHeading", fReport.hadHeading},
                {"hadIndex", fReport.hadIndex},
                {"blocks", fReport.blocks},
                {"recoveredSize", fReport.rows},
                {"committedSize", fReport.committedRows},
                {"lastBlockRewritten", fReport.lastRewritten},
                {"lost", std::move(list)}};
    }

    const recoverRunOptions fOptions;
    orva::recoverReport fReport;
};

}  // namespace

verb addRecover(CLI::App& app) {
    auto options = std::make_shared<recoverRunOptions>();
    CLI::App* command = app.add_subcommand("recover", "Rebuild a finished file from a damaged or unfinished one");
    options->part.addTo(*command);
    command->add_option("-o,--output", options->out, "The file to make");
    command->add_flag("--committed", options->committed,
                      "Leave out the blocks that an append which was not finished has added; a last block that it has "
                      "rewritten stays, new rows included");
    command->add_flag("--drop", options->drop, "Close the gaps of lost rows instead of filling them with zeros");
    command->add_flag("--json", options->json, "Write the report as JSON");
    CLI::Option* rollBack = command->add_flag("--roll-back", options->rollBack,
                                              "End an interrupted append in FILE itself, by its side file");
    options->output.addTo(*command);
    for (const char* other : {"--row0", "--swap", "--committed", "--drop", "--json", "--force", "--no-sync"}) {
        rollBack->excludes(command->get_option(other));
    }
    return [options] { return recoverRun(*options).run(); };
}
