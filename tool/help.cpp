#include "help.h"

#include <CLI/CLI.hpp>

#include <cstddef>
#include <sstream>
#include <string>

namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kTextBegin = 20;  // after the longest option of most verbs

// A name with its text in a column beside it. The parser's own line differs between its versions.
std::string entry(const std::string& name, const std::string& text) {
    const std::string newLine = '\n' + std::string(kTextBegin, ' ');
    std::string lines = "  " + name;
    if (lines.size() < kTextBegin) {
        lines.resize(kTextBegin, ' ');
    } else {
        lines += newLine;
    }
    std::istringstream words(text);
    std::size_t column = kTextBegin;
    for (std::string word; words >> word; column += word.size()) {
        if (column != kTextBegin) {
            const bool fits = column + 1 + word.size() <= kColumns;
            lines += fits ? " " : newLine;
            column = fits ? column + 1 : kTextBegin;
        }
        lines += word;
    }
    return lines + '\n';
}

class layout : public CLI::Formatter {
public:
    layout() {
        // The name differs between versions of the parser.
        for (const char* name : {"Positionals", "POSITIONALS"}) label(name, "Files");
        label("OPTIONS", "options");
        label("SUBCOMMAND", "VERB");
    }
    // The parser's own would list types, ranges and exclusions, which messages explain.
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string& taken = option->get_option_text();
        return taken.empty() ? "" : ' ' + taken;
    }
    std::string make_option(const CLI::Option* option, bool positional) const override {
        return entry(make_option_name(option, positional) + make_option_opts(option), option->get_description());
    }
    std::string make_subcommand(const CLI::App* verb) const override {
        return entry(verb->get_name(), verb->get_description());
    }
};

}  // namespace

std::shared_ptr<CLI::FormatterBase> helpLayout() {
    return std::make_shared<layout>();
}
