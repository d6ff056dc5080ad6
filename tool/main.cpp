// orva: packs rows into compressed data files, reads them back, and looks into such files.
#include "failure.h"
#include "help.h"
#include "output.h"
#include "signals.h"
#include "text.h"
#include "values.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <exception>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

struct namedVerb {
    const char* name;
    const char* help;
    makeVerb* make;
};
constexpr namedVerb kVerbs[] = {
    {"pack", "Compress rows into a finished file", makePack},
    {"join", "Join finished files into one by copying their compressed blocks", makeJoin},
    {"cat", "Write rows to standard output, whole or in ranges", makeCat},
    {"append", "Add rows to a finished file; a failure leaves it as it was", makeAppend},
    {"info", "Show what a file holds", makeInfo},
    {"verify", "Inflate every block and name the bad ones", makeVerify},
    {"recover", "Rebuild a finished file from a damaged or unfinished one", makeRecover},
    {"splits", "List ranges of rows that can be read in parallel", makeSplits},
};

// The verbs to set up. All of them cost as much as starting the process, so a command that begins with a verb gets that
// one, and one that asks for the version none.
std::vector<namedVerb> verbsFor(std::string_view firstWord) {
    if (firstWord == "--version") return {};
    for (const namedVerb& one : kVerbs) {
        if (one.name == firstWord) return {one};
    }
    return {std::begin(kVerbs), std::end(kVerbs)};
}

// Names an unknown word rather than what is missing because of it.
std::string refusal(const CLI::App& app, const CLI::ParseError& request, const std::string& verbName) {
    const std::vector<std::string> unknown = app.remaining(true);
    const std::string what = request.what();
    if (unknown.empty()) {
        if (dynamic_cast<const CLI::ArgumentMismatch*>(&request) == nullptr) return request.what();
        const std::string option = what.substr(0, what.find(':'));
        return what.find(": At Most ") != std::string::npos ? "too many values for " + option
                                                            : option + " needs a value";
    }
    const std::string& word = unknown.front();
    if (!word.starts_with('-')) return (verbName.empty() ? "unknown verb \"" : "unexpected argument \"") + word + '"';
    return "unknown option \"" + word + '"' + (verbName.empty() ? "" : "; write ./" + word + " if it is a file");
}

// Help and version are written as data is, so that a full disk is reported there too.
int answerFromParser(const CLI::App& app, const CLI::ParseError& request, const std::string& verbName) {
    if (request.get_exit_code() != 0) {
        const std::string help = verbName.empty() ? "orva --help" : "orva " + verbName + " --help";
        usageError(refusal(app, request, verbName) + "; see '" + help + "'");
    }
    std::ostringstream text;
    app.exit(request, text, text);
    output out;
    out.write(text.str());
    out.finish();
    return kAllWell;
}

std::string versionText() {
    return "orva " + orva::version() + " (" + orva::codecs() + ")";
}

// Turns pack's -N into --level=N, as in other packers. The parser itself knows only options of one letter.
void nameLevels(const CLI::App& app, std::vector<std::string>& words) {
    if (words.empty() || words.front() != "pack") return;
    const CLI::App* pack = app.get_subcommand("pack");
    const auto end = std::find(words.begin(), words.end(), "--");
    for (auto word = words.begin() + 1; word < end; ++word) {
        if (!word->starts_with('-') || !parseNumber(word->substr(1))) continue;
        const std::string& before = *(word - 1);
        const CLI::Option* option = before.starts_with('-') ? pack->get_option_no_throw(before) : nullptr;
        if (option == nullptr || option->get_items_expected_max() == 0) *word = "--level=" + word->substr(1);
    }
}

// The arguments, last first, as the parser wants them. It would take a name in brackets for a list of names.
std::vector<std::string> arguments(const CLI::App& app, int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + std::max(argc, 1));
    for (std::string& word : words) {
        if (word.starts_with('[') && word.ends_with(']')) word.insert(0, "./");
    }
    nameLevels(app, words);
    std::reverse(words.begin(), words.end());
    return words;
}

// The file of the verb, as far as the parser got: FILE, or the first IN.
std::string subjectOf(const CLI::App& command) {
    for (const char* name : {"FILE", "IN"}) {
        const CLI::Option* option = command.get_option_no_throw(name);
        if (option != nullptr && !option->results().empty()) return option->results().front();
    }
    return {};
}

int runTool(int argc, char** argv, std::string& verbName, std::string& subject) {
    CLI::App app{"Files of rows, compressed in blocks; any part can be read by itself.", "orva"};
    app.formatter(helpLayout());
    app.set_help_flag("-h,--help", "Show this help");
    app.set_version_flag("--version", versionText(), "Show the version and the codecs in use");
    app.require_subcommand(0, 1);
    app.footer(
        "'orva VERB --help' lists the options of a verb, 'man orva' explains everything.\n"
        "Exit codes: 0 all well, 1 other failure, 2 usage, 3 an input cannot be read,\n"
        "4 the output cannot be written, 5 damaged or unfinished data, 7 done in part.");
    std::vector<std::pair<CLI::App*, std::unique_ptr<verb>>> verbs;
    for (const namedVerb& one : verbsFor(argc > 1 ? argv[1] : "")) {
        const auto& [command, made] =
            verbs.emplace_back(app.add_subcommand(one.name, one.help)->group("Verbs"), one.make());
        made->addOptions(*command);
        checkValues(*command);
    }
    try {
        app.parse(arguments(app, argc, argv));
    } catch (const CLI::ParseError& request) {
        if (const auto parsed = app.get_subcommands(); !parsed.empty()) verbName = parsed.front()->get_name();
        return answerFromParser(app, request, verbName);
    }
    for (const auto& [command, parsed] : verbs) {
        if (!command->parsed()) continue;
        verbName = command->get_name();
        subject = subjectOf(*command);
        return parsed->run();
    }
    usageError("no verb given; see 'orva --help'");
}

}  // namespace

int main(int argc, char** argv) {
    std::string verbName;
    std::string subject;
    try {
        handleSignals();
        return runTool(argc, argv, verbName, subject);
    } catch (...) {
        return reportFailure(verbName, subject, std::current_exception());
    }
}
