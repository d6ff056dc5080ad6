#include "help.h"

#include <CLI/CLI.hpp>

#include <cstddef>
#include <sstream>
#include <string>

namespace {

constexpr std::size_t kColumns = 80;
constexpr std::size_t kTextBegin = 20;  // behind the longest option of most verbs

std::string wrapped(const std::string& text) {
    std::istringstream words(text);
    std::string lines;
    std::size_t used = 0;
    for (std::string word; words >> word; used += word.size()) {
        if (used != 0) {
            const bool fits = kTextBegin + used + 1 + word.size() <= kColumns;
            lines += fits ? ' ' : '\n';
            used = fits ? used + 1 : 0;
        }
        lines += word;
    }
    return lines;
}

class layout : public CLI::Formatter {
public:
    layout() {
        column_width(kTextBegin);
        label("Positionals", "Files");
        label("OPTIONS", "options");
        label("SUBCOMMAND", "VERB");
    }
    // The parser's own would tell types, ranges and what excludes what, for which messages are there.
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string& taken = option->get_option_text();
        return taken.empty() ? "" : ' ' + taken;
    }
    std::string make_option_desc(const CLI::Option* option) const override {
        return wrapped(option->get_description());
    }
    std::string make_subcommand(const CLI::App* verb) const override {
        std::ostringstream out;
        CLI::detail::format_help(out, verb->get_name(), wrapped(verb->get_description()), column_width_);
        return out.str();
    }
};

}  // namespace

std::shared_ptr<CLI::FormatterBase> helpLayout() {
    return std::make_shared<layout>();
}
