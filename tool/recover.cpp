// recover: writes what can be read of a damaged or unfinished file into a new finished one.
#include "failure.h"
#include "json.h"
#include "output.h"
#include "part.h"
#include "text.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>

namespace {

class recoverVerb final : public verb {
public:
    void addOptions(CLI::App& command) override {
        fPart.addTo(command);
        command.add_option("-o,--output", fOut, "The file to make; needed unless --roll-back is given")
            ->option_text("FILE");
        command.add_flag("--committed", fCommitted,
                         "Leave out the blocks that an unfinished append has added; a last block that it has "
                         "rewritten stays, with its new rows");
        command.add_flag("--drop", fDrop, "Close the gaps of lost rows instead of filling them with zeros");
        command.add_flag("--json", fJson, "Write the report as JSON");
        CLI::Option* rollBack =
            command.add_flag("--roll-back", fRollBack,
                             "End an interrupted append in FILE itself by its side file; goes with no other option");
        fOutput.addTo(command);
        for (const char* other : {"--row0", "--swap", "--committed", "--drop", "--json", "--force", "--no-sync"}) {
            rollBack->excludes(command.get_option(other));
        }
    }

    int run() override {
        checkUsage();
        requireName(fPart.file);
        if (fRollBack) return rollBack();
        noteAppend();
        fReport = recovered();
        tell();
        if (fReport.lost.empty()) return kAllWell;
        throw toolFailure(kPartial, fPart.file,
                          counted(static_cast<std::int64_t>(fReport.lost.size()), "range") + " of rows lost; \"" +
                              printable(fOut) + "\" holds the rest");
    }

private:
    orva::RecoverReport recovered() const {
        try {
            return orva::recover(fPart.file, fOut,
                                 {.row0 = fPart.place(),
                                  .committed = fCommitted,
                                  .drop_lost = fDrop,
                                  .durable = !fOutput.noSync,
                                  .replace = fOutput.force});
        } catch (const orva::UsageError& twoParts) {
            throw toolFailure(kOtherFailure, fPart.file, reasonOf(twoParts));
        }
    }

    void checkUsage() const {
        if (fRollBack != fOut.empty()) {
            usageError("name the file to make with -o, or undo an interrupted append in place with --roll-back");
        }
        requireFileName(fOut);
        if (platform::sameFile(fPart.file.c_str(), fOut.c_str())) {
            usageError("rows are never recovered in place: name another file with -o");
        }
    }

    int rollBack() const {
        constexpr const char* ends[] = {
            "nothing to roll back: it has no side file",
            "the interrupted append was undone: all rows from before it are there",
            "the file is complete as it is, and keeps all its rows; the side file was removed",
            "the append was complete but for its heading, which was written: all rows are there"};
        note("recover", fPart.file, ends[static_cast<std::size_t>(orva::roll_back(fPart.file))]);
        return kAllWell;
    }

    // An append, at work or interrupted, may be all that is wrong with the file.
    void noteAppend() const {
        const std::string& file = fPart.file;
        const std::string append = orva::append_state(file);
        if (!append.empty()) note("recover", file, append);
    }

    // Reports lost rows even if standard output fails: nothing else shows them.
    void tell() const {
        try {
            output out;
            out.write(fJson ? jsonText(asJson()) : asText());
            out.finish();
        } catch (const orva::SystemError& e) {
            if (fReport.lost.empty()) {
                throw orva::SystemError(e.code(), e.reason() + "; \"" + fOut + "\" is complete", e.path(), true);
            }
            for (const orva::LostRows& lost : fReport.lost) note("recover", fPart.file, line(lost));
            note("recover", e.path().string(), e.reason());
        }
    }

    std::string asText() const {
        const std::string file = printable(fPart.file) + ": ";
        std::string text = file + counted(fReport.blocks, "block") + " with " + grouped(fReport.size) +
                           " bytes of rows recovered into " + printable(fOut) + '\n';
        if (!fReport.had_heading) {
            text += file + "no heading: the file was never finished, or its heading is damaged\n";
        } else if (!fReport.had_index) {
            text += file + "no index: the blocks were found one after the other\n";
        }
        if (fReport.had_heading && fReport.size > fReport.committed) {
            text += file + "rows from byte " + std::to_string(fReport.committed) +
                    " on come from an append that was not finished\n";
        }
        if (fReport.last_rewritten) {
            text += file + "the last block before them was already rewritten and may hold such rows too\n";
        }
        for (const orva::LostRows& lost : fReport.lost) text += file + line(lost) + '\n';
        return text;
    }

    static std::string line(const orva::LostRows& lost) {
        return lostText(lost.rows) + (lost.estimated ? " (estimated)" : "") + ": " + lost.text;
    }

    nlohmann::ordered_json asJson() const {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const orva::LostRows& lost : fReport.lost) {
            list.push_back({{"offset", lost.rows.offset},
                            {"size", lost.rows.length},
                            {"fileOffset", lost.file_offset},
                            {"estimated", lost.estimated},
                            {"why", lost.text}});
        }
        return {{"schema", kJsonSchema},
                {"file", fPart.file},
                {"output", fOut},
                {"row0", fReport.row0},
                {"swapped", fReport.swapped},
                {"hadHeading", fReport.had_heading},
                {"hadIndex", fReport.had_index},
                {"blocks", fReport.blocks},
                {"recoveredSize", fReport.size},
                {"committedSize", fReport.committed},
                {"lastBlockRewritten", fReport.last_rewritten},
                {"lost", std::move(list)}};
    }

    partOptions fPart;
    std::string fOut;
    bool fCommitted = false;
    bool fDrop = false;
    bool fRollBack = false;
    bool fJson = false;
    outputOptions fOutput;
    orva::RecoverReport fReport;
};

}  // namespace

std::unique_ptr<verb> makeRecover() {
    return std::make_unique<recoverVerb>();
}
