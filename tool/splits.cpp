// splits: ranges of rows for engines that read a file in parallel. Each begins where a block does, so that no block is
// inflated for two of them; with --record-size or --delimiter at the first record from there on, so that none is cut.
#include "blockRows.h"
#include "failure.h"
#include "json.h"
#include "output.h"
#include "part.h"
#include "verbs.h"

#include <orva/orva.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace {

struct splitsOptions {
    partOptions part;
    std::int64_t count = 0;  // 0: one for each block
    std::int64_t recordSize = 1;
    std::string delimiter;
    bool json = false;
};

// A byte as it is, or as \n, \r, \t, \0, \\ or \xHH, which a shell leaves alone.
std::optional<char> parseByte(const std::string& text) {
    if (text.size() == 1) return text[0];
    if (text.size() < 2 || text[0] != '\\') return {};
    if (text.size() == 2) {
        constexpr std::string_view names = "nrt0\\";
        constexpr std::string_view bytes("\n\r\t\0\\", 5);
        const auto at = names.find(text[1]);
        return at == std::string_view::npos ? std::nullopt : std::optional(bytes[at]);
    }
    unsigned char value = 0;
    const auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), value, 16);
    if (text[1] != 'x' || error != std::errc() || end != text.data() + text.size()) return {};
    return static_cast<char>(value);
}

class splitsRun {
public:
    explicit splitsRun(const splitsOptions& options)
        : fOptions(options),
          fDelimiter(parseByte(options.delimiter)),
          fFile(openFile("splits", options.part)),
          fRows(fFile) {}

    int run() {
        const std::vector<orva::Range> list = splits();
        output out;
        out.write(fOptions.json ? jsonText(report(list)) : lines(list));
        out.finish();
        return kAllWell;
    }

private:
    // Where the first record from the offset on begins; the end of the rows where none does.
    std::int64_t border(std::int64_t offset) {
        if (fDelimiter) return behindDelimiter(offset);
        const std::int64_t into = offset % fOptions.recordSize;
        const std::int64_t rest = fFile.info.size - offset;
        return into == 0 ? offset : offset + std::min(fOptions.recordSize - into, rest);
    }

    std::int64_t behindDelimiter(std::int64_t offset) {
        while (offset < fFile.info.size) {
            const std::string_view rows = fRows.from(offset);
            const auto at = rows.find(*fDelimiter);
            if (at != std::string_view::npos) return offset + static_cast<std::int64_t>(at) + 1;
            offset += static_cast<std::int64_t>(rows.size());
        }
        return offset;
    }

    std::vector<orva::Range> splits() {
        constexpr std::int64_t most = std::numeric_limits<int>::max();
        const std::int64_t count = fOptions.count == 0 ? most : std::min(fOptions.count, most);
        std::vector<orva::Range> list;
        std::int64_t begin = 0;
        for (const orva::Range& blocks : fFile.reader.splits(static_cast<int>(count))) {
            const std::int64_t next = blocks.offset + blocks.length;
            if (next <= begin) continue;  // no record begins there
            const std::int64_t end = border(next);
            list.push_back({begin, end - begin});
            begin = end;
        }
        return list;
    }

    static std::string lines(const std::vector<orva::Range>& list) {
        std::string text;
        for (const orva::Range& range : list) {
            text += std::to_string(range.offset) + '\t' + std::to_string(range.length) + '\n';
        }
        return text;
    }

    nlohmann::ordered_json report(const std::vector<orva::Range>& list) const {
        nlohmann::ordered_json json = {
            {"schema", kJsonSchema}, {"file", fOptions.part.file}, {"dataSize", fFile.info.size}};
        if (fOptions.recordSize != 1) json["recordSize"] = fOptions.recordSize;
        json["splits"] = nlohmann::ordered_json::array();
        for (const orva::Range& range : list)
            json["splits"].push_back({{"offset", range.offset}, {"size", range.length}});
        return json;
    }

    const splitsOptions& fOptions;
    const std::optional<char> fDelimiter;
    const shownFile fFile;
    blockRows fRows;
};

}  // namespace

verb addSplits(CLI::App& app) {
    auto options = std::make_shared<splitsOptions>();
    CLI::App* command = app.add_subcommand("splits", "List ranges of rows that can be read in parallel");
    options->part.addTo(*command);
    command->add_flag("--json", options->json, "Write them as JSON, not one a line as offset, tab and length");
    const auto atLeastOne = CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max());
    command->add_option("--count", options->count, "So many ranges at most; without it one for each block")
        ->option_text("N")
        ->check(atLeastOne);
    CLI::Option* recordSize =
        command->add_option("--record-size", options->recordSize, "The bytes of one record; no range cuts one");
    recordSize->option_text("N")->check(atLeastOne);
    command->add_option("--delimiter", options->delimiter, "The byte behind each record, as '\\n'; no range cuts one")
        ->option_text("C")
        ->check([](const std::string& text) { return parseByte(text) ? "" : "is not one byte, as x, \\n or \\x1e"; })
        ->excludes(recordSize);
    return [options] { return splitsRun(*options).run(); };
}
